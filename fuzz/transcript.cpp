#include <cstdint>

#include "transcript.h"

namespace fuzz {

namespace {

using cindral::BlockCipher;

constexpr std::size_t LENGTH_FIELD = 4;
constexpr std::size_t DATA_HEAD = 2 + 4 + LENGTH_FIELD; ///< in a packet of channel data, from its front
constexpr char CHANNEL_DATA = 94;

/// A cipher that wraps another one.
class Tap : public BlockCipher::Rep {
public:
    Tap(BlockCipher::Rep* cipher, BlockCipher::Mode mode, std::string& plain)
        : _cipher(cipher), _mode(mode), _plain(plain) {}
    ~Tap() override {
        if (Kind() != BlockCipher::NONE) delete _cipher; // of the other one there is one for all
    }
    Tap(Tap const&) = delete;
    Tap& operator=(Tap const&) = delete;

    unsigned int BlockSize() const override { return _cipher->BlockSize(); }
    int Kind() const override { return _cipher->Kind(); }
    int SetPadding(int padding) override { return _cipher->SetPadding(padding); }
    int Process(unsigned char const* source, unsigned int length, unsigned char* destination) override {
        if (_mode == BlockCipher::ENCRYPT) Keep(source, length);
        int const produced = _cipher->Process(source, length, destination);
        if (_mode == BlockCipher::DECRYPT && produced > 0)
            Keep(destination, static_cast<unsigned int>(produced));
        return produced;
    }

private:
    void Keep(unsigned char const* bytes, unsigned int length) {
        _plain.append(reinterpret_cast<char const*>(bytes), length);
    }

    BlockCipher::Rep* _cipher;
    BlockCipher::Mode _mode;
    std::string& _plain;
};

std::size_t NumberAt(std::string const& bytes, std::size_t at) {
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < LENGTH_FIELD; ++i)
        number = number << 8 | static_cast<unsigned char>(bytes[at + i]);
    return number;
}

/// Whole pieces that have their lengths in front.
std::vector<std::string> Cut(std::string const& bytes) {
    std::vector<std::string> pieces;
    for (std::size_t at = 0; at + LENGTH_FIELD <= bytes.size();) {
        std::size_t const length = NumberAt(bytes, at);
        at += LENGTH_FIELD;
        if (length > bytes.size() - at) break;
        pieces.push_back(bytes.substr(at, length));
        at += length;
    }
    return pieces;
}

} // namespace

void Record(BlockCipher& cipher, BlockCipher::Mode mode, std::string& plain) {
    cipher._rep = new Tap(cipher._rep, mode, plain); // which the cipher owns, as it did the other one
}

std::vector<std::string> Packets(std::string const& plain) { return Cut(plain); }

std::string ChannelData(std::vector<std::string> const& packets) {
    std::string data;
    for (std::string const& packet : packets)
        if (packet.size() > DATA_HEAD && packet[1] == CHANNEL_DATA)
            data += packet.substr(DATA_HEAD, NumberAt(packet, DATA_HEAD - LENGTH_FIELD));
    return data;
}

std::vector<std::string> SftpPayloads(std::string const& data) { return Cut(data); }

} // namespace fuzz
