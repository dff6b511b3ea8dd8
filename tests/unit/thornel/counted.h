#ifndef BRANTLE_TESTS_UNIT_THORNEL_COUNTED_H
#define BRANTLE_TESTS_UNIT_THORNEL_COUNTED_H

#include <stdexcept>

/// A number that counts how many of its kind live, and whose copying can be made to fail.
struct Counted {
    explicit Counted(int value = 0) : _value(value) { ++live; }
    Counted(Counted const& other) : _value(other._value) {
        if (copiesLeft == 0) throw std::runtime_error("no more copies");
        if (copiesLeft > 0) --copiesLeft;
        ++live;
    }
    Counted& operator=(Counted const&) = default;
    ~Counted() { --live; }

    bool operator<(Counted const& other) const { return _value < other._value; }
    bool operator>(Counted const& other) const { return _value > other._value; }

    /// The copy after the next `copies` ones fails; a negative number takes that back.
    static void FailAfter(int copies) { copiesLeft = copies; }

    int _value;

    static inline int live = 0;
    static inline int copiesLeft = -1;
};

#endif
