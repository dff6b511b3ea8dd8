#ifndef BRANTLE_TESTS_THORNEL_SHAPE_H
#define BRANTLE_TESTS_THORNEL_SHAPE_H

/// A class that is cloned, and counts its objects.
struct Shape {
    explicit Shape(int corners) : _corners(corners) { ++live; }
    Shape(Shape const& other) : _corners(other._corners) { ++live; }
    Shape& operator=(Shape const&) = delete;
    virtual ~Shape() { --live; }
    virtual Shape* Clone() const { return new Shape(*this); }
    virtual bool IsSquare() const { return false; }

    int _corners;
    static inline int live = 0;
};

struct Square : Shape {
    Square() : Shape(4) {}
    Shape* Clone() const override { return new Square(*this); }
    bool IsSquare() const override { return true; }
};

#endif
