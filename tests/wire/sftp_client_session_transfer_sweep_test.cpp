// SftpClientSession: a get and a put with the connection cut after each byte of either side in turn, and with
// each reply of the server replaced by others: the result or exception reports it, and nothing stays open.

#include "support/descriptor_state.h"
#include "wire/sftp_transfer_fixture.h"

using namespace sftp;
using peer::Connection;
using peer::PacketRecord;

namespace {

/// The types of all messages, and some that no message has.
unsigned const replyTypes[] = {0,   1,   2,   3,   4,   5,   6,   7,   8,   9,   10, 11,
                               12,  13,  14,  15,  16,  17,  18,  19,  20,  21,  99, 100,
                               101, 102, 103, 104, 105, 106, 127, 128, 200, 201, 255};

/// A transfer of one file in one direction.
struct Direction {
    std::string name;
    Dialogue dialogue; ///< from the open to the close
    std::function<int(cindral::SftpStatus&, SftpProgram&)> call;
};

Direction const directions[] = {
    {"Getting", Fetching("/f", "hello", 0640),
     [](cindral::SftpStatus& status, SftpProgram& session) { return session.Get(status, "/f", "copy"); }},
    {"Putting", Storing("/f", "world", 0640),
     [](cindral::SftpStatus& status, SftpProgram& session) { return session.Put(status, "f", "/f"); }},
};

void PrintTo(Direction const& direction, std::ostream* out) { *out << direction.name; }

bool IsFailure(std::string const& outcome) {
    return outcome.find("SshProtocolError: ") == 0 || outcome.find("BadInput: ") == 0;
}

class SftpTransferSweep : public SftpTransferTest, public testing::WithParamInterface<Direction> {
protected:
    SftpTransferSweep() { local.Store("f", "world", 0640); }
    ~SftpTransferSweep() override {
        server.reset();
        EXPECT_EQ(support::OpenDescriptors(), descriptors);
    }

    /// The outcome of the transfer with a connection that is changed when the session has started.
    std::string Swept(std::function<void(Connection&)> const& change) {
        Serve([&](Connection& c) {
            c.WellBehaved(peer::Stage::Authenticated);
            RemoteSftp remote(c);
            remote.TakeSubsystem();
            remote.Follow(Beginning());
            sent = c.Wire().SentCount();
            received = c.Wire().ReceivedCount();
            change(c);
            remote.Follow(GetParam().dialogue);
            remote.End();
        });
        std::string outcome;
        {
            SftpProgram session(server->Port());
            Login(session);
            if (session.Start() != 0) throw std::runtime_error("no start");
            session.LCd(local.Name());
            outcome = Outcome([&] { return GetParam().call(status, session); });
            EXPECT_THAT(support::OpenDescriptorsBelow(local.Path()), testing::IsEmpty());
        }
        server->Join();
        return outcome;
    }
    /// The packets of one side in a transfer that nothing disturbs.
    static std::vector<PacketRecord> From(std::vector<PacketRecord> const& records, std::size_t offset) {
        std::vector<PacketRecord> packets;
        for (PacketRecord const& packet : records)
            if (packet.streamOffset >= offset) packets.push_back(packet);
        return packets;
    }
    static std::size_t EndOf(PacketRecord const& packet) {
        return packet.streamOffset + packet.raw.size() + packet.mac.size();
    }
    /// The only new file is the one that a get creates, and it is no longer than the original.
    void ExpectFiles() {
        EXPECT_EQ(local.Stored("f"), "world");
        std::string const copy = local.Stored("copy");
        EXPECT_TRUE(copy == "no file" || copy.size() <= 5) << copy;
        EXPECT_LE(local.Tree().size(), 2u);
        std::filesystem::remove(local / "copy");
    }

    /// What other outcome a transfer may have if the stream ends within the n-th reply. The missing part of a
    /// packet reads as zeros: as an empty handle, no data or a code that is a success.
    static std::string LenientOutcome(std::size_t n) {
        if (n == 0) return "-1";
        unsigned const request = GetParam().dialogue[n].request.Payload(0)[0];
        return request == 5 || n + 2 == GetParam().dialogue.size() ? "0" : "none";
    }

    std::set<int> const descriptors = support::OpenDescriptors();
    std::size_t sent = 0;     ///< bytes of the server before the transfer
    std::size_t received = 0; ///< those of the client's
};

} // namespace

TEST_P(SftpTransferSweep, CutAfterEachByteOfTheServer) {
    EXPECT_EQ(Swept([](Connection&) {}), "0");
    std::vector<PacketRecord> const replies = From(server->At(0).sent, sent);
    ASSERT_EQ(replies.size(), GetParam().dialogue.size());
    std::size_t const length = EndOf(replies.back()) - sent;
    for (std::size_t n = 0; n < length; ++n) {
        std::string const outcome =
            Swept([n](Connection& c) { c.Wire().faults.cutAfterSent = c.Wire().SentCount() + n; });
        EXPECT_FALSE(server->RanToItsEnd());
        std::size_t cut = 0; // the first reply that is not whole
        while (sent + n >= EndOf(replies[cut])) ++cut;
        bool const mayPass = sent + n > replies[cut].streamOffset && outcome == LenientOutcome(cut);
        if (cut + 1 == replies.size())
            EXPECT_EQ(outcome, "0") << n; // the file is complete
        else
            EXPECT_TRUE(mayPass || IsFailure(outcome)) << n << ": " << outcome;
        ExpectFiles();
    }
}

