#ifndef TESTS_WIRE_TEST_SESSION_H
#define TESTS_WIRE_TEST_SESSION_H

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include <brantle/cindral/exceptions.h>
#include <brantle/session/ssh_session.h>

#include "support/peer/scripted_peer.h"
#include "support/text.h"

/// A session to a scripted peer that gives tests access to protected members.
class TestSession : public cindral::SshSession {
public:
    explicit TestSession(std::uint16_t port) : SshSession(CLIENT, port, String_t("127.0.0.1")) {}

    using SshSession::_authenticated;
    using SshSession::_channels;
    using SshSession::_cipherNames;
    using SshSession::_ciphers;
    using SshSession::_clientVersion;
    using SshSession::_fd;
    using SshSession::_in;
    using SshSession::_kexType;
    using SshSession::_keyNeed;
    using SshSession::_macNames;
    using SshSession::_macs;
    using SshSession::_out;
    using SshSession::_remoteChannel;
    using SshSession::_serverVersion;
    using SshSession::_sessionId;
    using SshSession::_windowSize;
    using SshSession::DeriveKey;
    using SshSession::InitiateAuthentication;
};

using support::Text;

inline peer::Bytes ToPeer(ByteString const& bytes) {
    return bytes.Length() == 0 ? peer::Bytes() : peer::Bytes(bytes.Data(), bytes.Data() + bytes.Length());
}

/// The outcome of a call, in one line: its result as in "-1", or its exception as in
/// "SshProtocolError: packet length less than 2".
inline std::string Outcome(std::function<int()> const& call) {
    try {
        return std::to_string(call());
    } catch (cindral::SshProtocolError const& error) {
        return std::string("SshProtocolError: ") + error.what();
    } catch (cindral::BadInput const& error) {
        return std::string("BadInput: ") + error.what();
    } catch (cindral::InvalidArgument const& error) {
        return std::string("InvalidArgument: ") + error.what();
    } catch (cindral::SystemError const& error) {
        return std::string("SystemError: ") + error.what();
    } catch (cindral::OpenSSLError const& error) {
        return std::string("OpenSSLError: ") + error.what();
    } catch (cindral::CryptoException const& error) {
        return std::string("CryptoException: ") + error.what();
    }
}

/// Connects, exchanges keys and closes: the result of KeyExchange.
inline std::string ExchangeKeys(std::uint16_t port) {
    TestSession session(port);
    EXPECT_EQ(session.Connect(10), 0);
    return Outcome([&] { return session.KeyExchange(); });
}

inline char const* const closedEarly = "SshProtocolError: packet length less than 2";

#endif
