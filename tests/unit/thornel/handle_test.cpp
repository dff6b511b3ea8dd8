#include <memory>
#include <type_traits>

#include <gtest/gtest.h>

#include <generic/autoptr>
#include <generic/gcmp>
#include <generic/handle>

namespace {

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

TEST(Handle, CopyingClones) {
    {
        Handle<Shape> const handle(new Square);
        Handle<Shape> const copy(handle);
        EXPECT_NE(copy.Get(), handle.Get());
        EXPECT_TRUE(copy->IsSquare());
        EXPECT_EQ((*copy)._corners, 4);
        EXPECT_EQ(Shape::live, 2);
    }
    EXPECT_EQ(Shape::live, 0);
}

TEST(Handle, NullCopiesAsNull) {
    Handle<Shape> const handle;
    Handle<Shape> copy(handle);
    EXPECT_EQ(copy.Get(), nullptr);
    copy = Handle<Shape>(new Square);
    EXPECT_NE(copy.Get(), nullptr);
    copy = handle;
    EXPECT_EQ(copy.Get(), nullptr);
    EXPECT_EQ(Shape::live, 0);
}

TEST(Handle, AssignmentReplacesTheObject) {
    {
        Handle<Shape> handle(new Shape(3));
        Handle<Shape> const other(new Square);
        handle = other;
        EXPECT_TRUE(handle->IsSquare());
        EXPECT_EQ(Shape::live, 2);
        Shape* const object = handle.Get();
        Handle<Shape> const& same = handle;
        handle = same;
        EXPECT_EQ(handle.Get(), object);
    }
    EXPECT_EQ(Shape::live, 0);
}

TEST(Handle, ResetKeepsTheSameObject) {
    {
        Handle<Shape> handle(new Shape(3));
        handle.Reset(handle.Get());
        EXPECT_EQ(handle->_corners, 3);
        handle.Reset(new Shape(5));
        EXPECT_EQ(handle->_corners, 5);
        EXPECT_EQ(Shape::live, 1);
        handle.Reset(nullptr);
        EXPECT_EQ(Shape::live, 0);
    }
    EXPECT_EQ(Shape::live, 0);
}

TEST(AutoPtr, DeletesItsObject) {
    {
        AutoPtr<Shape> pointer(new Square);
        EXPECT_TRUE(pointer->IsSquare());
        pointer.Reset(pointer.Get());
        EXPECT_EQ((*pointer)._corners, 4);
        pointer.Reset(new Shape(3));
        EXPECT_EQ(Shape::live, 1);
        AutoPtr<Shape> const none;
        EXPECT_EQ(none.Get(), nullptr);
    }
    EXPECT_EQ(Shape::live, 0);
}

TEST(AutoPtr, IsNotCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<AutoPtr<Shape>>);
    EXPECT_FALSE(std::is_copy_assignable_v<AutoPtr<Shape>>);
}

TEST(GCmp, ComparesByLessAndGreater) {
    EXPECT_EQ(GCmp<int>::Cmp(1, 2), -1);
    EXPECT_EQ(GCmp<int>::Cmp(2, 2), 0);
    EXPECT_EQ(GCmp<int>::Cmp(3, 2), 1);
    EXPECT_EQ(GCmp<unsigned int>::Cmp(4294967295u, 0u), 1);
}

TEST(GStringCmp, OrdersByText) {
    EXPECT_LT(GStringCmp::Cmp("a", "b"), 0);
    EXPECT_EQ(GStringCmp::Cmp("a", "a"), 0);
    EXPECT_GT(GStringCmp::Cmp("b", "a"), 0);
    EXPECT_EQ(GStringCmp::Cmp(String_t(), ""), 0);
}

} // namespace
