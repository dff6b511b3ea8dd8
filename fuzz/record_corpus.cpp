// Records the corpus: the parts of sessions with servers by other vendors that the targets read.
//
// Nothing of it depends on the library being right about what it receives: the bytes are taken after the
// ciphers. Packets that carry secrets of a login are left out, as no decoder reads them.

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <brantle/brantle.h>

#include "sandbox.h"
#include "sftp_scripts.h"
#include "support/servers/openssh_server.h"
#include "support/servers/proftpd_server.h"
#include "support/servers/python_servers.h"
#include "transcript.h"

using namespace cindral;
using fuzz::RecordedSession;
using fuzz::Transcript;
using servers::RealServer;

namespace {

constexpr std::size_t LARGEST_INPUT = 4000;
constexpr int PATIENCE = 500; ///< milliseconds that a server may take to say something
constexpr unsigned short NO_SERVER = 1;
constexpr char const* OWN = "sent"; ///< the name of this library among those of servers

/// The numbers of messages that are only sent by this library.
constexpr std::array<int, 5> UNDECODED{Packet::SSH_MSG_KEXDH_INIT, Packet::SSH_MSG_KEX_DH_GEX_INIT,
                                       Packet::SSH_MSG_KEX_DH_GEX_REQUEST, Packet::SSH_MSG_USERAUTH_REQUEST,
                                       Packet::SSH_MSG_USERAUTH_INFO_RESPONSE};

bool IsDecoded(int number) {
    for (int const undecoded : UNDECODED)
        if (number == undecoded) return false;
    return true;
}

/// The files that are recorded, by target. Of inputs of one name the first is kept.
class Corpus {
public:
    explicit Corpus(std::filesystem::path const& directory) : _directory(directory) {}

    void Add(std::string const& target, std::string const& name, std::string const& bytes) {
        if (bytes.size() > LARGEST_INPUT || !_contents.insert(target + bytes).second) return;
        std::filesystem::create_directories(_directory / target);
        std::filesystem::path const file = _directory / target / name;
        if (std::filesystem::exists(file)) return;
        servers::WriteFile(file, bytes, 0644);
    }

    /// Each kind of packet in each length. The source is a server or this library.
    void AddPackets(std::string const& source, std::string const& plain) {
        for (std::string const& packet : fuzz::Packets(plain))
            if (packet.size() > 1 && IsDecoded(packet[1]))
                Add("packet", source + Kind(packet[1], packet), packet);
    }
    void AddSftpMessages(std::string const& source, std::string const& data) {
        for (std::string const& payload : fuzz::SftpPayloads(data))
            if (!payload.empty()) Add("sftp_message", source + Kind(payload[0], payload), payload);
    }

    /// What a server said, as much of it as an input has room for, after the byte that chooses.
    void AddStream(std::string const& target, std::string const& name, char choice,
                   std::string const& stream) {
        Add(target, name, choice + stream.substr(0, LARGEST_INPUT - 1));
    }

private:
    static std::string Kind(char number, std::string const& bytes) {
        return "-" + std::to_string(number) + "-" + std::to_string(bytes.size());
    }

    std::filesystem::path const _directory;
    std::set<std::string> _contents;
};

struct File {
    char const* name;
    std::size_t size;
    mode_t mode;
};

/// What is copied by scp, in both directions.
constexpr File FILES[] = {
    {"empty", 0, 0644}, {"one", 1, 0755}, {"read-only.text", 1000, 0444}, {"a", 12345, 0604}};

/// A server, and how many packets it sends of its own after a login.
struct Peer {
    std::string name;
    RealServer const& server;
    unsigned int unsolicitedAfterKey = 0;
    unsigned int unsolicitedOtherwise = 0;
};

struct Login {
    std::string user;
    std::string key{};
    std::string password{};
    std::string answer{};
};

class NobodyThere : public EnterPassword {
public:
    NobodyThere() : EnterPassword(0, "") {}
    int operator()(char*, unsigned int) override { return -1; }
};

class Recorder {
public:
    Recorder(Corpus& corpus, Peer const& peer) : _corpus(corpus), _peer(peer) {}

    void RecordAll(std::string const& openUser) {
        RecordLogins(openUser);
        RecordCommands();
        RecordRequests();
        RecordRefusedService();
        RecordScp();
        RecordSftp();
    }

    void RecordLogins(std::string const& openUser) {
        std::string const user = _peer.server.User();
        std::string const password = _peer.server.Password();
        std::vector<Login> logins{{user, "user_rsa"},     {user, "user_dsa"},   {user, "host_rsa"},
                                  {user, "", "wrong"},    {user, "", password}, {user, "", "", password},
                                  {user, "", "", "wrong"}};
        if (!openUser.empty()) logins.push_back({openUser});
        for (Login const& login : logins) Run<SshSession>(login, [](auto&) {}, SshSession::CLIENT);
    }

