(* A purely functional queue made of two lists. *)
type 'a t = { front : 'a list; back : 'a list }

let empty = { front = []; back = [] }

let push x q = { q with back = x :: q.back }

let rec pop q =
  match q.front, q.back with
  | [], [] -> None
  | [], back -> pop { front = List.rev back; back = [] }
  | x :: rest, _ -> Some (x, { q with front = rest })

let () =
  let q = List.fold_left (fun q x -> push x q) empty [1; 2; 3] in
  match pop q with
  | Some (x, _) -> Printf.printf "first %d\n" x
  | None -> print_endline "empty"
