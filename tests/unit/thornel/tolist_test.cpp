#include <generic/tolist>

#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <brantle/thornel/string_t.h>

#include "counted.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using List = TOList<int>;
using Link = TOLink<int>;

List Of(std::vector<int> const& values) {
    List list;
    for (int const value : values) list.Append(value);
    return list;
}

std::vector<int> Values(List const& list) {
    std::vector<int> values;
    TOListIterator<int> next(list);
    while (int const* const value = next()) values.push_back(*value);
    return values;
}

int Is(Link const* link, void const* value) { return *link->Contents() == *static_cast<int const*>(value); }
int SameTens(Link const* link, void const* value) {
    return *link->Contents() / 10 == *static_cast<int const*>(value) / 10;
}
int Differ(Link const* a, Link const* b) { return *a->Contents() - *b->Contents(); }

TEST(TOLink, AssignmentCopiesTheElementAndClearsTheNextPointer) {
    Link a(1), b(2);
    a._next = &b;
    EXPECT_EQ(a.Next(), &b);
    a = b;
    EXPECT_EQ(*a.Contents(), 2);
    EXPECT_EQ(a.Next(), nullptr);
    b._next = &a;
    Link const copy(b);
    EXPECT_EQ(copy.Next(), nullptr);
    EXPECT_EQ(*copy.Contents(), 2);
}

TEST(TOList, EmptyListHasNoElements) {
    List const list;
    EXPECT_EQ(list.First(), nullptr);
    EXPECT_EQ(list.Last(), nullptr);
    EXPECT_EQ(list[0], nullptr);
    EXPECT_EQ(list.Len(), 0u);
}

TEST(TOList, AppendAndInsertReturnTheNewElement) {
    List list;
    EXPECT_EQ(*list.Append(2), 2);
    EXPECT_EQ(*list.Insert(1), 1);
    int* const last = list.Append(3);
    EXPECT_EQ(last, list.Last());
    EXPECT_EQ(*list.First(), 1);
    EXPECT_THAT(Values(list), ElementsAre(1, 2, 3));
}

TEST(TOList, CopiesAreDeep) {
    List list = Of({1, 2});
    List copy(list);
    *copy.First() = 9;
    copy.Append(3);
    EXPECT_THAT(Values(list), ElementsAre(1, 2));
    EXPECT_THAT(Values(copy), ElementsAre(9, 2, 3));
    copy = list;
    EXPECT_THAT(Values(copy), ElementsAre(1, 2));
    List const& same = copy;
    copy = same;
    EXPECT_THAT(Values(copy), ElementsAre(1, 2));
    copy = List();
    EXPECT_THAT(Values(copy), IsEmpty());
}

TEST(TOList, HoldsStrings) {
    TOList<String_t> list;
    list.Append("b");
    list.Insert("a");
    TOList<String_t> const copy(list);
    list.Clear();
    ASSERT_EQ(copy.Len(), 2u);
    EXPECT_STREQ(copy[0]->Text(), "a");
    EXPECT_STREQ(copy[1]->Text(), "b");
}

TEST(TOList, FindReturnsTheFirstMatchOrNull) {
    List const list = Of({10, 21, 22});
    int value = 20;
    EXPECT_EQ(*list.Find(SameTens, &value), 21);
    value = 30;
    EXPECT_EQ(list.Find(SameTens, &value), nullptr);
}

TEST(TOList, FindOrInsertPrependsAMissingElement) {
    List list = Of({10, 20});
    int value = 20;
    EXPECT_EQ(*list.FindOrInsert(25, SameTens, &value), 20);
    value = 30;
    EXPECT_EQ(*list.FindOrInsert(30, SameTens, &value), 30);
    EXPECT_THAT(Values(list), ElementsAre(30, 10, 20));
}

TEST(TOList, FindOrAppendAppendsAMissingElement) {
    List list = Of({10, 20});
    int value = 10;
    EXPECT_EQ(*list.FindOrAppend(15, SameTens, &value), 10);
    value = 30;
    EXPECT_EQ(*list.FindOrAppend(30, SameTens, &value), 30);
    EXPECT_THAT(Values(list), ElementsAre(10, 20, 30));
}

TEST(TOList, ReplaceOrInsertOverwritesInPlace) {
    List list = Of({10, 20});
    int value = 20;
    EXPECT_EQ(list.ReplaceOrInsert(25, SameTens, &value), list.Last());
    EXPECT_THAT(Values(list), ElementsAre(10, 25));
    value = 30;
    int const* const added = list.ReplaceOrInsert(30, SameTens, &value);
    EXPECT_EQ(added, list.First());
    EXPECT_THAT(Values(list), ElementsAre(30, 10, 25));
}

