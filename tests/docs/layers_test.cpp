// script/check-layers: on this tree, and on copies of it that go against the drawing in docs/design.md.

#include <filesystem>
#include <string>

#include "docs/checked_copy.h"

using namespace docs;
using servers::Outcome;
using servers::WriteFile;
using testing::HasSubstr;

namespace {

Outcome CheckLayers(std::filesystem::path const& tree) { return Check("check-layers", tree); }

/// A copy of what the check reads.
class LayersOfACopy : public CheckedCopy {
protected:
    LayersOfACopy() {
        for (auto const& folder : std::filesystem::directory_iterator(SOURCES))
            if (IsPartOfIt(folder.path().filename())) Copy(folder.path().filename());
    }

private:
    /// The documents, the public headers, and the folders of the libraries.
    static bool IsPartOfIt(std::string const& name) {
        for (char const* other : {"bench", "examples", "fuzz", "tests"})
            if (name == other) return false;
        return name == "docs" || name == "include" || name == "foundations" ||
               std::filesystem::exists(SOURCES / name / "CMakeLists.txt");
    }
};

} // namespace

TEST(Layers, IncludesOfThisTreeFollowTheDrawing) {
    Outcome const outcome = CheckLayers(SOURCES);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_THAT(outcome.output, HasSubstr("every #include follows one"));
}

TEST_F(LayersOfACopy, CopyFollowsTheDrawingToo) { EXPECT_EQ(CheckLayers(Path()).status, 0); }

TEST_F(LayersOfACopy, IncludeOfAHigherLayerIsAnError) {
    Append("packet/transport_messages.cpp", "# include <brantle/session/ssh_session.h>\n");
    EXPECT_THAT(CheckLayers(Path()), Complains("packet may not include SshSession"));
}

TEST_F(LayersOfACopy, PublicHeadersCount) {
    Append("include/brantle/event/timers.h", "#include <brantle/cindral/random.h>\n");
    EXPECT_THAT(CheckLayers(Path()), Complains("event may not include cindral"));
}

TEST_F(LayersOfACopy, HeadersWithoutAnExtensionCount) {
    Append("include/generic/tset", "#include <brantle/cindral/random.h>\n");
    EXPECT_THAT(CheckLayers(Path()), Complains("thornel may not include cindral"));
}

TEST_F(LayersOfACopy, PathsIntoAnotherFolderCount) {
    Append("event/timers.cpp", "#include \"../channel/forwarded_connection.h\"\n");
    EXPECT_THAT(CheckLayers(Path()), Complains("event may not include channel"));
}

TEST_F(LayersOfACopy, PathsFromTheTopCount) {
    Append("sftp/sftp_name.cpp", "#include \"trust/private.h\"\n");
    WriteFile(Path() / "trust/private.h", "");
    EXPECT_THAT(CheckLayers(Path()), Complains("sftp may not include trust"));
}

TEST_F(LayersOfACopy, HeaderForEverythingIsNotForTheLibrary) {
    Append("sftp/sftp_name.cpp", "#include <brantle/brantle.h>\n");
    EXPECT_THAT(CheckLayers(Path()), Complains("sftp may not include brantle.h"));
}

TEST_F(LayersOfACopy, FileGivenToAHigherLayerIsNotForItsOwnFolder) {
    Append("channel/ssh_channel.cpp", "#include <brantle/channel/x11_forwarding.h>\n");
    EXPECT_THAT(CheckLayers(Path()), Complains("channel may not include SshSession"));
}

TEST_F(LayersOfACopy, ArrowThatLeadsUpIsAnError) {
    Replace("docs/design.md", "event      -> thornel", "event      -> packet thornel");
    Append("event/timers.cpp", "#include <brantle/packet/packet.h>\n");
    EXPECT_THAT(CheckLayers(Path()), Complains("docs/design.md: 'event -> packet' does not lead down"));
}

TEST_F(LayersOfACopy, ArrowThatNothingFollowsIsAnError) {
    Replace("docs/design.md", "kex        -> cindral", "kex        -> event cindral");
    EXPECT_THAT(CheckLayers(Path()), Complains("docs/design.md: nothing in kex includes event any more"));
}

TEST_F(LayersOfACopy, FolderThatIsNotDrawnIsAnError) {
    std::filesystem::create_directory(Path() / "surplus");
    WriteFile(Path() / "surplus/CMakeLists.txt", "target_sources(brantle PRIVATE surplus.cpp)\n");
    EXPECT_THAT(CheckLayers(Path()), Complains("docs/design.md does not show surplus"));
    std::filesystem::create_directory(Path() / "include/brantle/more");
    EXPECT_THAT(CheckLayers(Path()), Complains("docs/design.md does not show include/brantle/more/"));
}
