#include <brantle/thornel/olist.h>

#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Number : olink_t {
    explicit Number(int value) : _value(value) { ++live; }
    ~Number() override { --live; }

    int _value;
    static inline int live = 0;
};

int Value(olink_t const* link) { return static_cast<Number const*>(link)->_value; }
int Is(olink_t const* link, void const* value) { return Value(link) == *static_cast<int const*>(value); }
int ByTens(olink_t const* a, void const* b) {
    return Value(a) / 10 - Value(static_cast<olink_t const*>(b)) / 10;
}

class OList : public testing::Test {
protected:
    ~OList() override {
        _list.clear();
        EXPECT_EQ(Number::live, 0);
    }

    void Append(std::vector<int> const& values) {
        for (int const value : values) _list.append(new Number(value));
    }
    std::vector<int> Values() {
        std::vector<int> values;
        _list.loop(
            [](olink_t* link, void* all) {
                static_cast<std::vector<int>*>(all)->push_back(Value(link));
                return 1;
            },
            &values);
        return values;
    }
    int RemoveValue(int value) {
        olink_t* const link = _list.remove(Is, &value);
        if (!link) return -1;
        int const removed = Value(link);
        delete link;
        return removed;
    }

    olist_t _list;
};

TEST_F(OList, IsEmptyAtFirst) {
    int const value = 1;
    EXPECT_EQ(_list._last, nullptr);
    EXPECT_EQ(_list.Len(), 0u);
    EXPECT_EQ(_list.removeTop(), nullptr);
    EXPECT_EQ(_list.removeBottom(), nullptr);
    EXPECT_EQ(_list.find(Is, &value), nullptr);
    EXPECT_EQ(_list.remove(Is, &value), nullptr);
    EXPECT_EQ(_list[0], nullptr);
    EXPECT_THAT(Values(), IsEmpty());
}

TEST_F(OList, AppendsAtTheEndAndInsertsAtTheFront) {
    Append({1, 2});
    _list.insert(new Number(0));
    EXPECT_THAT(Values(), ElementsAre(0, 1, 2));
    EXPECT_EQ(_list.Len(), 3u);
    EXPECT_EQ(Value(_list._last), 2);
    EXPECT_EQ(Value(_list._last->_next), 0);
}

TEST_F(OList, InsertIntoAnEmptyListSetsLastToo) {
    _list.insert(new Number(5));
    EXPECT_EQ(Value(_list._last), 5);
    EXPECT_EQ(_list._last->_next, _list._last);
}

TEST_F(OList, ClearDestroysTheLinks) {
    Append({1, 2, 3});
    _list.clear();
    EXPECT_EQ(Number::live, 0);
    EXPECT_EQ(_list._last, nullptr);
    Append({4});
    EXPECT_THAT(Values(), ElementsAre(4));
}

TEST_F(OList, FindReturnsTheFirstMatch) {
    Append({1, 2, 2});
    int value = 2;
    EXPECT_EQ(_list.find(Is, &value), _list[1]);
    value = 3;
    EXPECT_EQ(_list.find(Is, &value), nullptr);
}

TEST_F(OList, RemoveUnlinksTheFirstMatchAnywhere) {
    Append({1, 2, 3, 2});
    EXPECT_EQ(RemoveValue(2), 2);
    EXPECT_THAT(Values(), ElementsAre(1, 3, 2));
    EXPECT_EQ(RemoveValue(2), 2);
    EXPECT_EQ(Value(_list._last), 3);
    EXPECT_EQ(RemoveValue(1), 1);
    EXPECT_EQ(RemoveValue(7), -1);
    EXPECT_EQ(RemoveValue(3), 3);
    EXPECT_EQ(_list._last, nullptr);
}

TEST_F(OList, RemoveTopAndBottomReturnTheLinks) {
    Append({1, 2, 3});
    olink_t* const first = _list.removeTop();
    olink_t* const last = _list.removeBottom();
    EXPECT_EQ(Value(first), 1);
    EXPECT_EQ(Value(last), 3);
    EXPECT_EQ(first->_next, nullptr);
    EXPECT_EQ(last->_next, nullptr);
    delete first;
    delete last;
    EXPECT_THAT(Values(), ElementsAre(2));
    delete _list.removeBottom();
    EXPECT_EQ(_list._last, nullptr);
}

