#include <generic/tmap>

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "counted.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Map = TMap<int, std::string>;
using Texts = TMap<String_t, String_t, GStringCmp>;

std::vector<std::pair<int, std::string>> Entries(Map const& map) {
    std::vector<std::pair<int, std::string>> entries;
    Map::ConstIterator it(map, 0);
    for (; it.Curr(); ++it) entries.emplace_back(it->Key(), it->Value());
    return entries;
}

TEST(TMap, IsEmptyAtFirst) {
    Map map;
    EXPECT_EQ(map.Root(), nullptr);
    EXPECT_EQ(map.Find(1), nullptr);
    EXPECT_EQ(map.Remove(1), 0);
}

TEST(TMap, InsertOfAnExistingKeyKeepsTheOldValue) {
    Map map;
    auto const first = map.Insert(1, "one");
    EXPECT_EQ(first.second, 1);
    EXPECT_EQ(*first.first, "one");
    auto const again = map.Insert(1, "uno");
    EXPECT_EQ(again.second, 0);
    EXPECT_EQ(again.first, first.first);
    EXPECT_EQ(*map.Find(1), "one");
    EXPECT_EQ(map[1], "one");
}

TEST(TMap, IndexAddsAMissingKeyWithADefaultValue) {
    Map map;
    EXPECT_EQ(map[2], "");
    map[2] = "two";
    map[1] = "one";
    EXPECT_THAT(Entries(map), ElementsAre(Pair(1, "one"), Pair(2, "two")));
}

TEST(TMap, IndexOfAPointerOrNumberAddsZero) {
    TMap<int, int*> map;
    EXPECT_EQ(map[5], nullptr);
}

TEST(TMap, RemoveReportsWhetherTheKeyExisted) {
    Map map;
    for (int key = 0; key < 20; ++key) map.Insert(key, std::to_string(key));
    EXPECT_EQ(map.Remove(7), 1);
    EXPECT_EQ(map.Remove(7), 0);
    EXPECT_EQ(map.Find(7), nullptr);
    EXPECT_EQ(*map.Find(8), "8");
    EXPECT_EQ(map.Root()->_parent, nullptr);
}

TEST(TMap, CopiesAreDeepAndMayChange) {
    Map map;
    for (int key = 0; key < 20; ++key) map.Insert(key, std::to_string(key));
    Map copy(map);
    *copy.Find(3) = "changed";
    for (int key = 0; key < 18; ++key) EXPECT_EQ(copy.Remove(key), 1);
    copy.Insert(30, "30");
    EXPECT_THAT(Entries(copy), ElementsAre(Pair(18, "18"), Pair(19, "19"), Pair(30, "30")));
    EXPECT_EQ(*map.Find(3), "3");
    copy = map;
    EXPECT_EQ(Entries(copy), Entries(map));
    Map const& same = copy;
    copy = same;
    EXPECT_EQ(Entries(copy), Entries(map));
    copy = Map();
    EXPECT_THAT(Entries(copy), IsEmpty());
}

TEST(TMapNode, DupLeavesTheBalanceFactorZero) {
    Map map;
    map.Insert(1, "one");
    map.Insert(2, "two");
    ASSERT_EQ(map.Root()->_balance, 1);
    Map const copy(map);
    EXPECT_EQ(copy.Root()->_balance, 0);
    ASSERT_NE(copy.Root()->_right, nullptr);
    EXPECT_EQ(copy.Root()->_right->_parent, copy.Root());
}

TEST(TMapNode, CallbacksFillTheArgumentBlock) {
    String_t const key("k"), value("v");
    TMapData<String_t, String_t, GStringCmp> block{&key, &value, nullptr, nullptr};
    AVLnode* const node = Texts::Node::Create(&block);
    EXPECT_STREQ(block._result->Text(), "v");
    EXPECT_EQ(block._found, nullptr);
    EXPECT_EQ(Texts::Node::Cmp(node, &key), 0);
    String_t const later("z");
    EXPECT_LT(Texts::Node::Cmp(node, &later), 0);
    block._result = nullptr;
    EXPECT_EQ(Texts::Node::Found(node, &block), 0);
    EXPECT_EQ(block._result, block._found);
    EXPECT_STREQ(block._found->Text(), "v");
    delete node;
}

TEST(TMap, IsKeyedByText) {
    Texts map;
    map.Insert("b", "2");
    map.Insert("a", "1");
    map.Insert(String_t(), "empty");
    EXPECT_STREQ(map.Find("a")->Text(), "1");
    EXPECT_STREQ(map.Find("")->Text(), "empty");
    EXPECT_EQ(map.Find("c"), nullptr);
    Texts::Iterator it(map, 1);
    EXPECT_STREQ(it->Key().Text(), "b");
}

TEST(TMapIterator, ReturnsNodesWithMutableValues) {
    Map map;
    map.Insert(1, "one");
    map.Insert(2, "two");
    Map::Iterator it(map, 0);
    (*it).Value() = "eins";
    EXPECT_EQ(it.Next()->Key(), 2);
    EXPECT_EQ(it.Next(), nullptr);
    EXPECT_EQ(it.Next(), nullptr);
    EXPECT_THAT(Entries(map), ElementsAre(Pair(1, "eins"), Pair(2, "two")));
}

TEST(TMap, FailedInsertionKeepsTheMap) {
    {
        TMap<int, Counted> map;
        map.Insert(1, Counted(1));
        Counted::FailAfter(0);
        EXPECT_THROW(map.Insert(2, Counted(2)), std::runtime_error);
        EXPECT_THROW(map[3], std::runtime_error);
        Counted::FailAfter(-1);
        EXPECT_EQ(map.Find(2), nullptr);
        EXPECT_EQ(Counted::live, 1);
    }
    EXPECT_EQ(Counted::live, 0);
}

} // namespace
