package example.greeting

data class Person(val name: String, val age: Int)

fun greet(person: Person): String = when {
    person.age < 18 -> "Hi ${person.name}"
    else -> "Hello, $person.name"
}

fun main() {
    val people = listOf(Person("Ann", 31), Person("Bo", 12))
    people.filter { it.age > 10 }
          .map(::greet)
          .forEach { println(it) }
    val lazyValue: String by lazy { "computed" }
    println(lazyValue)
}
