// The tables of docs/standard.md against what they describe.

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "docs/code_blocks.h"
#include "real/standard_servers_table.h"
#include "standard/algorithms.h"
#include "support/servers/process.h"

using namespace cindral::standard;

namespace {

std::string Document() { return servers::ReadFile(BRANTLE_SOURCE_DIR "/docs/standard.md"); }

/// The names in the row of that heading, joined by commas.
std::string NamesOf(std::string const& heading) {
    std::string const document = Document();
    std::string const start = "\n| " + heading + " | ";
    std::size_t const begin = document.find(start);
    if (begin == std::string::npos) return "no row " + heading;
    std::string const row =
        document.substr(begin + start.size(), document.find('\n', begin + 1) - begin - start.size());
    std::string names;
    std::regex const quoted("`([^`]*)`");
    for (std::sregex_iterator name(row.begin(), row.end(), quoted), end; name != end; ++name)
        names += (names.empty() ? "" : ",") + (*name)[1].str();
    return names;
}

} // namespace

TEST(StandardTables, AlgorithmsAreThoseOffered) {
    EXPECT_EQ(NamesOf("Key exchange"), DefaultAlgorithms(AlgorithmKind::KEX));
    std::string const signatures = NamesOf("Host keys, and signatures at login");
    EXPECT_EQ(signatures, DefaultAlgorithms(AlgorithmKind::HOST_KEY));
    EXPECT_EQ(signatures, DefaultAlgorithms(AlgorithmKind::PUBLIC_KEY));
    EXPECT_EQ(NamesOf("Ciphers, where the processor has AES instructions"), DefaultCiphers(true));
    EXPECT_EQ(NamesOf("Ciphers elsewhere"), DefaultCiphers(false));
    EXPECT_EQ(NamesOf("MACs"), DefaultAlgorithms(AlgorithmKind::MAC));
}

TEST(StandardTables, ServersAreThoseTested) {
    EXPECT_NE(Document().find(standard_servers::TABLE), std::string::npos);
    EXPECT_NE(Document().find(standard_servers::REASONS), std::string::npos);
}