    /// The start of an exchange in a group that both sides know, as far as the server's reply.
    void RecordFixedGroup() {
        Transcript transcript;
        RecordedSession<SshSession> session(transcript, SshSession::CLIENT, _peer.server.Port(), "127.0.0.1");
        if (session.Connect(20) != 0) throw std::runtime_error(_peer.name + ": no connection");
        session.RecordOn();
        PacketKexInit start("diffie-hellman-group14-sha1");
        session._out.WritePacket(start);
        session._in.ReadPacket();
        unsigned char const number[] = {0x10, 0x01};
        PacketKexDhInit init(BigNum(number, sizeof(number)));
        session._out.WritePacket(init);
        session._in.ReadPacket();
        _corpus.AddPackets(_peer.name, transcript.received);
    }

private:
    /// A session from its start to its end, the packets of which go into the corpus. What the use of it
    /// throws is ignored: not every server accepts everything.
    template <class Session, class Use, class... Arguments>
    Transcript Run(Login const& login, Use const& use, Arguments const&... arguments) {
        Transcript transcript;
        try {
            RecordedSession<Session> session(transcript, arguments..., _peer.server.Port(), "127.0.0.1");
            if (LogIn(session, login)) use(session);
        } catch (Except const& failure) {
            std::cout << _peer.name << ": " << failure.what() << '\n';
        }
        _corpus.AddPackets(_peer.name, transcript.received);
        _corpus.AddPackets(OWN, transcript.sent);
        _corpus.AddStream("framing", _peer.name + "-" + std::to_string(_sessions++ % 3), '\0',
                          transcript.received);
        return transcript;
    }

    template <class Session>
    bool LogIn(Session& session, Login const& login) {
        if (session.ConnectAndExchangeKeys() != 0) throw std::runtime_error(_peer.name + ": no session");
        NobodyThere enter;
        KbdCopyCallback callback(login.answer.c_str());
        std::string const key = login.key.empty() ? "/nowhere" : _peer.server.File(login.key);
        if (session.Authenticate(key.c_str(), login.user.c_str(), login.password.c_str(), enter, callback) !=
            0)
            return false;
        unsigned int unsolicited = login.key.empty() ? _peer.unsolicitedOtherwise : _peer.unsolicitedAfterKey;
        for (; unsolicited > 0; --unsolicited) session.AuthReadPacket();
        return true;
    }

    Login WithKey() const { return {_peer.server.User(), "user_rsa"}; }

    void RecordCommands() {
        for (char const* command : {"echo out; echo err >&2; exit 3", "kill -TERM $$", "exit 0"})
            Run<SshSession>(
                WithKey(),
                [&](auto& session) {
                    session.Open();
                    session.StartCommand(command);
                    ReadAll(session);
                },
                SshSession::CLIENT);
    }

    /// What is answered by a success or a failure, and channels that the server opens and refuses.
    void RecordRequests() {
        Run<SshSession>(
            WithKey(),
            [](auto& session) {
                session.Open();
                unsigned short const port = FreePort();
                for (char const* request : {"tcpip-forward", "cancel-tcpip-forward"}) {
                    PacketGlobalRequest forward(request, 1, "127.0.0.1", port);
                    session._out.WritePacket(forward);
                    ReadAll(session);
                    int error = 0;
                    FileDescriptor const user(ClientSocketIn(port, "127.0.0.1").Connect(1, error));
                    ReadAll(session);
                }
                PacketOpenTcpChannel open(1, 1 << 20, 1 << 15, "127.0.0.1", NO_SERVER, "127.0.0.1", 4711);
                session._out.WritePacket(open);
                ReadAll(session);
                RequestOnChannel(session);
                session.Disconnect(Packet::SSH_DISCONNECT_BY_APPLICATION, "enough");
            },
            SshSession::CLIENT);
    }

    template <class Session>
    static void RequestOnChannel(Session& session) {
        termios settings{};
        PacketSessionPtyRequest pty(session._remoteChannel, -1, settings);
        pty._wantReply = 1;
        PacketSessionX11Request x11(session._remoteChannel, 1, 0, "MIT-MAGIC-COOKIE-1",
                                    "00112233445566778899aabbccddeeff", 0);
        PacketSessionStartSubsystem subsystem(session._remoteChannel, 1, "missing");
        PacketSessionStartCmd command(session._remoteChannel, 1, "exit 1");
        for (Packet* request : std::initializer_list<Packet*>{&pty, &x11, &subsystem, &command}) {
            session._out.WritePacket(*request);
            ReadAll(session);
        }
    }

    /// A violation of the protocol, for the server's DISCONNECT.
    void RecordRefusedService() {
        Transcript transcript;
        try {
            RecordedSession<SshSession> session(transcript, SshSession::CLIENT, _peer.server.Port(),
                                                "127.0.0.1");
            session.ConnectAndExchangeKeys();
            PacketServiceRequest request("nonsense");
            session._out.WritePacket(request);
            ReadAll(session);
        } catch (Except const&) {
        }
        _corpus.AddPackets(_peer.name, transcript.received);
    }

