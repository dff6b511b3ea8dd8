#ifndef BRANTLE_PACKET_SESSION_REQUESTS_H
#define BRANTLE_PACKET_SESSION_REQUESTS_H

#include <brantle/export.h>
#include <brantle/packet/packet.h>
#include <brantle/thornel/byte_string.h>
#include <brantle/thornel/string_t.h>

struct termios;

namespace cindral {

/// Asks for a pseudo-terminal (RFC 4254, section 6.2).
class BRANTLE_API PacketSessionPtyRequest : public Packet {
public:
    /// Takes the terminal's name from the environment variable TERM, its size from the terminal at descriptor
    /// `fd` (0 by 0 if it is not a terminal), and its modes from `settings`. No reply is requested.
    PacketSessionPtyRequest(unsigned int recipientChannel, int fd, termios const& settings);
    explicit PacketSessionPtyRequest(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    String_t _request;
    int _wantReply = 0;
    String_t _term;
    unsigned int _columns = 0;
    unsigned int _rows = 0;
    unsigned int _widthPixels = 0;
    unsigned int _heightPixels = 0;
    ByteString _modes;
};

/// Starts the user's shell (RFC 4254, section 6.5).
class BRANTLE_API PacketSessionStartShell : public Packet {
public:
    PacketSessionStartShell(unsigned int recipientChannel, int wantReply);
    explicit PacketSessionStartShell(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    String_t _request;
    int _wantReply = 0;
};

/// Runs a command (RFC 4254, section 6.5).
class BRANTLE_API PacketSessionStartCmd : public Packet {
public:
    PacketSessionStartCmd(unsigned int recipientChannel, int wantReply, String_t const& command);
    explicit PacketSessionStartCmd(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    String_t _request;
    int _wantReply = 0;
    String_t _command;
};

/// Starts a subsystem (RFC 4254, section 6.5).
class BRANTLE_API PacketSessionStartSubsystem : public Packet {
public:
    PacketSessionStartSubsystem(unsigned int recipientChannel, int wantReply, String_t const& subsystem);
    explicit PacketSessionStartSubsystem(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    String_t _request;
    int _wantReply = 0;
    String_t _subsystem;
};

/// Asks for X11 forwarding (RFC 4254, section 6.3.1).
class BRANTLE_API PacketSessionX11Request : public Packet {
public:
    PacketSessionX11Request(unsigned int recipientChannel, int wantReply, int singleConnection,
                            String_t const& authProtocol, String_t const& authCookie, unsigned int screen);
    explicit PacketSessionX11Request(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    String_t _request;
    int _wantReply = 0;
    int _singleConnection = 0;
    String_t _authProtocol;
    String_t _authCookie;
    unsigned int _screen = 0;
};

/// A channel request of any name (RFC 4254, section 5.4).
///
/// Decoding supports the data of "exit-status" and "exit-signal" (section 6.10) and accepts other requests
/// only without request-specific data. Encoding writes no such data.
class BRANTLE_API PacketChannelRequest : public Packet {
public:
    PacketChannelRequest(unsigned int recipientChannel, String_t const& request, int wantReply);
    explicit PacketChannelRequest(PacketDecoder& decoder);
    ByteString Payload(BlockCipher& cipher) override;

    unsigned int _recipientChannel = 0;
    String_t _request;
    int _wantReply = 0;
    unsigned int _exitStatus = 0;  ///< read for "exit-status"
    String_t _signalName;          ///< read for "exit-signal", without the "SIG" prefix
    unsigned char _coreDumped = 0; ///< read for "exit-signal"
};

} // namespace cindral

#endif
