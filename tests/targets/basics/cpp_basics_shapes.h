#pragma once

struct Shape {
  virtual ~Shape() {}
  virtual double Area() const = 0;
  int id = 0;
};

struct Circle : Shape {
  double radius;
  explicit Circle(double r) : radius(r) {}
  double Area() const override;
};

struct Rect : Shape {
  double width, height;
  Rect(double w, double h) : width(w), height(h) {}
  double Area() const override;
};

double TotalArea(Shape **shapes, int count);