TEST(TOList, ReplaceOrAppendOverwritesInPlace) {
    List list = Of({10, 20});
    int value = 10;
    EXPECT_EQ(list.ReplaceOrAppend(15, SameTens, &value), list.First());
    EXPECT_THAT(Values(list), ElementsAre(15, 20));
    value = 30;
    int const* const added = list.ReplaceOrAppend(30, SameTens, &value);
    EXPECT_EQ(added, list.Last());
    EXPECT_THAT(Values(list), ElementsAre(15, 20, 30));
}

TEST(TOList, RemoveDestroysTheFirstMatch) {
    List list = Of({1, 2, 2});
    int const value = 2;
    EXPECT_EQ(list.Remove(Is, &value), 1);
    EXPECT_THAT(Values(list), ElementsAre(1, 2));
    EXPECT_EQ(list.Remove(Is, &value), 1);
    EXPECT_EQ(list.Remove(Is, &value), 0);
}

TEST(TOList, RemoveLoopDestroysAllMatches) {
    struct Two : olist_cmpo_t {
        int operator()(olink_t const* link) override {
            return *static_cast<Link const*>(link)->Contents() == 2;
        }
    } two;
    List list = Of({2, 1, 2});
    int const value = 2;
    EXPECT_EQ(list.RemoveLoop(Is, &value), 2u);
    EXPECT_THAT(Values(list), ElementsAre(1));
    list = Of({2, 1, 2});
    EXPECT_EQ(list.RemoveLoop(two), 2u);
    EXPECT_THAT(Values(list), ElementsAre(1));
}

TEST(TOList, LoopReachesEachLinkInOrder) {
    List list = Of({1, 2, 3});
    std::vector<int> seen;
    list.Loop(
        [](Link* link, void* all) {
            static_cast<std::vector<int>*>(all)->push_back(*link->Contents());
            *link->Contents() *= 10;
            return 0;
        },
        &seen);
    EXPECT_THAT(seen, ElementsAre(1, 2, 3));
    EXPECT_THAT(Values(list), ElementsAre(10, 20, 30));
}

TEST(TOList, SortIsStable) {
    List list = Of({21, 10, 20, 11, 5});
    list.Sort([](Link const* a, void const* b) {
        return *a->Contents() / 10 - *static_cast<Link const*>(b)->Contents() / 10;
    });
    EXPECT_THAT(Values(list), ElementsAre(5, 10, 11, 21, 20));
}

TEST(TOList, UniqKeepsTheFirstOfEachRun) {
    List list = Of({1, 1, 2, 1});
    list.Uniq(Differ);
    EXPECT_THAT(Values(list), ElementsAre(1, 2, 1));
    EXPECT_EQ(*list.Last(), 1);
    list.Append(7);
    EXPECT_THAT(Values(list), ElementsAre(1, 2, 1, 7));

    list = Of({11, 12, 13, 25, 21, 30});
    list.Uniq([](Link const* a, Link const* b) { return *a->Contents() / 10 - *b->Contents() / 10; });
    EXPECT_THAT(Values(list), ElementsAre(11, 25, 30));

    list = Of({4, 4, 4});
    list.Uniq(Differ);
    EXPECT_THAT(Values(list), ElementsAre(4));
    EXPECT_EQ(list.First(), list.Last());
}

TEST(TOList, UniqKeepsEmptyAndSingleLists) {
    List list;
    list.Uniq(Differ);
    EXPECT_THAT(Values(list), IsEmpty());
    list.Append(1);
    list.Uniq(Differ);
    EXPECT_THAT(Values(list), ElementsAre(1));
}

TEST(TOList, UniqComparesALinkWithTheOneBeforeIt) {
    static std::vector<std::pair<int, int>> calls;
    calls.clear();
    List list = Of({1, 2, 2, 3});
    list.Uniq([](Link const* link, Link const* before) {
        calls.emplace_back(*link->Contents(), *before->Contents());
        return *link->Contents() - *before->Contents();
    });
    EXPECT_THAT(calls, ElementsAre(std::pair(2, 1), std::pair(2, 2), std::pair(3, 2)));
}

