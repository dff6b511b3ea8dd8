#ifndef BRANTLE_FUZZ_TRANSCRIPT_H
#define BRANTLE_FUZZ_TRANSCRIPT_H

#include <string>
#include <vector>

#include <brantle/cindral/block_cipher.h>

namespace fuzz {

/// What goes over a connection, decrypted: packets with their lengths in front, one after the other.
struct Transcript {
    std::string received;
    std::string sent;
};

/// From now on adds what passes a cipher to a text, plain, until the cipher is redefined. The text must
/// outlive the cipher.
void Record(cindral::BlockCipher& cipher, cindral::BlockCipher::Mode mode, std::string& plain);

/// The whole packets in one direction of a transcript, each as ISshPacketStream::ReadPacket returns it.
std::vector<std::string> Packets(std::string const& plain);

/// The data of channels in packets.
std::string ChannelData(std::vector<std::string> const& packets);

/// The whole messages of SFTP in a channel's data.
std::vector<std::string> SftpPayloads(std::string const& data);

/// A session, the transcript of which is kept from the first packet on.
template <class Session>
class RecordedSession : public Session {
public:
    template <class... Arguments>
    explicit RecordedSession(Transcript& transcript, Arguments const&... arguments)
        : Session(arguments...), _transcript(transcript) {}

    /// As those of the session, and 0 if all is well.
    int ConnectAndExchangeKeys() {
        if (int const result = this->Connect(20); result != 0) return result;
        RecordOn();
        int const result = this->KeyExchange();
        RecordOn();
        return result;
    }

    /// Records from now on, up to the next change of keys.
    void RecordOn() {
        Record(this->_ciphers[0], cindral::BlockCipher::ENCRYPT, _transcript.sent);
        Record(this->_ciphers[1], cindral::BlockCipher::DECRYPT, _transcript.received);
    }

    using Session::_in;
    using Session::_out;
    using Session::_remoteChannel;

private:
    Transcript& _transcript;
};

} // namespace fuzz

#endif
