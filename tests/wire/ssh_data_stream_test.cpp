// The session channel as a pair of byte streams, without the loop.

#include <brantle/channel/ssh_data_stream.h>

#include "support/descriptors.h"
#include "wire/apps_fixture.h"

using namespace peer;
using testing::ElementsAre;

namespace {

/// A session with streams that exist before its channel, as in programs.
class StreamSession : public TestSession {
public:
    using TestSession::TestSession;

    cindral::OSshDataStream output{_out, 0, _windowSize};
    cindral::ISshDataStream input{_in, _out, 0, _windowSize};
};

class DataStreams : public AppTest {
protected:
    /// The outcome of the client's work on an open channel. The server's number of the channel is 42.
    std::string Run(Script const& script, std::function<int(StreamSession&)> const& client) {
        Serve([script](Connection& c) {
            c.WellBehaved(Stage::Opened);
            script(c);
        });
        std::string outcome;
        {
            StreamSession session(server->Port());
            Login(session);
            EXPECT_EQ(session.Open(), 0);
            EXPECT_EQ(session._remoteChannel, 42u);
            outcome = Outcome([&] { return client(session); });
        }
        server->Finish();
        return outcome;
    }

    /// The window adjustments among the client's messages: what each grants.
    std::vector<std::uint32_t> Granted() const {
        std::vector<std::uint32_t> grants;
        for (Bytes const& payload : Sent()) {
            Reader reader(payload);
            if (reader.U8() != CHANNEL_WINDOW_ADJUST) continue;
            EXPECT_EQ(reader.U32(), 0u);
            grants.push_back(reader.U32());
        }
        return grants;
    }
};

} // namespace

TEST_F(DataStreams, MessagesAreSentToChannel0WhateverThePeersNumber) {
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      c.ExpectPacket(CHANNEL_DATA);
                      c.SendData("answer\n");
                  },
                  [](StreamSession& session) {
                      session.output.Writeln("question", "\n");
                      session.output.Flush();
                      String_t line;
                      session.input.Readln(line, "\n");
                      EXPECT_EQ(Text(line), "answer");
                      session.output.Put('.');
                      return session.input.Gcount();
                  }),
              "0");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Data("question\n"), Data(".")));
}

TEST_F(DataStreams, SentBytesAreGrantedAboveTwoThirdsOfTheWindow) {
    EXPECT_EQ(Run([](Connection&) {},
                  [](StreamSession& session) {
                      std::string const block(8144, 'x');
                      for (int i = 0; i < 200; ++i) session.output.Write(block.data(), 8144);
                      return session.output.Flush();
                  }),
              "8144");
    EXPECT_THAT(Granted(), ElementsAre(testing::AllOf(testing::Gt(1398102u), testing::Lt(1398102u + 8300))));
    EXPECT_EQ(Sent().size(), 202u);
}

TEST_F(DataStreams, ReadBytesAreGrantedAboveTwoThirdsOfTheWindow) {
    std::string const block(32768, 'x');
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      for (int i = 0; i < 50; ++i) c.SendData(block);
                  },
                  [&](StreamSession& session) {
                      std::string bytes(block.size(), '\0');
                      for (int i = 0; i < 50; ++i) {
                          session.input.Read(bytes.data(), 32768);
                          EXPECT_EQ(bytes, block);
                      }
                      return static_cast<int>(session.input.Status());
                  }),
              "0");
    EXPECT_THAT(Granted(), ElementsAre(testing::AllOf(testing::Gt(1398102u), testing::Lt(1398102u + 32900))));
}

TEST_F(DataStreams, ReadAtTheEndOfTheChannelThrows) {
    for (std::uint8_t type : {CHANNEL_EOF, CHANNEL_CLOSE}) {
        EXPECT_EQ(Run(
                      [type](Connection& c) {
                          c.SendExitStatus(0);
                          c.SendChannelMessage(type);
                      },
                      [](StreamSession& session) {
                          char c = 0;
                          return session.input.Get(c);
                      }),
                  "SshProtocolError: expected CHANNEL_DATA package, received: " + std::to_string(type));
    }
}

TEST_F(DataStreams, ResetInsteadOfAMacEndsTheInput) {
    EXPECT_EQ(Run(
                  [](Connection& c) {
                      Bytes const packet = c.Encode(Data("x"));
                      c.SendRaw(Slice(packet, 0, packet.size() - 20));
                      c.Wire().Reset();
                  },
                  [](StreamSession& session) {
                      session.output.Put('x'); // sent when the streams are destroyed, with no peer left
                      return session.input.Fill();
                  }),
              "0");
}

TEST_F(DataStreams, NoRequestWaitsForATcpAcknowledgement) {
    // 32 KiB each way, so that the windows of both directions are adjusted on the way.
    constexpr int ROUNDS = 200;
    std::string const block(32544, 'x');
    int waited = 0;
    EXPECT_EQ(Run(
                  [&](Connection& c) {
                      for (int i = 0; i < ROUNDS; ++i) {
                          for (std::size_t left = block.size(); left > 0;) {
                              Bytes const packet = c.ReadPacket();
                              if (packet.at(0) == CHANNEL_DATA) left -= packet.size() - 9;
                          }
                          c.SendData(block);
                      }
                  },
                  [&](StreamSession& session) {
                      std::string answer(block.size(), '\0');
                      for (int i = 0; i < ROUNDS; ++i) {
                          session.output.Write(block.data(), static_cast<int>(block.size()));
                          session.output.Flush();
                          if (support::Unsent(session.Fd()) > 0) ++waited;
                          session.input.Read(answer.data(), static_cast<int>(answer.size()));
                      }
                      return static_cast<int>(session.input.Status());
                  }),
              "0");
    // The kernel stops holding back data after 200 ms, in which this process may not have run.
    EXPECT_LE(waited, 1);
}
