// The lines that a connection with the standard dialect begins with (RFC 4253, section 4.2).

#include <chrono>
#include <thread>

#include "wire/standard_fixture.h"

using namespace peer;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class StandardIdentification : public StandardTest {
protected:
    /// The outcome of a session whose server sends this before anything else.
    StandardResult After(std::string const& lines) {
        return RunFrom([lines](StandardConnection& c) {
            c.SendLine(lines);
            c.WellBehaved(Stage::Opened);
            c.ReadChannelRequest();
            c.SendTogether(Ending(3));
            c.ReadToTheEnd();
        });
    }
    /// What Connect gives within a second for that script, and how long it took in milliseconds.
    std::pair<int, long> ConnectWithinASecond(Script const& script) {
        Serve(script);
        int result = 0;
        auto const start = std::chrono::steady_clock::now();
        {
            StandardClient client(server->Port());
            result = client.session.Connect(1);
            EXPECT_NE(Text(client.dialect.LastError()), "");
        }
        auto const end = std::chrono::steady_clock::now();
        server->Join();
        return {result, std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count()};
    }
};

TEST_F(StandardIdentification, LinesBeforeItAreSkipped) {
    std::string many;
    for (int i = 0; i < 1000; ++i) many += "line " + std::to_string(i) + "\r\n";
    for (std::string const& lines :
         {std::string("Welcome\r\n"), std::string("\n\r\n\n"), std::string("SSH\n SSH-2.0-x\nssh-2.0-x\n"),
          std::string("nul \0 nul\n", 10), std::string(8000, 'x') + '\n', many})
        EXPECT_EQ(After(lines).exitStatus, 3);
}

TEST_F(StandardIdentification, SecondConnectionOfASessionIsRefusedInWords) {
    Serve([](StandardConnection& c) {
        c.WellBehaved(Stage::Opened);
        c.ReadChannelRequest();
        c.SendTogether(Ending(3));
        c.ReadToTheEnd();
    });
    {
        StandardClient client(server->Port());
        ASSERT_EQ(client.session.Connect(10), 0);
        EXPECT_EQ(client.session.Connect(10), -EISCONN);
        EXPECT_THAT(Text(client.dialect.LastError()), HasSubstr("connected already"));
        // The first connection goes on.
        EXPECT_EQ(StandardClient::Follow({client.ExchangingKeys(), client.Authenticating()}), "");
        EXPECT_EQ(client.session.Connect(10), -EISCONN);
        EXPECT_EQ(client.session.Open(), 0);
        client.session.StartCommand("command");
        client.session.InitDispatcher();
        client.session.Run();
        EXPECT_EQ(client.session.Connect(10), -EISCONN);
        EXPECT_EQ(client.dialect.ExitStatus(), 3);
    }
    server->Finish();
}

TEST_F(StandardIdentification, LinesWithoutEndAreGivenUp) {
    std::string lines;
    for (int i = 0; i < 100000; ++i) lines += "line\r\n";
    StandardResult const result = After(lines);
    EXPECT_THAT(result.outcome, StartsWith("Connect -"));
    EXPECT_THAT(result.lastError, HasSubstr("lines without end"));
}

TEST_F(StandardIdentification, LineWithoutEndIsGivenUp) {
    for (char const* start : {"", "SSH-2.0-"}) {
        StandardResult const result = After(start + std::string(1 << 20, 'x'));
        EXPECT_THAT(result.outcome, StartsWith("Connect -"));
        EXPECT_THAT(result.lastError, HasSubstr("too long"));
    }
}

TEST_F(StandardIdentification, FormsOfVersionTwoAreAccepted) {
    for (char const* line :
         {"SSH-1.99-server\r\n", "SSH-2.0-server\n", "SSH-2.0-\r\n", "SSH-2.0-a b c\r\n"}) {
        settings.versionLine = line;
        EXPECT_EQ(After("").exitStatus, 3) << line;
    }
}

TEST_F(StandardIdentification, OtherVersionsAreRefusedInWords) {
    for (char const* line :
         {"SSH-1.5-server", "SSH-1.0-server", "SSH-2.1-server", "SSH-3.0-x", "SSH-", "SSH-2.0"}) {
        StandardResult const result = RunFrom([line](StandardConnection& c) {
            c.SendLine(line + std::string("\x1b[2J\r\n"));
            c.ReadLine();
            c.ExpectClosed();
        });
        EXPECT_EQ(server->Error(), "");
        EXPECT_THAT(result.outcome, StartsWith("Connect -"));
        EXPECT_THAT(result.lastError, HasSubstr(line));
        EXPECT_THAT(result.lastError, testing::Not(HasSubstr("\x1b")));
    }
}

TEST_F(StandardIdentification, ConnectionThatEndsBeforeItIsAnError) {
    for (char const* text : {"", "Welcome\r\n", "SSH-2.0-serv"}) {
        StandardResult const result = RunFrom([text](StandardConnection& c) {
            c.SendLine(text);
            c.Wire().ShutdownWrite();
            c.ReadUntilClosed();
        });
        EXPECT_THAT(result.outcome, StartsWith("Connect -")) << text;
        EXPECT_THAT(result.lastError, HasSubstr("closed"));
    }
}

TEST_F(StandardIdentification, PacketsMayFollowInTheSameSegment) {
    StandardResult const result = RunFrom([](StandardConnection& c) {
        Bytes const line = ToBytes(c.settings.versionLine);
        KexInitLists lists = c.settings.kexInit;
        lists.kex += ",kex-strict-s-v00@openssh.com";
        c.kex.serverInit = lists.Payload();
        c.SendRaw(Concat({line, c.Encode(c.kex.serverInit)}));
        c.clientVersion = c.ReadLine();
        c.clientVersion.resize(c.clientVersion.size() - 2);
        c.ReceiveKexInit();
        c.FinishExchange();
        c.ServiceAccept();
        c.Authenticate();
        c.ConfirmOpen();
        c.ReadChannelRequest();
        c.SendTogether(Ending(3));
        c.ReadToTheEnd();
    });
    EXPECT_EQ(result.exitStatus, 3);
    EXPECT_TRUE(result.isStrict);
}

TEST_F(StandardIdentification, SilentServerIsGivenUpWithinTheLimit) {
    auto const [result, milliseconds] =
        ConnectWithinASecond([](StandardConnection& c) { c.ReadUntilClosed(); });
    EXPECT_EQ(result, -ETIMEDOUT);
    EXPECT_GE(milliseconds, 990);
    EXPECT_LT(milliseconds, 5000);
}

TEST_F(StandardIdentification, ServerThatDripsIsGivenUpWithinTheLimit) {
    auto const [result, milliseconds] = ConnectWithinASecond([](StandardConnection& c) {
        for (int i = 0; i < 1000; ++i) {
            c.SendLine(i % 10 == 9 ? "\n" : "x");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    EXPECT_EQ(result, -ETIMEDOUT);
    EXPECT_LT(milliseconds, 5000);
}

} // namespace
