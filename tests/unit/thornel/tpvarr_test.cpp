#include <generic/tpvarr>

#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

struct Shop {
    struct Job {
        int _due;
        int _number;
    };
};

namespace {

using testing::HasSubstr;

using Job = Shop::Job;
using Array = TPVarr<Job>;

TEST(TPVarr, StartsEmptyWithItsCapacity) {
    Array const array(32, 32, 0);
    EXPECT_EQ(array.Count(), 0);
    EXPECT_EQ(array.arr, array.arrp);
    EXPECT_EQ(array._capacity, 32u);
    EXPECT_EQ(array._increment, 32u);
    EXPECT_EQ(array._growth, 0);
}

TEST(TPVarr, ExtendDoesNothingWhileThereIsRoom) {
    Array array(4, 4, 0);
    Job** const before = array.arr;
    array.Extend(4);
    EXPECT_EQ(array.arr, before);
    EXPECT_EQ(array._capacity, 4u);
}

TEST(TPVarr, GrowsAdditively) {
    Array array(4, 3, 0);
    array.Extend(5);
    EXPECT_EQ(array._capacity, 7u);
    array.Extend(20);
    EXPECT_EQ(array._capacity, 22u);
    EXPECT_EQ(array.Count(), 0);
}

TEST(TPVarr, GrowsByDoubling) {
    Array array(4, 3, 1);
    array.Extend(5);
    EXPECT_EQ(array._capacity, 8u);
    array.Extend(33);
    EXPECT_EQ(array._capacity, 64u);
}

TEST(TPVarr, GrowsFromZeroCapacity) {
    Array doubling(0, 0, 1), additive(0, 0, 0);
    doubling.Extend(5);
    additive.Extend(5);
    EXPECT_EQ(doubling._capacity, 8u);
    EXPECT_EQ(additive._capacity, 5u);
}

TEST(TPVarr, KeepsElementsWhenGrowing) {
    std::vector<Job> jobs(100);
    Array array(1, 1, 0);
    for (Job& job : jobs) array.Append(&job);
    ASSERT_EQ(array.Count(), 100);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(array[i], &jobs[static_cast<std::size_t>(i)]);
}

TEST(TPVarrDeathTest, UnknownGrowthIsFatalOnceItHasToGrow) {
    Array array(1, 1, 2);
    array.Extend(1);
    EXPECT_DEATH(array.Extend(2), HasSubstr("generic/tpvarr:53: void TPVarr<T>::Extend(unsigned int) "
                                            "[with T = Shop::Job]: Assertion `0' failed."));
}

TEST(TPVarrDeathTest, IndexAfterTheEndIsFatal) {
    Job job{1, 1};
    Array array(8, 8, 0);
    array.Append(&job);
    EXPECT_EQ(array[0], &job);
    EXPECT_DEATH(array[1], HasSubstr("generic/tpvarr:111: T*& TPVarr<T>::operator[](int) "
                                     "[with T = Shop::Job]: Assertion `i < arrp-arr' failed."));
}

TEST(TPVarrRange, IsAnAbstractClassOfThreeOperations) {
    struct FirstTwo : TPVarrRange<Job> {
        int First() const override { return 0; }
        int End() const override { return 2; }
        void operator()(Job* job) override { job->_number = 0; }
    } range;
    EXPECT_TRUE(std::is_abstract_v<TPVarrRange<Job>>);
    Array array(2, 1, 0);
    Job jobs[] = {{1, 1}, {2, 2}};
    for (Job& job : jobs) array.Append(&job);
    for (int i = range.First(); i < range.End(); ++i) range(array[i]);
    EXPECT_EQ(jobs[0]._number + jobs[1]._number, 0);
}

} // namespace
