#include "wire_model.h"

namespace fuzz {

namespace {

constexpr std::size_t COOKIE = 16;
constexpr std::uint32_t LONGEST_TEXT = 0x40000;
constexpr std::uint32_t LONGEST_STRING = 16 * 1024 * 1024;

bool IsNegative(std::string_view body) { return !body.empty() && (body[0] & 0x80) != 0; }

/// The body of an mpint without the bytes that repeat its sign.
std::string_view Shortest(std::string_view body) {
    char const sign = IsNegative(body) ? '\xff' : '\0';
    while (!body.empty() && body[0] == sign) {
        std::string_view const shorter = body.substr(1);
        if (IsNegative(shorter) != IsNegative(body)) break;
        body = shorter;
    }
    return body;
}

std::string_view UpToZero(std::string_view bytes) { return bytes.substr(0, bytes.find('\0')); }

/// Reads the strings of a key blob.
class KeyModel : public WireModel {
public:
    using WireModel::WireModel;

    bool IsKey() {
        std::string_view const name = Take(TakeNumber());
        int numbers = 0;
        if (name == "ssh-rsa") numbers = 2;
        if (name == "ssh-dss") numbers = 4;
        if (numbers == 0) return false;
        for (; numbers > 0; --numbers) {
            std::string_view const number = Shortest(Take(TakeNumber()));
            if (number.empty() || IsNegative(number)) return false;
        }
        return _ok && _rest.empty();
    }
};

} // namespace

std::string_view WireModel::Take(std::size_t count) {
    if (!_ok || count > _rest.size()) {
        _ok = false;
        return {};
    }
    std::string_view const taken = _rest.substr(0, count);
    _rest.remove_prefix(count);
    return taken;
}

std::uint32_t WireModel::TakeNumber() {
    _number = 0;
    for (char const byte : Take(4)) _number = _number << 8 | static_cast<unsigned char>(byte);
    return _number;
}

void WireModel::EncodeNumber(std::uint32_t number) {
    for (int shift = 24; shift >= 0; shift -= 8) _encoded += static_cast<char>(number >> shift & 0xff);
}

void WireModel::EncodeString(std::string_view bytes) {
    EncodeNumber(static_cast<std::uint32_t>(bytes.size()));
    Encode(bytes);
}

SshModel::SshModel(std::string_view packet) : WireModel(packet), _padding(0) {
    if (std::string_view const padding = Take(1); !padding.empty())
        _padding = static_cast<unsigned char>(padding[0]);
    Encode(Take(1));
}

void SshModel::Read(char const* fields) {
    for (; *fields && _ok; ++fields) ReadField(*fields);
}

void SshModel::ReadField(char field) {
    switch (field) {
    case 'b':
        return Encode(Take(1));
    case 'c':
        return Encode(Take(COOKIE));
    case 'u':
        return EncodeNumber(TakeNumber());
    case 'z':
        TakeNumber();
        return EncodeNumber(0);
    case 's':
        _text = UpToZero(TakeString());
        return EncodeString(_text);
    case 'S':
        TakeString();
        return;
    case 'x':
        return EncodeString(TakeString());
    case 'm':
        return EncodeString(Shortest(TakeString()));
    case 'k': {
        std::string_view const blob = TakeString();
        return EncodeString(KeyModel(blob).IsKey() ? blob : std::string_view());
    }
    default:
        _ok = false;
    }
}

std::string_view SshModel::TakeString() { return Take(TakeNumber()); }

void SftpModel::Read(char const* fields) {
    for (; *fields && _ok; ++fields) ReadField(*fields);
}

void SftpModel::ReadField(char field) {
    switch (field) {
    case 'b':
        return Encode(Take(1));
    case 'u':
        return EncodeNumber(TakeNumber());
    case 'q':
        return Encode(Take(8));
    case 's':
        return ReadText();
    case 'x':
        return EncodeString(TakeString());
    case 'a':
        return ReadAttributes();
    case 'n':
        return ReadNames();
    default:
        _ok = false;
    }
}

/// After a text out of bounds only the lengths of texts are read.
void SftpModel::ReadText() {
    _text.clear();
    std::uint32_t const length = TakeNumber();
    if (length < 1 || length > LONGEST_TEXT) _textsOk = false;
    if (_textsOk) _text = UpToZero(Take(length));
    EncodeString(_text);
}

std::string_view SftpModel::TakeString() {
    std::uint32_t const length = TakeNumber();
    if (length > LONGEST_STRING) _ok = false;
    return Take(length);
}

void SftpModel::ReadAttributes() {
    Read("u");
    std::uint32_t const flags = _number;
    if (flags & 1) Read("q");
    if (flags & 2) Read("uu");
    if (flags & 4) Read("u");
    if (flags & 8) Read("uu");
    if (!(flags & 0x80000000)) return;
    for (std::uint32_t pairs = TakeNumber(); pairs > 0 && _ok; --pairs) {
        TakeString();
        TakeString();
    }
}

void SftpModel::ReadNames() {
    std::uint32_t const count = TakeNumber();
    EncodeNumber(count);
    EncodeNumber(count);
    for (std::uint32_t left = count; left > 0 && _ok && _textsOk; --left) Read("ssa");
}

} // namespace fuzz