TEST_P(SftpTransferSweep, CutAfterEachByteOfTheClient) {
    EXPECT_EQ(Swept([](Connection&) {}), "0");
    std::vector<PacketRecord> const requests = From(server->At(0).received, received);
    ASSERT_EQ(requests.size(), GetParam().dialogue.size());
    std::size_t const length = EndOf(requests.back()) - received;
    std::size_t const closes = requests.back().streamOffset - received;
    for (std::size_t n = 1; n < length; ++n) {
        std::string const outcome = Swept([n](Connection& c) {
            c.Wire().faults.cutAfterReceived = c.Wire().ReceivedCount() + n;
            c.Wire().faults.reset = n % 2 == 0;
        });
        EXPECT_FALSE(server->RanToItsEnd());
        // The transfer is complete when the file is closed.
        EXPECT_TRUE(n > closes ? outcome == "0" : IsFailure(outcome)) << n << ": " << outcome;
        ExpectFiles();
    }
}

TEST_P(SftpTransferSweep, EachReplyAsEveryOtherType) {
    Dialogue const& whole = GetParam().dialogue;
    for (std::size_t n = 0; n < whole.size(); ++n) {
        unsigned const own = whole[n].reply.Payload(0)[0];
        bool const isClose = n + 1 == whole.size();
        Dialogue dialogue;
        std::vector<unsigned> types;
        for (unsigned const type : replyTypes) {
            bool const fits = type == 101 || type == own ||
                              (own == 101 && whole[n].request.Payload(0)[0] == 5 && type == 103);
            if (fits) continue;
            types.push_back(type);
            dialogue.insert(dialogue.end(), whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
            dialogue.push_back({whole[n].request, Message(type, peer::Writer().String("h").U32(0))});
            // Nothing is open until a handle has arrived, and a close is not tried twice.
            if (n > 0 && !isClose) dialogue = dialogue + Closing();
        }
        std::vector<std::string> outcomes;
        Transfer(dialogue, [&](SftpProgram& session) {
            for (std::size_t i = 0; i < types.size(); ++i)
                outcomes.push_back(Outcome([&] { return GetParam().call(status, session); }));
            return 0;
        });
        ASSERT_EQ(outcomes.size(), types.size());
        for (std::size_t i = 0; i < types.size(); ++i) {
            std::string const broken =
                "SshProtocolError: invalid sftp response received: " + std::to_string(types[i]);
            EXPECT_EQ(outcomes[i], isClose ? "0" : broken) << "reply " << n;
        }
        EXPECT_THAT(support::OpenDescriptorsBelow(local.Path()), testing::IsEmpty());
        ExpectFiles();
    }
}

TEST_P(SftpTransferSweep, EachReplyWithoutItsFields) {
    Dialogue const& whole = GetParam().dialogue;
    for (std::size_t n = 0; n < whole.size(); ++n) {
        bool const isClose = n + 1 == whole.size();
        Dialogue dialogue(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
        dialogue.push_back({whole[n].request, Message(whole[n].reply.Payload(0)[0], {})});
        if (n > 0 && !isClose) dialogue = dialogue + Closing();
        std::map<unsigned, std::string> const words{{101, "invalid input"},
                                                    {102, "invalid string length in input"},
                                                    {103, "input too short"},
                                                    {105, "input too short"}};
        EXPECT_EQ(Transfer(dialogue, [&](SftpProgram& session) { return GetParam().call(status, session); }),
                  isClose ? "0" : "SshProtocolError: " + words.at(whole[n].reply.Payload(0)[0]))
            << "reply " << n;
        ExpectFiles();
    }
}

TEST_P(SftpTransferSweep, EachReplyWithAnotherId) {
    Dialogue const& whole = GetParam().dialogue;
    for (std::size_t n = 0; n < whole.size(); ++n) {
        bool const isClose = n + 1 == whole.size();
        auto const id = static_cast<std::uint32_t>(n + 1); // the first request asks for the home directory
        for (std::uint32_t const other : {id - 1, id + 1, ~id, id << 24}) {
            Dialogue dialogue(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
            dialogue.push_back({whole[n].request, Message(whole[n].reply.Payload(other))});
            if (n > 0 && !isClose) dialogue = dialogue + Closing();
            EXPECT_EQ(
                Transfer(dialogue, [&](SftpProgram& session) { return GetParam().call(status, session); }),
                isClose ? "0" : "SshProtocolError: invalid request id")
                << "reply " << n;
            ExpectFiles();
        }
    }
}

TEST_P(SftpTransferSweep, EachReplyTooShortForAnId) {
    Dialogue const& whole = GetParam().dialogue;
    for (std::size_t n = 0; n < whole.size(); ++n) {
        bool const isClose = n + 1 == whole.size();
        for (std::size_t const size : {0u, 1u, 4u}) {
            Dialogue dialogue(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(n));
            peer::Bytes const start =
                peer::Slice(whole[n].reply.Payload(static_cast<std::uint32_t>(n + 1)), 0, size);
            dialogue.push_back({whole[n].request, Message(start)});
            if (n > 0 && !isClose) dialogue = dialogue + Closing();
            EXPECT_EQ(
                Transfer(dialogue, [&](SftpProgram& session) { return GetParam().call(status, session); }),
                isClose ? "0" : "SshProtocolError: error reading sftp response")
                << "reply " << n << " of " << size << " bytes";
            ExpectFiles();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Directions, SftpTransferSweep, testing::ValuesIn(directions),
                         [](auto const& param) { return param.param.name; });
