import std/[strutils, sequtils]

type
  Person = object
    name: string
    age: int

proc greet(p: Person): string =
  if p.age < 18:
    result = "Hi " & p.name
  else:
    result = "Hello " & p.name.toUpperAscii

let people = @[Person(name: "ann", age: 31), Person(name: "bo", age: 12)]
for line in people.mapIt(greet(it)):
  echo line
