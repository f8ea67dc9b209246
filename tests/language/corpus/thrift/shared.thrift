namespace py shared
namespace java example.shared

struct SharedStruct {
  1: i32 key
  2: string value
}

exception NotFound {
  1: string message
}

service SharedService {
  SharedStruct getStruct(1: i32 key) throws (1: NotFound missing)
  oneway void ping()
}
