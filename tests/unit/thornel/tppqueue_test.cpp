#include <generic/tppqueue>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

struct Job {
    int _due;
    int _number;
};

struct DueOf {
    static int Key(Job const* job) { return job->_due; }
};

struct IsJob : TPVarrCmp<Job> {
    explicit IsJob(int number) : _number(number) {}
    int operator()(Job* job) const override { return job->_number == _number ? 0 : 1; }
    int _number;
};

class PriorityQueue : public testing::Test {
protected:
    using PQueue = TPPQueue<int, Job, DueOf>;

    Job* Insert(int due, int number = 0) {
        _jobs.push_back(std::make_unique<Job>(Job{due, number}));
        _queue.Insert(_jobs.back().get());
        return _jobs.back().get();
    }
    std::vector<int> Drain() {
        std::vector<int> dues;
        while (Job const* const job = _queue.Pop()) dues.push_back(job->_due);
        return dues;
    }
    bool IsHeap() {
        for (int i = 2; i <= _queue.Size(); ++i)
            if (_queue[i]->_due < _queue[i / 2]->_due) return false;
        return _queue[0] == nullptr;
    }

    std::vector<std::unique_ptr<Job>> _jobs;
    PQueue _queue{32, 32, 0};
};

TEST_F(PriorityQueue, StartsWithOnlyTheSentinel) {
    EXPECT_EQ(_queue.Count(), 1);
    EXPECT_EQ(_queue[0], nullptr);
    EXPECT_EQ(_queue.Size(), 0);
    EXPECT_EQ(_queue.Top(), nullptr);
    EXPECT_EQ(_queue.Pop(), nullptr);
    EXPECT_EQ(_queue.Remove(IsJob(0)), nullptr);
}

TEST_F(PriorityQueue, PopReturnsTheEarliest) {
    for (int const due : {5, 3, 8, 1, 9, 2}) {
        Insert(due);
        EXPECT_TRUE(IsHeap());
    }
    EXPECT_EQ(_queue.Top()->_due, 1);
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 5, 8, 9));
    EXPECT_EQ(_queue.Size(), 0);
}

TEST_F(PriorityQueue, LaterInsertedOfEqualKeysEndsNearerTheRoot) {
    Insert(5, 1);
    Insert(5, 2);
    EXPECT_EQ(_queue[1]->_number, 2);
    EXPECT_EQ(_queue[2]->_number, 1);
    EXPECT_EQ(_queue.Pop()->_number, 2);
    EXPECT_EQ(_queue.Pop()->_number, 1);
}

TEST_F(PriorityQueue, LeftOfEqualChildrenMovesUp) {
    Insert(1, 1);
    Insert(2, 2);
    Insert(2, 3);
    Insert(9, 4);
    _queue.Pop();
    EXPECT_EQ(_queue.Top()->_number, 2);
}

TEST_F(PriorityQueue, UpperNodeStaysOnATie) {
    Insert(1, 1);
    Insert(3, 2);
    Insert(4, 3);
    Insert(3, 4);
    ASSERT_EQ(_queue[4]->_number, 2);
    _queue.Pop();
    EXPECT_EQ(_queue[1]->_number, 2);
    EXPECT_TRUE(IsHeap());
}

TEST_F(PriorityQueue, GrowsBeyondItsFirstCapacity) {
    for (int due = 100; due > 0; --due) Insert(due);
    EXPECT_EQ(_queue.Size(), 100);
    EXPECT_EQ(_queue._capacity, 128u);
    EXPECT_EQ(_queue.Top()->_due, 1);
}

TEST_F(PriorityQueue, RemoveOfTheRootKeepsTheOrder) {
    Job* const root = Insert(1, 1);
    for (int const due : {4, 2, 6, 5, 3}) Insert(due, due);
    EXPECT_EQ(_queue.Remove(IsJob(1)), root);
    EXPECT_TRUE(IsHeap());
    EXPECT_THAT(Drain(), ElementsAre(2, 3, 4, 5, 6));
}

TEST_F(PriorityQueue, RemoveMovesTheLastElementUpIfItIsEarlier) {
    for (int const due : {1, 10, 2, 11, 12, 3, 4}) Insert(due, due);
    EXPECT_EQ(_queue.Remove(IsJob(11))->_due, 11);
    EXPECT_TRUE(IsHeap());
    EXPECT_THAT(Drain(), ElementsAre(1, 2, 3, 4, 10, 12));
}

TEST_F(PriorityQueue, RemoveOfTheLastElementAndOfNone) {
    Insert(1, 1);
    Job* const last = Insert(2, 2);
    EXPECT_EQ(_queue.Remove(IsJob(7)), nullptr);
    EXPECT_EQ(_queue.Remove(IsJob(2)), last);
    EXPECT_EQ(_queue.Size(), 1);
    _queue.Remove(IsJob(1));
    EXPECT_EQ(_queue.Size(), 0);
}

TEST_F(PriorityQueue, ClearRestoresTheSentinel) {
    Insert(1);
    Insert(2);
    _queue.Clear();
    EXPECT_EQ(_queue.Count(), 1);
    EXPECT_EQ(_queue[0], nullptr);
    Insert(3);
    EXPECT_THAT(Drain(), ElementsAre(3));
}

TEST_F(PriorityQueue, LongRandomUseStaysAHeap) {
    std::mt19937 random(3);
    std::vector<int> expected;
    for (int number = 0; number < 2000; ++number) {
        if (random() % 3 && number > 0) {
            int const due = static_cast<int>(random() % 50);
            Insert(due, number);
            expected.push_back(due);
        } else if (Job const* const removed = _queue.Remove(IsJob(static_cast<int>(random()) % 2000))) {
            expected.erase(std::find(expected.begin(), expected.end(), removed->_due));
        }
        ASSERT_TRUE(IsHeap());
        ASSERT_EQ(_queue.Size(), static_cast<int>(expected.size()));
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Drain(), expected);
}

} // namespace
