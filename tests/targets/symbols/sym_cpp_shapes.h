#pragma once
namespace shapes {
struct Shape {
  static int s_created;
  Shape() { s_created++; }
  virtual ~Shape() {}
  virtual double Area() const = 0;
};
struct Circle : Shape {
  explicit Circle(double r);
  double Area() const override;
  double radius;
};
struct Square : Shape {
  explicit Square(double side);
  double Area() const override;
  double side;
};
}  // namespace shapes
