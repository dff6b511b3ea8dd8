#ifndef BRANTLE_TESTS_UNIT_KEX_OPENSSL_CALLS_H
#define BRANTLE_TESTS_UNIT_KEX_OPENSSL_CALLS_H

/// A libcrypto function that this program replaces, to count its calls and to fail one of
/// them. What libcrypto calls itself does not count.
struct OpenSSLCall {
    unsigned int _count = 0;  ///< calls since the last `Watch` or `FailAt`
    unsigned int _failAt = 0; ///< the call that fails, counted from 1; 0 for none

    void Watch() { FailAt(0); }
    void FailAt(unsigned int call) {
        _count = 0;
        _failAt = call;
    }
    bool Fails() { return ++_count == _failAt; }
};

extern OpenSSLCall callsOfBnHex2bn;
extern OpenSSLCall callsOfBnNew;
extern OpenSSLCall callsOfBnRand;
extern OpenSSLCall callsOfBnSub;
extern OpenSSLCall callsOfDhNew;
extern OpenSSLCall callsOfDhGenerateKey;
extern OpenSSLCall callsOfDhComputeKey;

#endif
