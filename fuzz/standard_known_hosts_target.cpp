// A known_hosts file, read by the standard dialect.
//
// A key that no line can hold must never match, and the verdict on a readable file is one of five.

#include <string>
#include <vector>

#include "finding.h"
#include "memory_file.h"
#include "standard/known_hosts_file.h"

using cindral::standard::Bytes;
using cindral::standard::KnownHostsFile;
using cindral::standard::View;
using cindral::standard::Writer;
using fuzz::Require;

namespace {

constexpr unsigned short PORTS[] = {22, 2222};
std::string const UNLIKELY(4096, '~');

Bytes Key(std::string const& body) { return Writer().String("ssh-ed25519").String(body).Take(); }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static Bytes const unlikely = Key(UNLIKELY);
    static Bytes const likely = Key(std::string(32, 'A'));
    int const file = fuzz::MemoryFile(std::string(reinterpret_cast<char const*>(data), size));
    KnownHostsFile const hosts({"/proc/self/fd/" + std::to_string(file)});
    for (unsigned short const port : PORTS) {
        KnownHostsFile::Finding const finding = hosts.Lookup("host.example.org", port, "10.0.0.1", unlikely);
        bool const isChanged = finding.verdict == KnownHostsFile::CHANGED;
        bool const isDamaged = finding.verdict == KnownHostsFile::DAMAGED;
        Require(finding.verdict == KnownHostsFile::UNKNOWN || isChanged || isDamaged, "Lookup",
                "knows a key that is not there");
        Require((finding.line > 0) == (isChanged || isDamaged), "Lookup", "names the wrong line");
        bool const known = !hosts.KnownAlgorithms("host.example.org", port).empty();
        Require(known || !isChanged, "KnownAlgorithms", "lacks a key that counts");
        hosts.Lookup("host.example.org", port, "", likely).Text("host.example.org");
    }
    return 0;
}
