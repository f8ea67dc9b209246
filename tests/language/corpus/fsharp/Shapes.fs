module Shapes

type Shape =
    | Circle of radius: float
    | Rect of width: float * height: float

let area shape =
    match shape with
    | Circle r -> System.Math.PI * r * r
    | Rect (w, h) -> w * h

[<EntryPoint>]
let main argv =
    let shapes = [ Circle 1.0; Rect (2.0, 3.0) ]
    shapes |> List.map area |> List.sum |> printfn "total %f"
    0
