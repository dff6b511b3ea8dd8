#include <generic/tset>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "counted.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// An entry identified only by its name.
struct Entry {
    std::string _name;
    int _size;

    struct Compare {
        static int Cmp(Entry const& a, Entry const& b) { return a._name.compare(b._name); }
    };
};

using Entries = TSet<Entry, Entry::Compare>;
using Set = TSet<int>;

Set Of(std::vector<int> const& values) {
    Set set;
    for (int const value : values) set.Insert(value);
    return set;
}

std::vector<int> Values(Set const& set) {
    std::vector<int> values;
    Set::ConstIterator next(set, 0);
    while (int const* const value = next()) values.push_back(*value);
    return values;
}

TEST(TSet, IsEmptyAtFirst) {
    Set set;
    EXPECT_EQ(set.Root(), nullptr);
    EXPECT_EQ(set.Size(), 0u);
    EXPECT_EQ(set.Find(1), nullptr);
    EXPECT_EQ(set.Contains(1), 0);
    EXPECT_EQ(set.Remove(1), 0);
}

TEST(TSet, InsertReportsWhetherTheElementIsNew) {
    Set set;
    auto const first = set.Insert(5);
    EXPECT_EQ(first.second, 1);
    EXPECT_EQ(*first.first, 5);
    EXPECT_EQ(set.Size(), 1u);
    auto const again = set.Insert(5);
    EXPECT_EQ(again.second, 0);
    EXPECT_EQ(again.first, first.first);
    EXPECT_EQ(set.Size(), 1u);
}

TEST(TSet, InsertKeepsAnEqualElement) {
    Entries set;
    Entry* const old = set.Insert({"a", 1}).first;
    auto const again = set.Insert({"a", 2});
    EXPECT_EQ(again.second, 0);
    EXPECT_EQ(again.first, old);
    EXPECT_EQ(old->_size, 1);
    EXPECT_EQ(set.Size(), 1u);
}

TEST(TSet, FindAndContains) {
    Set const set = Of({3, 1, 2});
    EXPECT_EQ(*set.Find(2), 2);
    EXPECT_EQ(set.Contains(3), 1);
    EXPECT_EQ(set.Contains(4), 0);
}

TEST(TSet, RemoveLowersTheCount) {
    Set set = Of({3, 1, 2});
    EXPECT_EQ(set.Remove(2), 1);
    EXPECT_EQ(set.Remove(2), 0);
    EXPECT_EQ(set.Size(), 2u);
    EXPECT_THAT(Values(set), ElementsAre(1, 3));
    EXPECT_EQ(set.Remove(1), 1);
    EXPECT_EQ(set.Remove(3), 1);
    EXPECT_EQ(set.Root(), nullptr);
    EXPECT_EQ(set.Size(), 0u);
}

TEST(TSetDeathTest, RemoveBelowACountOfZeroIsFatal) {
    Set set = Of({1});
    set.num_elems = 0;
    EXPECT_DEATH(set.Remove(1), HasSubstr("generic/tset:"));
    EXPECT_DEATH(set.Remove(1), HasSubstr("Assertion `num_elems > 0' failed."));
    set.num_elems = 1;
    EXPECT_EQ(set.Remove(1), 1);
}

TEST(TSet, CopiesAreDeep) {
    Set set = Of({1, 2, 3});
    Set copy(set);
    copy.Insert(4);
    copy.Remove(1);
    EXPECT_THAT(Values(set), ElementsAre(1, 2, 3));
    EXPECT_THAT(Values(copy), ElementsAre(2, 3, 4));
    EXPECT_EQ(copy.Size(), 3u);
    copy = set;
    EXPECT_THAT(Values(copy), ElementsAre(1, 2, 3));
    Set const& same = copy;
    copy = same;
    EXPECT_THAT(Values(copy), ElementsAre(1, 2, 3));
    copy = Set();
    EXPECT_THAT(Values(copy), IsEmpty());
    EXPECT_EQ(copy.Size(), 0u);
}