    void RecordScp() {
        support::TemporaryDirectory source, remoteSource, target, remoteTarget;
        for (auto const* directory : {&remoteSource, &remoteTarget})
            std::filesystem::permissions(directory->Path(), std::filesystem::perms::all);
        TOList<String_t> names;
        for (File const& file : FILES) {
            for (auto const* directory : {&source, &remoteSource})
                servers::WriteFile(*directory / file.name, std::string(file.size, 'x'), file.mode);
            names.Append(file.name);
        }
        TOList<String_t> missing;
        missing.Append("missing");

        auto const receive = [&](TOList<String_t> const& wanted) {
            return
                [&](ScpSession& session) { session.ReceiveFiles(Name(remoteSource), Name(target), wanted); };
        };
        auto const send = [&](String_t const& to) {
            return [&, to](ScpSession& session) { session.SendFiles(Name(source), to, names); };
        };
        RunScp("R", receive(names));
        RunScp("R-missing", receive(missing));
        RunScp("S", send(Name(remoteTarget)));
        RunScp("S-missing", send((remoteTarget / "no/such").c_str()));
    }

    void RunScp(std::string const& name, std::function<void(ScpSession&)> const& use) {
        Transcript const transcript = Run<ScpSession>(WithKey(), use);
        std::string const said = fuzz::ChannelData(fuzz::Packets(transcript.received));
        _corpus.AddStream("scp_session", _peer.name + "-" + name, name[0], said);
        for (std::size_t at = 0; (at = said.find("C0", at)) != std::string::npos; ++at) {
            std::string const line = said.substr(at + 1, said.find('\n', at) - at - 1);
            _corpus.Add("scp_line", _peer.name + "-" + std::to_string(line.size()), line);
        }
    }

    void RecordSftp() {
        fuzz::Sandbox const sandbox;
        for (unsigned int script = 0; script < fuzz::SFTP_SCRIPT_COUNT; ++script) {
            support::TemporaryDirectory remote;
            std::filesystem::permissions(remote.Path(), std::filesystem::perms::all);
            fuzz::SftpPlaces const places{remote.Path().c_str(), sandbox.Source().c_str(),
                                          sandbox.Target().c_str()};
            Transcript const transcript = Run<SftpClientSession>(WithKey(), [&](auto& session) {
                if (session.Start() == 0) fuzz::SFTP_SCRIPTS[script](session, places);
            });
            sandbox.CheckAndClear();
            std::string const said = fuzz::ChannelData(fuzz::Packets(transcript.received));
            _corpus.AddSftpMessages(_peer.name, said);
            _corpus.AddSftpMessages(OWN, fuzz::ChannelData(fuzz::Packets(transcript.sent)));
            for (unsigned int ids : {0u, 0x80u})
                _corpus.AddStream("sftp_session", _peer.name + "-" + std::to_string(script | ids),
                                  static_cast<char>(script | ids), said);
        }
    }

    static String_t Name(support::TemporaryDirectory const& directory) { return directory.Path().c_str(); }

    /// Reads until the server has nothing more to say.
    template <class Session>
    static void ReadAll(Session& session) {
        pollfd input{session.Fd(), POLLIN, 0};
        while (session.HasBufferedInput() || poll(&input, 1, PATIENCE) > 0) session._in.ReadPacket();
    }

    /// A port that is free now.
    static unsigned short FreePort() {
        FileDescriptor const fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) < 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) < 0)
            throw std::runtime_error("no free port");
        return ntohs(address.sin_port);
    }

    Corpus& _corpus;
    Peer const _peer;
    unsigned int _sessions = 0;
};

void RecordAll(Corpus& corpus) {
    {
        servers::AsyncsshServer const server;
        Recorder(corpus, {"asyncssh", server}).RecordAll(server.OpenUser());
    }
    {
        servers::ParamikoServer const server;
        Recorder(corpus, {"paramiko", server}).RecordAll(server.OpenUser());
    }
    {
        servers::ProftpdServer const server;
        Recorder(corpus, {"proftpd", server}).RecordAll("");
    }
    {
        servers::OpensshServer const server;
        Recorder(corpus, {"openssh", server, 3, 1}).RecordAll(server.OpenUser());
    }
    {
        servers::AsyncsshServer const server({"--host-key", "dsa", "--banner", "Welcome.\n"});
        Recorder(corpus, {"asyncssh-dsa", server}).RecordLogins("");
    }
    for (char const* key : {"rsa", "dsa"}) {
        servers::AsyncsshServer const server(
            {"--host-key", key, "--key-exchanges", "diffie-hellman-group14-sha1"});
        Recorder(corpus, {"asyncssh-group14", server}).RecordFixedGroup();
    }
}

} // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        std::cerr << "usage: record_corpus DIRECTORY\n";
        return 2;
    }
    support::TemporaryDirectory const home;
    std::filesystem::create_directory(home.Path() / ".ssh");
    setenv("HOME", home.Path().c_str(), 1);
    for (char const* name : {"SSH_AUTH_SOCK", "DISPLAY"}) unsetenv(name);
    try {
        Corpus corpus(std::filesystem::absolute(arguments[1]));
        std::filesystem::current_path("/");
        RecordAll(corpus);
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
}
