#include <brantle/thornel/olist.h>

namespace {

/// A null-terminated chain of links, detached from the list.
using Chain = olink_t*;

struct Order {
    int (*_compare)(olink_t const*, olink_t const*, void const*);
    void const* _arg;

    bool InOrder(olink_t const* a, olink_t const* b) const { return _compare(a, b, _arg) <= 0; }
};

Chain Merge(Chain a, Chain b, Order const& order) {
    Chain merged = nullptr;
    Chain* place = &merged;
    while (a && b) {
        Chain& smaller = order.InOrder(a, b) ? a : b;
        *place = smaller;
        place = &smaller->_next;
        smaller = smaller->_next;
    }
    *place = a ? a : b;
    return merged;
}

/// Sorts the first `length` links and removes them from the chain.
Chain SortFront(Chain& chain, unsigned int length, Order const& order) {
    if (length == 0) return nullptr;
    if (length == 1) {
        Chain const link = chain;
        chain = link->_next;
        link->_next = nullptr;
        return link;
    }
    Chain const front = SortFront(chain, length / 2, order);
    return Merge(front, SortFront(chain, length - length / 2, order), order);
}

int CompareTwo(olink_t const* a, olink_t const* b, void const* compare) {
    return (*static_cast<int (*const*)(olink_t const*, void const*)>(compare))(a, b);
}

int CallObject(olink_t const* link, void const* object) {
    return (**static_cast<olist_cmpo_t* const*>(object))(link);
}

struct ElementMatch {
    int (*_match)(void*, void const*);
    void const* _arg;

    static int Call(olink_t const* link, void const* self) {
        ElementMatch const* const typed = static_cast<ElementMatch const*>(self);
        return typed->_match(static_cast<slist_t::slink_t const*>(link)->_element, typed->_arg);
    }
};

} // namespace

olink_t::~olink_t() = default;
olist_cmpo_t::~olist_cmpo_t() = default;
slist_t::slink_t::~slink_t() = default;

void olist_t::insert(olink_t* link) {
    if (_last) {
        link->_next = _last->_next;
        _last->_next = link;
    } else {
        _last = link->_next = link;
    }
}

void olist_t::append(olink_t* link) {
    insert(link);
    _last = link;
}

unsigned int olist_t::Len() const {
    unsigned int length = 0;
    for (olink_t const* link = top(); link; link = link == _last ? nullptr : link->_next) ++length;
    return length;
}

void olist_t::clear() {
    while (olink_t* const link = removeTop()) delete link;
}

olink_t* olist_t::find(int (*match)(olink_t const*, void const*), void const* arg) const {
    for (olink_t* link = top(); link; link = link == _last ? nullptr : link->_next)
        if (match(link, arg)) return link;
    return nullptr;
}

olink_t* olist_t::remove(int (*match)(olink_t const*, void const*), void const* arg) {
    olink_t* before = _last;
    for (olink_t* link = top(); link; before = link, link = link == _last ? nullptr : link->_next)
        if (match(link, arg)) return removeAfter(before);
    return nullptr;
}

olink_t* olist_t::removeAfter(olink_t* before) {
    olink_t* const link = before->_next;
    before->_next = link->_next;
    if (link == _last) _last = link == before ? nullptr : before;
    link->_next = nullptr;
    return link;
}

olink_t* olist_t::removeTop() { return _last ? removeAfter(_last) : nullptr; }

olink_t* olist_t::removeBottom() {
    return remove([](olink_t const* link, void const* last) { return link == last ? 1 : 0; }, _last);
}

unsigned int olist_t::removeLoop(int (*match)(olink_t const*, void const*), void const* arg) {
    unsigned int removed = 0;
    olink_t* before = _last;
    for (unsigned int left = Len(); left > 0; --left) {
        if (match(before->_next, arg)) {
            delete removeAfter(before);
            ++removed;
        } else {
            before = before->_next;
        }
    }
    return removed;
}

unsigned int olist_t::removeLoop(olist_cmpo_t& match) {
    olist_cmpo_t* const object = &match;
    return removeLoop(CallObject, static_cast<void const*>(&object));
}

void olist_t::loop(int (*function)(olink_t*, void*), void* arg) {
    for (olink_t* link = top(); link; link = link == _last ? nullptr : link->_next) function(link, arg);
}

void olist_t::Sort(int (*compare)(olink_t const*, void const*)) {
    Sort(CompareTwo, static_cast<void const*>(&compare));
}

void olist_t::Sort(int (*compare)(olink_t const*, olink_t const*, void const*), void const* arg) {
    if (!_last) return;
    Chain rest = top();
    unsigned int const length = Len();
    _last->_next = nullptr;
    Chain const first = SortFront(rest, length, Order{compare, arg});
    for (_last = first; _last->_next; _last = _last->_next) {
    }
    _last->_next = first;
}

olink_t* olist_t::operator[](int index) const {
    if (index < 0) return nullptr;
    olink_t* link = top();
    for (; link && index > 0; --index) link = link == _last ? nullptr : link->_next;
    return link;
}

void* slist_t::remove(int (*match)(void*, void const*), void const* arg) {
    ElementMatch const typed{match, arg};
    slink_t* const link = static_cast<slink_t*>(_links.remove(ElementMatch::Call, &typed));
    if (!link) return nullptr;
    void* const element = link->_element;
    delete link;
    return element;
}
