#ifndef BRANTLE_CINDRAL_EUC_VECTOR_H
#define BRANTLE_CINDRAL_EUC_VECTOR_H

#include <brantle/cindral/export.h>

namespace cindral {

/// An owned buffer of bytes for a secret, wiped on destruction.
class CINDRAL_API EUCVector {
public:
    /// `length` zero bytes; a negative length counts as 0. `_data` is never null.
    explicit EUCVector(int length);
    ~EUCVector();
    EUCVector(EUCVector const&) = delete;
    EUCVector& operator=(EUCVector const&) = delete;

    unsigned char* _data;
    unsigned int _length;
};

} // namespace cindral

#endif
