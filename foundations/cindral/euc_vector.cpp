#include <brantle/cindral/euc_vector.h>

#include <openssl/crypto.h>

namespace cindral {

EUCVector::EUCVector(int length)
    : _data(new unsigned char[length > 0 ? static_cast<unsigned int>(length) : 0]()),
      _length(length > 0 ? static_cast<unsigned int>(length) : 0) {}

EUCVector::~EUCVector() {
    OPENSSL_cleanse(_data, _length);
    delete[] _data;
}

} // namespace cindral
