#include <cstring>
#include <fstream>

#include <brantle/cindral/private_key.h>

#include "standard/known_hosts_line.h"
#include "standard/private_key_file.h"
#include "standard/signature_scheme.h"

namespace cindral::standard {

namespace {

constexpr std::size_t MAX_PUBLIC_FILE = 0x10000;

bool IsSupported(View keyBlob) {
    try {
        return ParseKeyBlob(keyBlob) != nullptr;
    } catch (SshProtocolError const&) {
        return false;
    }
}

/// The blob of a key's public half; empty if its type or size is not supported.
Bytes SupportedBlob(EVP_PKEY* key) {
    try {
        Bytes blob = MakeKeyBlob(key);
        return IsSupported(blob) ? blob : Bytes();
    } catch (InvalidArgument const&) {
        return Bytes();
    }
}

} // namespace

int PrivateKeyFile::Open() {
    int const result = Read(nullptr);
    if (result != PrivateKey::NO_PASSPHRASE) return result;
    if (_keyBlob.empty()) ReadPublicFile();
    return _keyBlob.empty() || IsSupported(_keyBlob) ? 0 : PrivateKey::UNSUPPORTED_KEY;
}

int PrivateKeyFile::Load(EnterPassword& enter) { return IsLoaded() ? 0 : Read(&enter); }

int PrivateKeyFile::Read(EnterPassword* enter) {
    ByteString publicBlob;
    EVP_PKEY* read = nullptr;
    int const result = PrivateKey::ReadAny(_path.c_str(), enter, publicBlob, read);
    PkeyPtr key(read);
    View const inFile(publicBlob.Data(), publicBlob.Length());
    if (!inFile.empty()) _keyBlob = inFile.Copy();
    if (result != 0) return result;

    Bytes const blob = SupportedBlob(key.get());
    if (blob.empty()) return PrivateKey::UNSUPPORTED_KEY;
    if (!_keyBlob.empty() && _keyBlob != blob) return PrivateKey::BROKEN_FILE;
    _keyBlob = blob;
    _key = std::move(key);
    return 0;
}

/// The line of a ".pub" file is the type, the blob in base64, and a comment.
void PrivateKeyFile::ReadPublicFile() {
    std::ifstream file(_path + ".pub");
    std::string line(MAX_PUBLIC_FILE, '\0');
    file.read(line.data(), static_cast<std::streamsize>(line.size()));
    line.resize(static_cast<std::size_t>(file.gcount()));
    line.resize(std::min(line.find_first_of("\r\n"), line.size()));
    std::size_t const typeEnd = line.find(' ');
    if (typeEnd == std::string::npos) return;
    std::string const blob64 = line.substr(typeEnd + 1, line.find(' ', typeEnd + 1) - typeEnd - 1);
    Bytes blob;
    if (!DecodeBase64(blob64, blob) || KeyTypeOf(blob) != line.substr(0, typeEnd)) return;
    // A damaged file says nothing about the key.
    if (IsSupported(blob) || SignatureAlgorithmsOf(KeyTypeOf(blob)).empty()) _keyBlob = blob;
}

std::string PrivateKeyFile::Describe(int result) {
    switch (result) {
    case PrivateKey::BROKEN_FILE:
        return "not a key file, or damaged, or its public half is another key's";
    case PrivateKey::WRONG_PASSPHRASE:
        return "wrong passphrase";
    case PrivateKey::UNSUPPORTED_KEY:
        return "a key, size of key or cipher that is not supported";
    case PrivateKey::NO_PASSPHRASE:
        return "encrypted, and no passphrase can be asked for";
    default:
        return std::strerror(-result);
    }
}

} // namespace cindral::standard
