#include <brantle/packet/packet_encoder.h>

#include <brantle/cindral/big_num.h>
#include <brantle/cindral/bin_buffer.h>
#include <brantle/cindral/digest.h>
#include <brantle/cindral/private_key.h>
#include <brantle/cindral/public_key.h>
#include <brantle/cindral/signature.h>
#include <brantle/thornel/text.h>

namespace cindral {

PacketEncoder::PacketEncoder(unsigned int capacity)
    : OStringBuffer(capacity), _adapter(*this), _stream(&_adapter), _count(0) {
    // A failed allocation below is rethrown, instead of producing a message with bytes missing.
    _stream.exceptions(std::ios_base::badbit);
}

PacketEncoder::~PacketEncoder() = default;

void PacketEncoder::WriteTypeCode(int type) { WriteByte(static_cast<unsigned char>(type)); }

void PacketEncoder::WriteByte(unsigned char value) { _count += BinBuffer::WriteByte(_stream, value); }

void PacketEncoder::WriteBool(int value) { WriteByte(static_cast<unsigned char>(value)); }

void PacketEncoder::WriteShort(unsigned short value) { _count += BinBuffer::WriteShort(_stream, value); }

void PacketEncoder::WriteInt(unsigned int value) { _count += BinBuffer::WriteInt(_stream, value); }

void PacketEncoder::WriteLong(unsigned long long value) { _count += BinBuffer::WriteLong(_stream, value); }

void PacketEncoder::WriteString(char const* text) {
    WriteBytes(reinterpret_cast<unsigned char const*>(text), static_cast<unsigned int>(str_len(text)));
}

void PacketEncoder::WriteBytes(unsigned char const* data, unsigned int length) {
    unsigned int const present = data ? length : 0;
    WriteInt(present);
    WriteBytesRaw(data, present);
}

void PacketEncoder::WriteBytes(ByteString const& bytes) { WriteBytes(bytes.Data(), bytes.Length()); }

void PacketEncoder::WriteBytesRaw(unsigned char const* data, unsigned int length) {
    if (data) _count += BinBuffer::WriteString(_stream, data, length);
}

void PacketEncoder::WriteBytesRaw(ByteString const& bytes) { WriteBytesRaw(bytes.Data(), bytes.Length()); }

void PacketEncoder::WriteBignum(bignum_st const* number) {
    _count += static_cast<unsigned int>(BigNum::Write(_stream, number));
}

void PacketEncoder::WriteBignum2(bignum_st const* number) {
    _count += static_cast<unsigned int>(BigNum::Write2(_stream, number));
}

void PacketEncoder::WritePublicKey(PublicKey const& key) {
    WriteBytes(key._rep ? key._rep->EncodeSSH() : ByteString());
}

void PacketEncoder::WritePrivateKey(PrivateKey const& key) {
    if (key._rep) WriteBytesRaw(key._rep->EncodeSSH());
}

void PacketEncoder::WriteDigest(Digest const& digest) { WriteBytes(digest._rep->_value); }

void PacketEncoder::WriteSignature(Signature const& signature) { WriteBytes(signature._rep->Encode()); }

void PacketEncoder::WriteStringList(TOList<String_t> const& list) {
    WriteInt(static_cast<unsigned int>(list.Len()));
    TOListIterator<String_t> next(list);
    while (String_t const* text = next()) WriteString(text->Text());
}

int PacketEncoder::PadLen(unsigned int block) {
    Terminate();
    unsigned int const unpadded = _count + 5; // packet length and padding length come first
    unsigned int const padding = block - unpadded % block;
    return static_cast<int>(padding < 5 ? padding + block : padding);
}

void PacketEncoder::Terminate() { _stream.flush(); }

} // namespace cindral
