#include <generic/tsortedvector>

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A record identified only by its descriptor.
struct Record {
    int _fd;
    int _events;

    struct Compare {
        static int Cmp(Record const& a, Record const& b) { return a._fd - b._fd; }
    };
};

using Records = TSortedVector<Record, Record::Compare>;

std::vector<int> Descriptors(Records const& records) {
    std::vector<int> fds;
    for (Record const& record : records) fds.push_back(record._fd);
    return fds;
}

TEST(TSortedVector, KeepsElementsSortedInOneArray) {
    Records records;
    EXPECT_EQ(records.begin(), records.end());
    for (int const fd : {5, 1, 9, 3}) records.Insert({fd, 0});
    EXPECT_THAT(Descriptors(records), ElementsAre(1, 3, 5, 9));
    EXPECT_EQ(records.Size(), 4u);
    EXPECT_EQ(records.end() - records.begin(), 4);
    EXPECT_EQ(records.begin()[2]._fd, 5);
}

TEST(TSortedVector, InsertReplacesAnEqualElement) {
    Records records;
    records.Insert({3, 1});
    records.Insert({3, 2});
    ASSERT_EQ(records.Size(), 1u);
    EXPECT_EQ(records.begin()->_events, 2);
}

TEST(TSortedVector, RemoveFindsByKey) {
    Records records;
    for (int const fd : {1, 2, 3}) records.Insert({fd, 7});
    EXPECT_EQ(records.Remove({2, 0}), 1);
    EXPECT_EQ(records.Remove({2, 0}), 0);
    EXPECT_EQ(records.Remove({4, 0}), 0);
    EXPECT_THAT(Descriptors(records), ElementsAre(1, 3));
}

TEST(TSortedVector, CopiesAreDeepAndClearEmpties) {
    Records records;
    records.Insert({1, 1});
    Records copy;
    copy = records;
    copy.begin()->_events = 9;
    copy.Insert({2, 2});
    EXPECT_EQ(records.begin()->_events, 1);
    EXPECT_THAT(Descriptors(records), ElementsAre(1));
    copy.Clear();
    EXPECT_EQ(copy.Size(), 0u);
    EXPECT_THAT(Descriptors(copy), IsEmpty());
}

} // namespace