TEST(TSetNode, CallbacksFillTheArgumentBlock) {
    int element = 5;
    TSetData<int> block{&element, 0};
    AVLnode* const node = Set::Node::Create(&block);
    EXPECT_NE(block._element, &element);
    EXPECT_EQ(*block._element, 5);
    EXPECT_EQ(block._isNew, 1);
    TSetData<int> again{&element, 0};
    EXPECT_EQ(Set::Node::Found(node, &again), 0);
    EXPECT_EQ(again._element, block._element);
    EXPECT_EQ(again._isNew, 0);
    delete node;
}

TEST(TSetNode, DupCopiesTheBalanceFactorAndNoLinks) {
    Set set = Of({1, 2});
    ASSERT_EQ(set.Root()->_balance, 1);
    Set const copy(set);
    EXPECT_EQ(copy.Root()->_balance, 1);
    bnode_t* const lone = set.Root()->Dup();
    EXPECT_EQ(lone->_right, nullptr);
    EXPECT_EQ(static_cast<AVLnode*>(lone)->_balance, 1);
    delete lone;
}

TEST(TSet, ClearRemovesAll) {
    Set set = Of({1, 2, 3});
    set.Clear();
    EXPECT_EQ(set.Root(), nullptr);
    EXPECT_EQ(set.Size(), 0u);
    set.Insert(9);
    EXPECT_THAT(Values(set), ElementsAre(9));
}

TEST(TSet, FailedInsertionKeepsTheSet) {
    {
        TSet<Counted> set;
        set.Insert(Counted(1));
        Counted::FailAfter(0);
        EXPECT_THROW(set.Insert(Counted(2)), std::runtime_error);
        EXPECT_THROW(TSet<Counted> copy(set), std::runtime_error);
        Counted::FailAfter(-1);
        EXPECT_EQ(set.Size(), 1u);
        EXPECT_EQ(Counted::live, 1);
    }
    EXPECT_EQ(Counted::live, 0);
}

TEST(TSetIterator, MovesBothWaysFromEitherEnd) {
    Set set = Of({2, 3, 1});
    Set::Iterator it(set, 0);
    EXPECT_EQ(*it, 1);
    EXPECT_EQ(*it.Next(), 2);
    EXPECT_EQ(*it.Next(), 3);
    EXPECT_EQ(*it.Prev(), 2);
    Set::Iterator last(set, 1);
    EXPECT_EQ(*last.Curr(), 3);
    EXPECT_EQ(*last.First(), 1);
    EXPECT_EQ(*last.Last(), 3);
}

TEST(TSetIterator, StaysNullOnceNull) {
    Set const set = Of({1, 2});
    Set::ConstIterator it(set, 1);
    EXPECT_EQ(it.Next(), nullptr);
    EXPECT_EQ(it.Next(), nullptr);
    EXPECT_EQ(it.Prev(), nullptr);
    EXPECT_EQ(it.Curr(), nullptr);
    EXPECT_EQ(*it.First(), 1);
    EXPECT_EQ(it.Prev(), nullptr);
    EXPECT_EQ(it.Prev(), nullptr);
    EXPECT_EQ(it.Next(), nullptr);
}

TEST(TSetIterator, OperatorsMoveAndPostfixReturnsTheOldPosition) {
    Set const set = Of({1, 2, 3});
    Set::ConstIterator it(set, 0);
    EXPECT_EQ(*it++, 1);
    EXPECT_EQ(*it, 2);
    EXPECT_EQ(*++it, 3);
    EXPECT_EQ(*it--, 3);
    EXPECT_EQ(*--it, 1);
    EXPECT_EQ(*it(), 1);
    EXPECT_EQ(*it(), 2);
    EXPECT_EQ(*it(), 3);
    EXPECT_EQ(it(), nullptr);
}

TEST(TSetIterator, WithoutAContainerIsNull) {
    Set::Iterator it;
    EXPECT_EQ(it.Curr(), nullptr);
    EXPECT_EQ(it.Next(), nullptr);
    EXPECT_EQ(it.Prev(), nullptr);
    EXPECT_EQ(it.First(), nullptr);
    EXPECT_EQ(it.Last(), nullptr);
    EXPECT_EQ(it(), nullptr);
}

TEST(TSetIterator, ReachesMembersOfTheElement) {
    Entries set;
    set.Insert({"a", 7});
    Entries::Iterator const it(set, 0);
    it->_size = 8;
    EXPECT_EQ(set.Find({"a", 0})->_size, 8);
}

} // namespace
