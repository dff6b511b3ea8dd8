#ifndef TESTS_WIRE_FAILING_CALLS_H
#define TESTS_WIRE_FAILING_CALLS_H

#include <climits>

/// Waits of poll(2) on one descriptor for these events, of no more than so many milliseconds, fail with
/// ETIMEDOUT as long as the object lives, and the limit of the last one is kept.
class FailingWait {
public:
    explicit FailingWait(short events, int longest = INT_MAX);
    ~FailingWait();
    FailingWait(FailingWait const&) = delete;
    FailingWait& operator=(FailingWait const&) = delete;

    /// In milliseconds; 0 if there was no such wait.
    int Limit() const;
};

/// Addresses can't be written as text as long as the object lives.
class FailingAddressText {
public:
    FailingAddressText();
    ~FailingAddressText();
    FailingAddressText(FailingAddressText const&) = delete;
    FailingAddressText& operator=(FailingAddressText const&) = delete;
};

/// accept4(2) fails with EMFILE as long as the object lives, as where the process has no descriptor left.
/// Lowering the limit itself would stop the sanitizers, which open descriptors of their own.
class NoDescriptorLeft {
public:
    NoDescriptorLeft();
    ~NoDescriptorLeft();
    NoDescriptorLeft(NoDescriptorLeft const&) = delete;
    NoDescriptorLeft& operator=(NoDescriptorLeft const&) = delete;
};

/// Counts the reverse look-ups of names in this process.
class NameLookUps {
public:
    NameLookUps();

    int Count() const;
};

#endif
