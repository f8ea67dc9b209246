package shapes

sealed trait Shape
final case class Circle(radius: Double) extends Shape
final case class Rect(width: Double, height: Double) extends Shape

object Shapes {
  def area(shape: Shape): Double = shape match {
    case Circle(r)  => math.Pi * r * r
    case Rect(w, h) => w * h
  }

  def main(args: Array[String]): Unit = {
    val shapes = List(Circle(1.0), Rect(2.0, 3.0))
    val total = shapes.map(area).sum
    println(s"total area: $total")
    implicit val ordering: Ordering[Shape] = Ordering.by(area)
    println(shapes.max)
  }
}
