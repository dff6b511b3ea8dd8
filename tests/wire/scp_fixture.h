#ifndef TESTS_WIRE_SCP_FIXTURE_H
#define TESTS_WIRE_SCP_FIXTURE_H

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <brantle/apps/scp_session.h>

#include "support/descriptor_state.h"
#include "support/pattern.h"
#include "wire/apps_fixture.h"
#include "wire/local_directory.h"

using support::Pattern;

/// A session that gives tests access to protected members.
class ScpClient : public cindral::ScpSession {
public:
    explicit ScpClient(std::uint16_t port) : ScpSession(port, "127.0.0.1") {}

    using ScpSession::_input;
    using ScpSession::_output;
};

/// The scp program's side of the channel, in the hands of a script.
class RemoteScp {
public:
    explicit RemoteScp(peer::Connection& connection) : _connection(connection) {}

    /// Grants the channel and gives the command.
    std::string TakeCommand() {
        _connection.ConfirmOpen();
        peer::ChannelRequest const request = _connection.ReadChannelRequest();
        if (request.type != "exec") throw peer::PeerError("a request of type " + request.type);
        return peer::Reader(request.rest).String();
    }

    /// Has other bytes sent in place of the n-th message, counted from 0.
    void Replace(std::size_t n, std::string const& bytes) {
        _replaced = n;
        _replacement = bytes;
    }

    void Send(std::string_view bytes) {
        bool const replaced = _sent++ == _replaced;
        _connection.SendData(replaced ? _replacement : bytes);
    }
    void Acknowledge() { Send(std::string(1, '\0')); }
    /// In place of any further message: a packet whose MAC never arrives. REQUIRES: the client has nothing
    /// more to send before it reads, as it would otherwise notice the end then.
    void Break() {
        peer::Bytes const packet = _connection.Encode(Data("\1"));
        _connection.SendRaw(peer::Slice(packet, 0, packet.size() - 20));
        _connection.Wire().Reset();
    }

    std::string Read(std::size_t count) {
        while (_bytes.size() < count) {
            peer::Reader reader = _connection.ExpectPacket(peer::CHANNEL_DATA);
            if (reader.U32() != 0) throw peer::PeerError("data for another channel");
            _bytes += reader.String();
        }
        std::string const taken = _bytes.substr(0, count);
        _bytes.erase(0, count);
        return taken;
    }
    std::string ReadLine() {
        std::string line;
        while (line.empty() || line.back() != '\n') line += Read(1);
        return line;
    }
    void ExpectAcknowledgement() {
        if (Read(1)[0] != 0) throw peer::PeerError("no acknowledgement");
    }

    /// Receives a file; all goes well.
    void TakeFile(std::size_t size) {
        ReadLine();
        Acknowledge();
        Read(size);
        ExpectAcknowledgement();
        Acknowledge();
    }
    /// Sends a file; all goes well.
    void GiveFile(std::string const& head, std::string const& body) {
        ExpectAcknowledgement();
        Send(head);
        ExpectAcknowledgement();
        for (std::size_t at = 0; at < body.size(); at += 32768)
            Send(std::string_view(body).substr(at, 32768));
        Acknowledge();
    }

private:
    peer::Connection& _connection;
    std::string _bytes;
    std::optional<std::size_t> _replaced;
    std::string _replacement;
    std::size_t _sent = 0; ///< messages
};

/// Transfers from and to a temporary directory. The server's number of the channel is 42.
class ScpTest : public AppTest {
protected:
    /// The outcome of the client's call, after a login; the server's script begins at the opening of the
    /// channel.
    std::string Run(std::function<void(RemoteScp&)> const& script,
                    std::function<int(ScpClient&)> const& client) {
        return RunWith(
            [script](peer::Connection& c) {
                RemoteScp remote(c);
                script(remote);
            },
            client);
    }
    std::string RunWith(Script const& script, std::function<int(ScpClient&)> const& client) {
        Serve([script](peer::Connection& c) {
            c.WellBehaved(peer::Stage::Authenticated);
            script(c);
        });
        std::string outcome;
        {
            ScpClient session(server->Port());
            Login(session);
            auto const before = support::OpenDescriptorsBelow(directory.Path());
            outcome = Outcome([&] { return client(session); });
            EXPECT_EQ(support::OpenDescriptorsBelow(directory.Path()), before);
        }
        server->Finish();
        return outcome;
    }

    String_t Directory() const { return directory.Name(); }

    /// Names in the directory, in order and each after a blank.
    std::string Names() const {
        std::vector<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(directory.Path()))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        std::string text;
        for (auto const& name : names) text += " " + name;
        return text;
    }

    static TOList<String_t> List(std::initializer_list<char const*> names) {
        TOList<String_t> list;
        for (char const* name : names) list.Append(name);
        return list;
    }
    static peer::Bytes Exec(std::string const& command) { return Request("exec").String(command); }
    /// CHANNEL_DATA that is one octet 0.
    static peer::Bytes Null() { return Data(std::string(1, '\0')); }

    LocalDirectory directory;
};

#endif
