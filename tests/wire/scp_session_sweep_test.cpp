// Transfers with the connection cut after each byte of either side in turn, and with each message of the
// server's and each answer of the remote program replaced by others: the result or exception reports it, and
// nothing stays open.

#include "wire/scp_fixture.h"

using namespace peer;

namespace {

/// What the remote program sends to the client, among the server's messages.
struct Answer {
    std::size_t position;
    std::string bytes;

    bool IsHeader() const { return bytes[0] == 'C'; }
};

/// A transfer of one file in one direction.
struct Direction {
    std::string name;
    std::vector<Answer> answers;
    std::function<void(RemoteScp&)> remote;
    std::function<int(ScpClient&, String_t const& directory)> client;
};

Direction const directions[] = {
    {"Sending",
     {{0, {'\0'}}, {1, {'\0'}}, {2, {'\0'}}},
     [](RemoteScp& remote) {
         remote.TakeCommand();
         remote.Acknowledge();
         remote.TakeFile(5);
     },
     [](ScpClient& session, String_t const& directory) { return session.SendFile(directory, "t", "sent"); }},
    {"Receiving",
     {{0, "C0644 5 name\n"}, {2, {'\0'}}},
     [](RemoteScp& remote) {
         remote.TakeCommand();
         remote.GiveFile("C0644 5 name\n", "world");
     },
     [](ScpClient& session, String_t const& directory) {
         return session.ReceiveFile("", directory, "received");
     }},
};

bool IsFailure(std::string const& outcome) {
    return outcome == "-1" || outcome.find("SshProtocolError: ") == 0 || outcome.find("BadInput: ") == 0;
}

unsigned const numbers[] = {0,  1,  2,  3,  4,  5,  6,  20, 21, 30, 31, 32, 33, 34, 50, 51,  52, 53,
                            60, 61, 80, 81, 82, 90, 91, 92, 93, 94, 95, 96, 97, 98, 99, 100, 255};

class ScpSweep : public ScpTest, public testing::WithParamInterface<Direction> {
protected:
    ScpSweep() { directory.Store("sent", "hello"); }

    /// The outcome of the transfer with a server that is changed first. It ends the stream after its time
    /// limit.
    std::string Transfer(
        std::function<void(Connection&)> const& change,
        std::function<void(RemoteScp&)> const& changeRemote = [](RemoteScp&) {}) {
        return RunWith(
            [&](Connection& c) {
                start = c.Wire().SentCount();
                change(c);
                RemoteScp remote(c);
                changeRemote(remote);
                try {
                    GetParam().remote(remote);
                    ended = true;
                    ReadToTheEnd(c);
                } catch (Cut const&) {
                    throw;
                } catch (PeerError const&) {
                    c.Wire().waitLimit = Link::timeLimit;
                    c.Wire().ShutdownWrite();
                }
            },
            [this](ScpClient& session) { return GetParam().client(session, Directory()); });
    }
    /// The server's messages of a transfer that nothing disturbs.
    std::vector<PacketRecord> Undisturbed() {
        EXPECT_EQ(Transfer([](Connection&) {}), "0");
        std::vector<PacketRecord> messages;
        for (PacketRecord const& packet : server->At(0).sent)
            if (packet.streamOffset >= start) messages.push_back(packet);
        return messages;
    }

    std::size_t start = 0; ///< bytes that the server had sent before the change
    bool ended = false;    ///< the server has done all of its part
};

} // namespace

TEST_P(ScpSweep, CutAfterEachByteOfTheServer) {
    std::vector<PacketRecord> const messages = Undisturbed();
    std::size_t const lastBegins = messages.back().streamOffset - messages.front().streamOffset;
    std::size_t const length = lastBegins + messages.back().raw.size() + messages.back().mac.size();
    for (std::size_t n = 0; n <= length; ++n) {
        ended = false;
        std::string const outcome =
            Transfer([n](Connection& c) { c.Wire().faults.cutAfterSent = c.Wire().SentCount() + n; });
        // The missing part of a packet reads as zeros, and so does the last acknowledgement.
        bool const mayPass = n > lastBegins;
        EXPECT_TRUE(IsFailure(outcome) || (mayPass && outcome == "0")) << n << ": " << outcome;
        EXPECT_FALSE(ended);
    }
}