TEST_F(OList, RemoveLoopDestroysAllMatches) {
    Append({2, 1, 2, 2, 3, 2});
    int const value = 2;
    EXPECT_EQ(_list.removeLoop(Is, &value), 4u);
    EXPECT_THAT(Values(), ElementsAre(1, 3));
    EXPECT_EQ(Number::live, 2);
    EXPECT_EQ(_list.removeLoop(Is, &value), 0u);
}

TEST_F(OList, RemoveLoopAcceptsAComparisonObject) {
    struct Odd : olist_cmpo_t {
        int operator()(olink_t const* link) override {
            ++_calls;
            return Value(link) % 2;
        }
        int _calls = 0;
    } odd;
    Append({1, 2, 3, 4, 5});
    EXPECT_EQ(_list.removeLoop(odd), 3u);
    EXPECT_EQ(odd._calls, 5);
    EXPECT_THAT(Values(), ElementsAre(2, 4));
    _list.clear();
    Append({1, 3});
    EXPECT_EQ(_list.removeLoop(odd), 2u);
    EXPECT_EQ(_list._last, nullptr);
}

TEST_F(OList, RemoveLoopAcrossTheEndKeepsTheChainClosed) {
    int const value = 2;
    for (std::vector<int> const& values : {std::vector<int>{1, 2}, {2, 1}, {1, 2, 2}, {2, 2, 1}, {2, 1, 2}}) {
        _list.clear();
        Append(values);
        _list.removeLoop(Is, &value);
        Append({7});
        EXPECT_THAT(Values(), ElementsAre(1, 7));
    }
}

TEST_F(OList, AbortedRemoveLoopKeepsTheRest) {
    Append({1, 2, 3});
    EXPECT_THROW(_list.removeLoop(
                     [](olink_t const* link, void const*) {
                         if (Value(link) == 2) throw std::runtime_error("broken off");
                         return 1;
                     },
                     nullptr),
                 std::runtime_error);
    EXPECT_THAT(Values(), ElementsAre(2, 3));
}

TEST_F(OList, SortIsStable) {
    Append({31, 12, 30, 11, 10, 5, 29});
    _list.Sort(ByTens);
    EXPECT_THAT(Values(), ElementsAre(5, 12, 11, 10, 29, 31, 30));
    EXPECT_EQ(Value(_list._last), 30);
    EXPECT_EQ(Value(_list._last->_next), 5);
}

TEST_F(OList, SortAcceptsEmptyAndSingleLists) {
    _list.Sort(ByTens);
    EXPECT_EQ(_list._last, nullptr);
    Append({1});
    _list.Sort(ByTens);
    EXPECT_THAT(Values(), ElementsAre(1));
}

TEST_F(OList, IndexPastTheEndIsNull) {
    Append({7, 8});
    EXPECT_EQ(Value(_list[0]), 7);
    EXPECT_EQ(Value(_list[1]), 8);
    EXPECT_EQ(_list[2], nullptr);
    EXPECT_EQ(_list[100], nullptr);
    EXPECT_EQ(_list[-1], nullptr);
}

TEST_F(OList, DestructorDestroysTheLinks) {
    {
        olist_t list;
        list.append(new Number(1));
        EXPECT_EQ(Number::live, 1);
    }
    EXPECT_EQ(Number::live, 0);
}

TEST(SList, KeepsElementsWithoutOwningThem) {
    int a = 1, b = 2, c = 3;
    auto const is = [](void* element, void const* wanted) { return element == wanted ? 1 : 0; };
    slist_t list;
    list.append(&b);
    list.append(&c);
    list.insert(&a);
    EXPECT_EQ(list.Len(), 3u);
    EXPECT_EQ(list.remove(is, &b), &b);
    EXPECT_EQ(list.remove(is, &b), nullptr);
    list.clear();
    EXPECT_EQ(list.Len(), 0u);
    EXPECT_EQ(a + b + c, 6);
}

} // namespace
