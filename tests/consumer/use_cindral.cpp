#include <iostream>

#include <brantle/cindral/digest.h>

/// Prints the first byte of the SHA-1 digest of one byte 'a': 86.
int main() {
    cindral::Digest digest(cindral::DIGEST_SHA1);
    digest.UpdateByte('a');
    digest._rep->Finish();
    std::cout << "cindral\n" << std::hex << unsigned{digest._rep->_value.Data()[0]} << '\n';
    return 0;
}