TEST_P(ScpSweep, CutAfterEachByteOfTheClient) {
    Undisturbed();
    std::vector<PacketRecord> const records = server->At(0).received;
    std::size_t const begin = records[6].streamOffset; // after the login
    PacketRecord const& last = records.back();
    std::size_t const length = last.streamOffset + last.raw.size() + last.mac.size() - begin;
    for (std::size_t n = 1; n < length; ++n) {
        std::string const outcome = Transfer([n](Connection& c) {
            c.Wire().faults.cutAfterReceived = c.Wire().ReceivedCount() + n;
            c.Wire().faults.reset = n % 2 == 0;
        });
        // The last message has no answer.
        if (begin + n > last.streamOffset)
            EXPECT_EQ(outcome, "0") << n;
        else
            EXPECT_TRUE(IsFailure(outcome)) << n << ": " << outcome;
    }
}

TEST_P(ScpSweep, EachMessageOfTheServerAsEveryOther) {
    for (PacketRecord const& message : Undisturbed()) {
        for (unsigned const number : numbers) {
            std::string const outcome = Transfer([&](Connection& c) {
                if (number == CHANNEL_WINDOW_ADJUST || number == CHANNEL_REQUEST ||
                    number == CHANNEL_OPEN_FAILURE)
                    c.Wire().waitLimit = std::chrono::milliseconds(100); // both sides wait
                c.tamper = [&](std::uint32_t sequence, Bytes& plain) {
                    if (sequence == message.sequence) plain[5] = static_cast<std::uint8_t>(number);
                };
            });
            bool const skipped = number == CHANNEL_WINDOW_ADJUST || number == CHANNEL_REQUEST;
            std::string expected = skipped ? closedEarly
                                           : "SshProtocolError: expected CHANNEL_DATA package, received: " +
                                                 std::to_string(number);
            if (number == message.Type()) {
                expected = "0";
            } else if (message.Type() == CHANNEL_OPEN_CONFIRMATION) {
                expected = number == CHANNEL_OPEN_FAILURE
                               ? closedEarly // the transfer goes on, to a server that expects its command
                               : "SshProtocolError: expected either CHANNEL_OPEN_CONFIRMATION or "
                                 "CHANNEL_OPEN_FAILURE packet";
            }
            EXPECT_EQ(outcome, expected) << message.sequence << " as " << number;
        }
    }
}

TEST_P(ScpSweep, EachAnswerOfTheRemoteProgramAsEveryOther) {
    std::string const acknowledgement(1, '\0');
    std::string const error = "\1scp: no\n";
    std::string const fatal = "\2";
    std::string const terminated = "SshProtocolError: scp terminated with error";
    for (Answer const& answer : GetParam().answers) {
        for (std::string const& other :
             {acknowledgement, error, fatal, std::string("\7"), std::string("C0644 5 name\n"),
              std::string("T0 0 0 0\n"), std::string("D0755 0 sub\n"), std::string("E\n")}) {
            if (other == answer.bytes) continue;
            std::string expected = "SshProtocolError: scp returned illegal error code";
            if (other == error) {
                expected = terminated + (answer.IsHeader() ? "" : ": scp: no");
            } else if (answer.IsHeader()) {
                expected = closedEarly; // the client goes on reading, to a server that expects its answer
            } else if (other == fatal) {
                expected = terminated;
            }
            EXPECT_EQ(Transfer([](Connection& c) { c.Wire().waitLimit = std::chrono::milliseconds(100); },
                               [&](RemoteScp& remote) { remote.Replace(answer.position, other); }),
                      expected)
                << answer.position << " as " << other;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Directions, ScpSweep, testing::ValuesIn(directions),
                         [](auto const& param) { return param.param.name; });
