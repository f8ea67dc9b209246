class Greeter
  getter name : String

  def initialize(@name : String)
  end

  def greet(times : Int32 = 1) : Nil
    times.times { puts "Hello, #{@name}!" }
  end
end

greeter = Greeter.new("Ann")
greeter.greet(2)
