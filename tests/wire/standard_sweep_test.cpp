// Whole sessions with the standard dialect, with the connection cut after bytes of the server's stream, and
// with single bits of it changed: a session that was not complete must never look like one that was.

#include <mutex>

#include <brantle/sftp/sftp_client_session.h>

#include "support/pattern.h"
#include "support/temporary_directory.h"
#include "wire/standard_fixture.h"
#include "wire/standard_sftp_server.h"

using namespace peer;

namespace {

std::string const content = "the whole content of a file";
char const output[] = "the whole output of a command";
char const complete[] = "complete";

/// What is done with the server.
enum class Job { Exec, Get, Put };

struct Protocol {
    char const* name;
    char const* cipher;
    char const* mac;
};
Protocol const protocols[] = {{"ctr", "aes128-ctr", "hmac-sha2-256"},
                              {"etm", "aes128-ctr", "hmac-sha2-256-etm@openssh.com"},
                              {"gcm", "aes128-gcm@openssh.com", ""},
                              {"chacha", "chacha20-poly1305@openssh.com", ""}};

StandardSettings SweepSettings(Protocol const& protocol) {
    StandardSettings settings;
    settings.versionLine = "SSH-2.0-x\r\n";
    return settings.Pin(protocol.cipher, protocol.mac);
}

void ServeJob(StandardConnection& c, Job job) {
    c.WellBehaved(Stage::Opened);
    if (job == Job::Exec) {
        c.ReadChannelRequest();
        c.SendPacket(Data(output));
        c.SendPacket(ExtendedData("errors", 1));
        c.SendPacket(ExitStatus(0));
        c.SendPacket(Eof());
        c.SendPacket(Close());
    } else {
        SftpServer sftp(c);
        if (job == Job::Get) sftp.content = content;
        sftp.Serve();
        if (sftp.content != content) throw PeerError("the file has not come whole");
    }
}

/// A command; "complete" if the client may believe that it has seen all of it.
std::string RunExec(std::uint16_t port) {
    InputPipe const input;
    MemoryFile const out, errors;
    std::string outcome;
    int status = -1;
    {
        ProcessDescriptors const redirected(input.Fd(), out.Fd(), errors.Fd());
        StandardClient client(port);
        outcome = client.Run();
        status = client.dialect.ExitStatus();
    }
    if (status < 0) return outcome == RUN_ENDED ? "ended without a status: SshProtocolError" : outcome;
    EXPECT_EQ(outcome, RUN_ENDED) << "with the status " << status;
    EXPECT_EQ(out.Text(), output);
    EXPECT_EQ(errors.Text(), "errors");
    return complete;
}

std::string RunSftp(std::uint16_t port, Job job) {
    support::TemporaryDirectory const directory;
    std::string const local = directory.Path() / "file";
    if (job == Job::Put) std::ofstream(local) << content;
    cindral::SftpClientSession session(port, "127.0.0.1");
    cindral::StandardDialect dialect(session);
    cindral::EnterPassword enter(0, "");
    cindral::KbdInteractiveCallback questions;
    cindral::SftpStatus status;
    std::string const failure = StandardClient::Follow(
        {{"Connect ", [&] { return session.Connect(10); }},
         {"KeyExchange ", [&] { return session.KeyExchange(); }},
         {"Authenticate ", [&] { return session.Authenticate("", "tester", "", enter, questions); }},
         {"Start ", [&] { return session.Start(); }},
         {"Copy ", [&] {
              return job == Job::Get ? session.Get(status, "remote", local.c_str())
                                     : session.Put(status, local.c_str(), "remote");
          }}});
    if (!failure.empty()) return failure;
    EXPECT_EQ(FileText(local), content);
    return complete;
}

bool IsRefusal(std::string const& outcome) {
    return outcome.find(" -") != std::string::npos || outcome.find("Error: ") != std::string::npos;
}

/// A server whose connections but the first suffer the faults that the test sets before each session.
class SweptServer {
public:
    SweptServer(Protocol const& protocol, Job job)
        : _job(job), _server(
                         [this](StandardConnection& c) {
                             if (c.index > 0) Arm(c);
                             c.Wire().Begin();
                             ServeJob(c, _job);
                         },
                         SweepSettings(protocol)) {
        EXPECT_EQ(RunClient(), complete);
    }

    std::string Run(Faults const& faults, std::chrono::milliseconds waitLimit = Link::timeLimit) {
        {
            std::lock_guard<std::mutex> const lock(_mutex);
            _faults = faults;
            _waitLimit = waitLimit;
        }
        return RunClient();
    }

    /// Ends the server. The first connection, which had no faults, shows what is where.
    StandardConnection const& Finish(std::size_t sessions) {
        _server.Join(sessions + 1);
        return _server.At(0);
    }

private:
    std::string RunClient() {
        return _job == Job::Exec ? RunExec(_server.Port()) : RunSftp(_server.Port(), _job);
    }
    void Arm(StandardConnection& c) {
        std::lock_guard<std::mutex> const lock(_mutex);
        c.Wire().faults = _faults;
        c.Wire().waitLimit = _waitLimit;
    }

