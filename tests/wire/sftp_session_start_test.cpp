// SftpClientSession: its beginning, and the two current directories.

#include "wire/sftp_session_fixture.h"

using namespace sftp;
using peer::Bytes;
using peer::Writer;
using testing::ElementsAre;

namespace {

using SftpSessionStart = SftpSessionTest;

std::string Cwd() { return std::filesystem::current_path(); }

} // namespace

TEST_F(SftpSessionStart, SequenceIsExact) {
    EXPECT_EQ(Run({},
                  [](SftpProgram& session) {
                      EXPECT_EQ(Text(session.RemoteDir()), "/home/u");
                      EXPECT_EQ(Text(session._remoteHome), "/home/u");
                      EXPECT_EQ(Text(session.LocalDir()), Cwd());
                      EXPECT_EQ(Text(session._localHome), Cwd());
                      return 0;
                  }),
              "0");
    Bytes const greeting = Writer().U32(5).U8(1).U32(3);
    Bytes const realpath = Writer().U32(10).U8(16).U32(0).String(".");
    EXPECT_THAT(Sent(), ElementsAre(OpenRequest(), Request("subsystem").String("sftp").Data(),
                                    Data(peer::ToText(greeting)), Data(peer::ToText(realpath))));
}
