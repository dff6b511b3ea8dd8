#ifndef BRANTLE_THORNEL_STREAM_BUFFER_H
#define BRANTLE_THORNEL_STREAM_BUFFER_H

#include <algorithm>
#include <cstddef>
#include <memory>
#include <typeinfo>

#include <brantle/thornel/export.h>

/// Whether the exact class of an object is one of those listed, and not a class derived from one.
///
/// The streams of this library guarantee that every byte passes through the Fill() or Flush() of a class that
/// overrides it. Code that can transfer a large range without the buffer may therefore do so only if this
/// function shows that the object's Fill() or Flush() is the library's own.
template <class... Classes, class Object>
bool IsExactly(Object const& object) {
    std::type_info const& type = typeid(object);
    return ((&type == &typeid(Classes) || type == typeid(Classes)) || ...); // mostly the addresses agree
}

/// The buffer of an input stream: what has been filled in but not yet read out is its readable range, [_pos,
/// _end).
///
/// A derived class defines in Fill() where the bytes come from, and may move `_end` and `_pos` within the
/// array.
///
/// Invariant: _start <= _pos <= _end <= _start + _capacity.
template <class T>
class InputBuffer {
public:
    /// With an array that is allocated here and belongs to this object.
    explicit InputBuffer(unsigned int capacity) : InputBuffer(new T[capacity], capacity) {
        _allocated.reset(_start);
    }
    /// With an array of the derived class's own, which need not be initialised.
    InputBuffer(T* array, unsigned int capacity)
        : _start(array), _end(array), _pos(array), _capacity(capacity) {}
    virtual ~InputBuffer() = default;
    InputBuffer(InputBuffer const&) = delete;
    InputBuffer& operator=(InputBuffer const&) = delete;

    /// Makes more elements available and sets `_end` and `_pos`. Returns their number, 0 at the end
    /// of the input, a negative value on failure.
    virtual int Fill() = 0;

    /// Reads one element. Returns 1, or Fill()'s result if that is below 1.
    virtual int Get(T& element) {
        if (_pos >= _end) {
            int filled = Fill();
            if (filled < 1) return filled;
        }
        element = *_pos++;
        return 1;
    }

    /// Copies elements from the readable range, at most up to `end`, without a Fill(). Returns their number.
    std::size_t TakeBuffered(T* begin, T* end) {
        std::size_t count = static_cast<std::size_t>(std::min(end - begin, _end - _pos));
        std::copy_n(_pos, count, begin);
        _pos += count;
        return count;
    }

    T* _start;              ///< the array
    T* _end;                ///< end of the readable range
    T* _pos;                ///< next element to read
    unsigned int _capacity; ///< size of the array

private:
    std::unique_ptr<T[]> _allocated; ///< the array, unless it is the derived class's own
};

/// The buffer of an output stream: what has been put but not yet written is in [_start, _pos).
///
/// A derived class defines in Flush() where the bytes go; it may set `_end` lower to write in smaller pieces.
///
/// Invariant: _start <= _pos <= _end <= _start + _capacity.
template <class T>
class OutputBuffer {
public:
    /// With an array that is allocated here and belongs to this object.
    explicit OutputBuffer(unsigned int capacity) : OutputBuffer(new T[capacity], capacity) {
        _allocated.reset(_start);
    }
    /// With an array of the derived class's own, which need not be initialised.
    OutputBuffer(T* array, unsigned int capacity)
        : _start(array), _end(array + capacity), _pos(array), _capacity(capacity) {}
    virtual ~OutputBuffer() = default;
    OutputBuffer(OutputBuffer const&) = delete;
    OutputBuffer& operator=(OutputBuffer const&) = delete;

    /// Passes on what has been put and makes room. Negative on failure; what could not be passed on stays in
    /// the buffer.
    virtual int Flush() = 0;

    /// Puts one element. A full buffer is flushed first; if there is no room even then, the element is
    /// dropped. Returns Flush()'s result, or 0 if no flush was needed.
    virtual int Put(T const& element) {
        int flushed = 0;
        if (_pos >= _end) {
            flushed = Flush();
            if (_pos >= _end) return flushed;
        }
        *_pos++ = element;
        return flushed;
    }

    /// Puts a range, with a Flush() each time the buffer is full and more is to come. Returns the number of
    /// elements put, or a negative value once a Flush() fails or makes no room: its result, or -1 if that is
    /// not negative.
    int PutRange(T const* begin, T const* end) {
        return PutRange(begin, end, [this] { return Flush(); });
    }

    /// The same with another operation instead of Flush().
    template <class MakeRoom>
    int PutRange(T const* begin, T const* end, MakeRoom makeRoom) {
        for (T const* next = begin; next != end;) {
            if (_pos >= _end) {
                int flushed = makeRoom();
                if (flushed < 0 || _pos >= _end) return std::min(flushed, -1);
            }
            std::ptrdiff_t count = std::min(end - next, _end - _pos);
            _pos = std::copy_n(next, count, _pos);
            next += count;
        }
        return static_cast<int>(end - begin);
    }

    T* _start;              ///< the array
    T* _end;                ///< end of the available space
    T* _pos;                ///< where the next element goes
    unsigned int _capacity; ///< size of the array

private:
    std::unique_ptr<T[]> _allocated; ///< the array, unless it is the derived class's own
};

extern template class THORNEL_API InputBuffer<char>;
extern template class THORNEL_API OutputBuffer<char>;

#endif
