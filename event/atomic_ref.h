#ifndef BRANTLE_EVENT_ATOMIC_REF_H
#define BRANTLE_EVENT_ATOMIC_REF_H

#include <atomic>

/// Atomic access to a field of a plain type, for fields whose type is part of a class's documented layout:
/// what std::atomic_ref is in C++20. REQUIRES: while threads share the field, all access goes through here.
template <class T>
class AtomicRef {
public:
    explicit AtomicRef(T& field) : _field(&field) {}

    T load(std::memory_order order) const { return __atomic_load_n(_field, static_cast<int>(order)); }
    void store(T value, std::memory_order order) const {
        __atomic_store_n(_field, value, static_cast<int>(order));
    }
    T exchange(T value, std::memory_order order) const {
        return __atomic_exchange_n(_field, value, static_cast<int>(order));
    }
    /// Both return the previous value.
    T fetch_add(T value, std::memory_order order) const {
        return __atomic_fetch_add(_field, value, static_cast<int>(order));
    }
    T fetch_sub(T value, std::memory_order order) const {
        return __atomic_fetch_sub(_field, value, static_cast<int>(order));
    }

private:
    T* _field;
};

#endif
