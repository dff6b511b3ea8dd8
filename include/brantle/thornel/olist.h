#ifndef BRANTLE_THORNEL_OLIST_H
#define BRANTLE_THORNEL_OLIST_H

#include <brantle/thornel/export.h>

/// A link of an owning list; derived classes add the element.
class THORNEL_API olink_t {
public:
    olink_t() : _next(nullptr) {}
    olink_t(olink_t const&) : _next(nullptr) {}
    olink_t& operator=(olink_t const&) {
        _next = nullptr;
        return *this;
    }
    virtual ~olink_t();

    olink_t* _next;
};

/// Matches links, for `olist_t::removeLoop`.
class THORNEL_API olist_cmpo_t {
public:
    virtual ~olist_cmpo_t();
    /// Non-zero if the link matches.
    virtual int operator()(olink_t const* link) = 0;
};

/// Core of the owning list: a circular chain of links that it owns and destroys. The predicates return
/// non-zero for a match; they and the functions called on links get the caller's argument as the second one.
/// Not thread-safe: use one thread at a time, or external locking.
class THORNEL_API olist_t {
public:
    olist_t() : _last(nullptr) {}
    olist_t(olist_t const&) = delete;
    olist_t& operator=(olist_t const&) = delete;
    ~olist_t() { clear(); }

    /// Adds a link at the end, and takes ownership of it.
    void append(olink_t* link);
    /// Adds a link at the front, and takes ownership of it.
    void insert(olink_t* link);
    /// Number of links.
    unsigned int Len() const;
    /// Destroys all links.
    void clear();

    /// First match or null.
    olink_t* find(int (*match)(olink_t const*, void const*), void const* arg) const;
    /// Unlinks the first match and returns it to the caller, who then owns it; null if there is none.
    olink_t* remove(int (*match)(olink_t const*, void const*), void const* arg);
    /// Unlinks the first link and returns it to the caller; null if the list is empty.
    olink_t* removeTop();
    /// Unlinks the last link and returns it to the caller; null if the list is empty.
    olink_t* removeBottom();
    /// Removes and destroys all matches, and returns their number.
    unsigned int removeLoop(int (*match)(olink_t const*, void const*), void const* arg);
    unsigned int removeLoop(olist_cmpo_t& match);

    /// Calls a function on each link in order. The function must not change the chain.
    void loop(int (*function)(olink_t*, void*), void* arg);

    /// Sorts the chain by a three-way comparison, which gets two links. Equal links keep their order.
    void Sort(int (*compare)(olink_t const*, void const*));

    /// The link at a position, counted from 0; null if there is none.
    olink_t* operator[](int index) const;

    /// The first link, or null.
    olink_t* top() const { return _last ? _last->_next : nullptr; }

    olink_t* _last; ///< null when empty; its successor is the first link

protected:
    /// Unlinks the link after the given one, which is the same link if it is the only one.
    olink_t* removeAfter(olink_t* before);

    /// As `Sort`, with a third argument for the comparison.
    void Sort(int (*compare)(olink_t const*, olink_t const*, void const*), void const* arg);
};

/// A list of pointers to elements that it does not own. Not thread-safe.
class THORNEL_API slist_t {
public:
    /// One position of the list.
    class THORNEL_API slink_t : public olink_t {
    public:
        explicit slink_t(void* element) : _element(element) {}
        ~slink_t() override;

        void* _element;
    };

    /// Adds an element at the end.
    void append(void* element) { _links.append(new slink_t(element)); }
    /// Adds an element at the front.
    void insert(void* element) { _links.insert(new slink_t(element)); }
    /// Removes the first element for which the predicate returns non-zero, and returns it; null if there is
    /// none.
    void* remove(int (*match)(void*, void const*), void const* arg);
    /// Removes all elements, without destroying them.
    void clear() { _links.clear(); }

    /// Number of elements.
    unsigned int Len() const { return _links.Len(); }

    olist_t _links; ///< of `slink_t`
};

#endif
