#include <generic/handle>

#include <gtest/gtest.h>

#include "shape.h"

namespace {

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

} // namespace
