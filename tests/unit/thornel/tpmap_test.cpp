#include <generic/tpmap>

#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "counted.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

class TPMapOfNumbers : public testing::Test {
protected:
    using Map = TPMap<unsigned int, Counted>;

    ~TPMapOfNumbers() override {
        _map.Destroy();
        EXPECT_EQ(Counted::live, 0);
    }

    Map _map;
};

TEST_F(TPMapOfNumbers, IsEmptyAtFirst) {
    EXPECT_EQ(_map.Root(), nullptr);
    EXPECT_EQ(_map.Find(1), nullptr);
    EXPECT_EQ(_map.Remove(1), nullptr);
}

TEST_F(TPMapOfNumbers, CallbacksOfANodeFillTheArgumentBlock) {
    unsigned int const key = 2;
    Counted object(7);
    TPMapData<unsigned int, Counted> block{&key, &object, nullptr, nullptr};
    AVLnode* const node = Map::Node::Create(&block);
    EXPECT_EQ(*block._result, &object);
    EXPECT_EQ(block._found, nullptr);
    unsigned int const later = 3;
    EXPECT_EQ(Map::Node::Cmp(node, &key), 0);
    EXPECT_LT(Map::Node::Cmp(node, &later), 0);
    Counted** const place = block._result;
    block._result = nullptr;
    EXPECT_EQ(Map::Node::Found(node, &block), 0);
    EXPECT_EQ(block._result, place);
    EXPECT_EQ(block._found, place);
    delete node;
}

TEST_F(TPMapOfNumbers, CopyOfANodeHasBalanceZero) {
    for (unsigned int const key : {1u, 2u}) _map.Insert(key, nullptr);
    ASSERT_EQ(_map.Root()->_balance, 1);
    Map const copy(_map);
    EXPECT_EQ(copy.Root()->_balance, 0);
    ASSERT_NE(copy.Root()->_right, nullptr);
}

TEST_F(TPMapOfNumbers, InsertKeepsAnExistingPointer) {
    Counted* const one = new Counted(1);
    auto const first = _map.Insert(1, one);
    EXPECT_EQ(first.second, 1);
    EXPECT_EQ(*first.first, one);
    Counted other(2);
    auto const again = _map.Insert(1, &other);
    EXPECT_EQ(again.second, 0);
    EXPECT_EQ(again.first, first.first);
    EXPECT_EQ(_map.Find(1), one);
}

TEST_F(TPMapOfNumbers, IndexCreatesAnObjectOnlyForAMissingKey) {
    Counted* const built = _map[4];
    EXPECT_EQ(built->_value, 0);
    EXPECT_EQ(Counted::live, 1);
    EXPECT_EQ(_map[4], built);
    EXPECT_EQ(Counted::live, 1);
    EXPECT_EQ(_map.Find(4), built);
}

TEST_F(TPMapOfNumbers, RemoveDoesNotDeleteTheObject) {
    Counted* const one = new Counted(1);
    _map.Insert(1, one);
    EXPECT_EQ(_map.Remove(2), nullptr);
    EXPECT_EQ(_map.Remove(1), one);
    EXPECT_EQ(one->_value, 1);
    EXPECT_EQ(_map.Find(1), nullptr);
    EXPECT_EQ(_map.Remove(1), nullptr);
    delete one;
}

TEST_F(TPMapOfNumbers, DestroyDeletesTheObjectsAndSkipsNull) {
    for (unsigned int key = 0; key < 10; ++key) _map.Insert(key, new Counted(static_cast<int>(key)));
    _map.Insert(10, nullptr);
    EXPECT_EQ(Counted::live, 10);
    _map.Destroy();
    EXPECT_EQ(Counted::live, 0);
    EXPECT_EQ(_map.Root(), nullptr);
}

TEST_F(TPMapOfNumbers, DestructorAndClearDeleteNoObjects) {
    Counted one(1);
    {
        Map map;
        map.Insert(1, &one);
    }
    _map.Insert(1, &one);
    _map.Clear();
    EXPECT_EQ(_map.Root(), nullptr);
    EXPECT_EQ(one._value, 1);
    EXPECT_EQ(Counted::live, 1);
}

TEST_F(TPMapOfNumbers, CopiesPointToTheSameObjects) {
    Counted* const one = new Counted(1);
    _map.Insert(1, one);
    _map.Insert(2, nullptr);
    ASSERT_EQ(_map.Root()->_balance, 1);
    Map copy(_map);
    EXPECT_EQ(copy.Find(1), one);
    EXPECT_EQ(copy.Root()->_balance, 0);
    Map assigned;
    assigned = copy;
    EXPECT_EQ(assigned.Find(1), one);
    EXPECT_EQ(Counted::live, 1);
}

TEST_F(TPMapOfNumbers, ForEachIsInAscendingOrderAndReturnsTheAction) {
    struct Collect : TPMapAction<unsigned int, Counted> {
        void operator()(unsigned int const& key, Counted* value) override {
            _seen.emplace_back(key, value->_value);
        }
        std::vector<std::pair<unsigned int, int>> _seen;
    } collect;
    for (unsigned int const key : {3u, 1u, 2u}) _map.Insert(key, new Counted(static_cast<int>(key) * 10));
    EXPECT_EQ(&ForEach(_map, collect), &collect);
    EXPECT_THAT(collect._seen, ElementsAre(Pair(1u, 10), Pair(2u, 20), Pair(3u, 30)));
}

TEST_F(TPMapOfNumbers, IteratorReturnsKeysAndPointers) {
    for (unsigned int const key : {2u, 1u}) _map.Insert(key, new Counted(static_cast<int>(key)));
    Map::ConstIterator it(_map, 0);
    EXPECT_EQ(it->Key(), 1u);
    EXPECT_EQ(it->Value()->_value, 1);
    EXPECT_EQ((*it.Next()).Key(), 2u);
    EXPECT_EQ(it.Next(), nullptr);
    EXPECT_EQ(it.Next(), nullptr);
    Map::Iterator last(_map, 1);
    EXPECT_EQ(last->Value()->_value, 2);
}

} // namespace
