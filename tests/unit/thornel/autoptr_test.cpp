#include <generic/autoptr>

#include <type_traits>

#include <gtest/gtest.h>

#include "shape.h"

namespace {

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

} // namespace