TEST(TOList, ReverseFillsTheArgument) {
    List const list = Of({1, 2, 3});
    List target = Of({9});
    EXPECT_EQ(&list.Reverse(target), &target);
    EXPECT_THAT(Values(target), ElementsAre(3, 2, 1));
    EXPECT_THAT(Values(list), ElementsAre(1, 2, 3));
}

TEST(TOList, PopAndGetRemoveTheEnds) {
    List list = Of({1, 2, 3});
    EXPECT_EQ(list.Pop(), 1);
    EXPECT_EQ(list.Get(), 3);
    EXPECT_EQ(list.Pop(), 2);
    EXPECT_EQ(list.Len(), 0u);
}

TEST(TOListDeathTest, PopOnAnEmptyListIsFatal) {
    List list;
    EXPECT_DEATH(list.Pop(), HasSubstr("generic/tolist:"));
    EXPECT_DEATH(list.Pop(), HasSubstr("Assertion `p != 0' failed."));
}

TEST(TOListDeathTest, GetOnAnEmptyListIsFatal) {
    List list;
    EXPECT_DEATH(list.Get(), HasSubstr("generic/tolist:"));
    EXPECT_DEATH(list.Get(), HasSubstr("Assertion `p != 0' failed."));
}

TEST(TOList, FailedCopyReleasesWhatWasBuilt) {
    {
        TOList<Counted> list;
        for (int i = 0; i < 3; ++i) list.Append(Counted(i));
        Counted::FailAfter(2);
        EXPECT_THROW(TOList<Counted> copy(list), std::runtime_error);
        Counted::FailAfter(0);
        EXPECT_THROW(list.Append(*list.First()), std::runtime_error);
        EXPECT_THROW(list.Pop(), std::runtime_error);
        Counted::FailAfter(-1);
        EXPECT_EQ(list.Len(), 2u);
        EXPECT_EQ(Counted::live, 2);
    }
    EXPECT_EQ(Counted::live, 0);
}

TEST(TOListIterator, EmptyListGivesNull) {
    List const list;
    TOListIterator<int> it(list);
    EXPECT_EQ(it(), nullptr);
    EXPECT_EQ(it.Succ(), nullptr);
    EXPECT_FALSE(it);
    ++it;
    EXPECT_EQ(it(), nullptr);
}

TEST(TOListIterator, VisitsLinksFromFirstToLast) {
    List const list = Of({1, 2, 3});
    TOListIterator<int> it(list);
    EXPECT_EQ(*it.Succ(), 1);
    EXPECT_EQ(*it, 1);
    EXPECT_EQ(*it(), 1);
    EXPECT_EQ(*it++, 2);
    EXPECT_EQ(*it, 3);
    EXPECT_TRUE(it);
    ++it;
    EXPECT_FALSE(it);
    EXPECT_EQ(it(), nullptr);
    it.Reset();
    EXPECT_EQ(*it, 1);
}

TEST(TOListIterator, BindSwitchesToAnotherList) {
    List const one = Of({1}), two = Of({2, 3});
    TOListIterator<int> it(one);
    it.Bind(two);
    EXPECT_EQ(*it(), 2);
    EXPECT_EQ(*it(), 3);
    EXPECT_EQ(it(), nullptr);
}

TEST(TOListIterator, CallsEndAfterTheInitiallyLastLink) {
    List list = Of({1, 2});
    std::vector<int> seen;
    TOListIterator<int> it(list);
    while (int const* const element = it()) {
        seen.push_back(*element);
        list.Append(*element + 10);
    }
    EXPECT_THAT(seen, ElementsAre(1, 2));
    EXPECT_THAT(Values(list), ElementsAre(1, 2, 11, 12));
}

TEST(TOListIterator, IncrementEndsAtTheBeginning) {
    List list = Of({1, 2});
    TOListIterator<int> it(list);
    ++it;
    list.Append(3);
    list.Insert(0);
    EXPECT_EQ(*++it, 3);
    EXPECT_FALSE(++it);
    EXPECT_FALSE(++it);
}

TEST(TOListIterator, EndsEvenIfTheLastLinkWasRemoved) {
    List list = Of({1, 2, 3});
    TOListIterator<int> it(list);
    EXPECT_EQ(list.Get(), 3);
    EXPECT_EQ(*it(), 1);
    EXPECT_EQ(*it(), 2);
    EXPECT_EQ(it(), nullptr);
}

TEST(TOListIterator, ArrowReachesTheElement) {
    TOList<String_t> list;
    list.Append("text");
    TOListIterator<String_t> const it(list);
    EXPECT_STREQ(it->Text(), "text");
}

} // namespace