    Job const _job;
    std::mutex _mutex;
    Faults _faults;
    std::chrono::milliseconds _waitLimit{0};
    StandardPeer _server;
};

/// The packets of a session's server.
struct Layout {
    std::size_t sent = 0;
    std::vector<PacketRecord> packets;

    /// The packet that holds this byte of the server's stream; null within the line.
    PacketRecord const* At(std::size_t position) const {
        for (PacketRecord const& packet : packets)
            if (position >= packet.streamOffset && position < packet.streamOffset + packet.raw.size())
                return &packet;
        return nullptr;
    }
    /// Whether both sides may wait for the other when that byte is wrong: it is of a length, or of the line,
    /// which then is one of those before it.
    bool MakesWait(std::size_t position) const {
        PacketRecord const* const packet = At(position);
        return !packet || position < packet->streamOffset + 4;
    }
    /// Whether the byte is of the server's last packet.
    bool IsInLast(std::size_t position) const { return At(position) == &packets.back(); }
    /// Whether the byte is padding before there are keys, which nothing protects.
    bool IsUnprotected(std::size_t position) const {
        PacketRecord const* const packet = At(position);
        return packet && !packet->encrypted &&
               position >= packet->streamOffset + packet->raw.size() - packet->padding.size();
    }
};

/// Every position is tried when BRANTLE_LONG is set, else every eleventh.
std::size_t Stride() { return std::getenv("BRANTLE_LONG") ? 1 : 11; }

class StandardSweep : public testing::TestWithParam<std::tuple<Protocol, Job>> {
protected:
    void SetUp() override {
        SweptServer server(std::get<0>(GetParam()), std::get<1>(GetParam()));
        StandardConnection const& c = server.Finish(0);
        _layout = {c.Wire().SentCount(), c.sent};
    }

    /// Gives positions of the server's stream to a check, with a server to run a session against.
    void ForPositions(std::size_t first, std::size_t stride,
                      std::function<void(SweptServer&, std::size_t)> const& check) {
        SweptServer server(std::get<0>(GetParam()), std::get<1>(GetParam()));
        std::size_t sessions = 0;
        for (std::size_t n = first; n < _layout.sent; n += stride, ++sessions) {
            SCOPED_TRACE("position " + std::to_string(n));
            check(server, n);
        }
        server.Finish(sessions);
        EXPECT_GT(sessions, 0u);
    }

    /// The last message is the answer to the closing of a file: one that has been read is whole by then, and
    /// nothing depends on the answer.
    void ExpectRefusal(std::string const& outcome, std::size_t position) const {
        bool const isWhole = std::get<1>(GetParam()) == Job::Get && _layout.IsInLast(position);
        EXPECT_TRUE(IsRefusal(outcome) || (isWhole && outcome == complete)) << outcome;
    }

    Layout _layout;
};

TEST_P(StandardSweep, CutSessionNeverLooksComplete) {
    ForPositions(0, Stride(), [&](SweptServer& server, std::size_t n) {
        Faults faults;
        faults.cutAfterSent = n;
        ExpectRefusal(server.Run(faults), n);
    });
}

TEST_P(StandardSweep, ResetSessionNeverLooksComplete) {
    ForPositions(5, 5 * Stride(), [&](SweptServer& server, std::size_t n) {
        Faults faults;
        faults.cutAfterSent = n;
        faults.reset = true;
        ExpectRefusal(server.Run(faults), n);
    });
}

TEST_P(StandardSweep, SessionWithAChangedBitNeverLooksComplete) {
    ForPositions(0, Stride(), [&](SweptServer& server, std::size_t n) {
        Faults faults;
        faults.flipSent = n;
        faults.flipMask = static_cast<std::uint8_t>(1u << n % 8);
        std::string const outcome =
            server.Run(faults, _layout.MakesWait(n) ? std::chrono::milliseconds(200) : Link::timeLimit);
        if (_layout.IsUnprotected(n))
            EXPECT_EQ(outcome, complete);
        else
            ExpectRefusal(outcome, n);
    });
}

std::string Name(std::tuple<Protocol, Job> const& parameters) {
    char const* const jobs[] = {"Exec", "Get", "Put"};
    return std::string(std::get<0>(parameters).name) + "_" + jobs[static_cast<int>(std::get<1>(parameters))];
}

INSTANTIATE_TEST_SUITE_P(Sessions, StandardSweep,
                         testing::Combine(testing::ValuesIn(protocols),
                                          testing::Values(Job::Exec, Job::Get, Job::Put)),
                         [](auto const& param) { return Name(param.param); });

} // namespace
