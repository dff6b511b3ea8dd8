#ifndef BRANTLE_TESTS_CINDRAL_FREED_MEMORY_H
#define BRANTLE_TESTS_CINDRAL_FREED_MEMORY_H

#include <string>

/// While it lives, searches every block that operator delete and OpenSSL free, also in the libraries, for
/// bytes that should have been wiped. Only one object at a time, and one thread.
class FreedMemory {
public:
    /// `secret` is looked for as it is and with its bytes reversed, as big numbers are stored.
    explicit FreedMemory(std::string const& secret);
    ~FreedMemory();
    FreedMemory(FreedMemory const&) = delete;
    FreedMemory& operator=(FreedMemory const&) = delete;

    /// Blocks of one source.
    struct Count {
        unsigned int _freed;      ///< given back at all
        unsigned int _withSecret; ///< given back with the secret in them
    };
    Count OfNew() const;
    Count OfOpenSSL() const;
};

#endif
