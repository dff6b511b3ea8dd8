#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <openssl/evp.h>

#include <brantle/thornel/descriptor_io.h>
#include <brantle/thornel/file_descriptor.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/text.h>

#include "standard/known_hosts_file.h"
#include "standard/known_hosts_line.h"
#include "standard/signature_scheme.h"

namespace cindral::standard {

namespace {

constexpr unsigned short DEFAULT_PORT = 22;
constexpr std::size_t MAX_LINE = 1 << 20;
char const SYSTEM_FILE[] = "/etc/ssh/ssh_known_hosts";

/// Reads the lines of a file one by one, with bounded memory.
class LineReader {
public:
    /// Returns 0 or minus errno.
    int Open(std::string const& path) {
        if (path.empty()) return -ENOTDIR;
        // Without O_NONBLOCK, opening a FIFO would block until there is a writer.
        _fd._fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        struct stat status{};
        if (_fd < 0 || fstat(_fd, &status) != 0) return -errno;
        if (S_ISFIFO(status.st_mode)) return -EINVAL;
        _io.Set(_fd);
        return 0;
    }

    /// Returns 1 for a line, which is valid until the next call, 0 at the end, or minus errno.
    int Next(std::string_view& line) {
        _buffer.erase(0, _used);
        for (std::size_t searched = 0;;) {
            std::size_t const end = _buffer.find('\n', searched);
            if (end != std::string::npos) return Give(end, end + 1, line);
            if (_atEnd) return _buffer.empty() ? 0 : Give(_buffer.size(), _buffer.size(), line);
            searched = _buffer.size();
            if (searched > MAX_LINE) return -EFBIG;
            if (int const result = ReadMore(); result < 0) return result;
        }
    }

private:
    int Give(std::size_t size, std::size_t used, std::string_view& line) {
        if (size > MAX_LINE) return -EFBIG;
        line = std::string_view(_buffer).substr(0, size);
        _used = used;
        return 1;
    }

    int ReadMore() {
        char chunk[4096];
        int const size = _io.Read(chunk, sizeof chunk, 0);
        if (size < 0) return -errno;
        _atEnd = size == 0;
        _buffer.append(chunk, static_cast<std::size_t>(size));
        return 0;
    }

    FileDescriptor _fd;
    DescriptorIO _io;
    std::string _buffer;
    std::size_t _used = 0; ///< bytes at the front of the buffer that belong to the previous line
    bool _atEnd = false;
};

std::string CanonicalName(std::string const& host, unsigned short port) {
    return host[0] == '[' ? host : "[" + host + "]:" + std::to_string(port);
}

/// The name of a host at a port: its plain name at the default port.
HostName NameOf(std::string const& host, unsigned short port) {
    if (host.empty()) return {};
    std::string const canonical = LowerCase(CanonicalName(host, port));
    return port == DEFAULT_PORT ? HostName{LowerCase(host), canonical} : HostName{canonical, ""};
}

/// The names of the host that is looked up, by the effect that a line for them may have.
struct Target {
    Target(std::string const& host, unsigned short port, std::string const& ip)
        : known(NameOf(host, port)), address(NameOf(ip, port)) {
        if (port != DEFAULT_PORT) withoutPort = NameOf(host, DEFAULT_PORT);
    }

    HostName known;
    HostName withoutPort;
    HostName address;
};

/// A line that matches the target.
struct Entry {
    enum Scope { KNOWN, WITHOUT_PORT, ADDRESS };

    Scope scope;
    bool revoked;
    bool damaged; ///< the blob has no meaning
    View blob;
    std::string const& file;
    unsigned long line;
};

bool FindScope(KnownHostsLine const& line, Target const& target, Entry::Scope& scope) {
    if (line.IsFor(target.known))
        scope = Entry::KNOWN;
    else if (line.IsFor(target.withoutPort))
        scope = Entry::WITHOUT_PORT;
    else if (line.IsFor(target.address))
        scope = Entry::ADDRESS;
    else
        return false;
    return true;
}

/// Calls `visit` with each entry of the file. Returns the verdict UNREADABLE and the reason if there is one.
template <class Visit>
KnownHostsFile::Finding ForEachEntry(std::string const& file, Target const& target, Visit visit) {
    LineReader reader;
    int result = reader.Open(file);
    if (result == -ENOENT) return {};
    if (result < 0) return {KnownHostsFile::UNREADABLE, file, 0, "", -result};
    std::string_view text;
    unsigned long number = 1;
    for (; (result = reader.Next(text)) > 0; ++number) {
        KnownHostsLine line;
        Entry::Scope scope = Entry::KNOWN;
        Bytes blob;
        if (!line.Parse(text) || line.GetMarker() == KnownHostsLine::AUTHORITY) continue;
        if (!FindScope(line, target, scope)) continue;
        bool const damaged = !line.DecodeKey(blob);
        if (damaged && !line.IsDamaged()) continue;
        visit(Entry{scope, line.GetMarker() == KnownHostsLine::REVOKED, damaged, blob, file, number});
    }
    if (result == 0) return {};
    return {KnownHostsFile::UNREADABLE, file, result == -EFBIG ? number : 0, "", -result};
}

/// The verdict of all entries on one key.
class Judge {
public:
    explicit Judge(View blob) : _blob(blob) {}

    void Hear(Entry const& entry) {
        using File = KnownHostsFile;
        bool const same = !entry.damaged && entry.blob == _blob;
        if (entry.revoked) {
            // A damaged one may have been for this key.
            if (same || entry.damaged) Rule(same ? File::REVOKED : File::DAMAGED, same ? 5 : 4, entry);
        } else if (entry.scope == Entry::KNOWN) {
            if (same)
                Rule(File::MATCH, 3, entry);
            else
                Rule(entry.damaged ? File::DAMAGED : File::CHANGED, entry.damaged ? 1 : 2, entry);
        } else if (entry.scope == Entry::WITHOUT_PORT && same) {
            _withoutPort = Found(File::MATCH, entry);
        }
    }

    KnownHostsFile::Finding Ruling() const {
        return _finding.verdict == KnownHostsFile::UNKNOWN ? _withoutPort : _finding;
    }

private:
    static KnownHostsFile::Finding Found(KnownHostsFile::Verdict verdict, Entry const& entry) {
        return {verdict, entry.file, entry.line, KeyTypeOf(entry.blob), 0};
    }

    /// The strongest verdict is kept, with the first of its lines; among other keys, one of the same type
    /// takes precedence.
    void Rule(KnownHostsFile::Verdict verdict, int weight, Entry const& entry) {
        std::string const type = KeyTypeOf(_blob);
        bool const moreToThePoint = verdict == KnownHostsFile::CHANGED && verdict == _finding.verdict &&
                                    _finding.type != type && KeyTypeOf(entry.blob) == type;
        if (weight <= _weight && !moreToThePoint) return;
        _weight = weight;
        _finding = Found(verdict, entry);
    }

    View _blob;
    int _weight = 0; ///< of the finding's verdict
    KnownHostsFile::Finding _finding;
    KnownHostsFile::Finding _withoutPort;
};

std::vector<std::string> AlgorithmsOf(std::string_view type) {
    if (type == "ssh-rsa") return {"rsa-sha2-512", "rsa-sha2-256"};
    return {std::string(type)};
}

void AddMissing(std::vector<std::string>& list, std::vector<std::string> const& more) {
    for (std::string const& name : more)
        if (std::find(list.begin(), list.end(), name) == list.end()) list.push_back(name);
}

/// Whether the text can be written in a field of a line and is read back unchanged.
bool IsPlainField(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return c > ' ' && c != 0x7f && !std::strchr(",*?!|@#\"", c);
    });
}

/// Adds the line feed that the file's last line may lack. Returns 0 or minus errno.
int CompleteLastLine(int fd, std::string& text) {
    struct stat status{};
    if (fstat(fd, &status) != 0) return -errno;
    if (!S_ISREG(status.st_mode) || status.st_size == 0) return 0;
    char last = 0;
    ssize_t const size = pread(fd, &last, 1, status.st_size - 1);
    if (size < 0) return -errno;
    if (size == 1 && last != '\n') text.insert(0, 1, '\n');
    return 0;
}

} // namespace

KnownHostsFile::KnownHostsFile() {
    Pathname const home = Pathname::Home();
    if (str_empty(home.Text())) {
        _files = {""}; // can't be read, so that no key is accepted that could not be compared later
        return;
    }
    for (std::string const& file :
         {std::string(home.Text()) + "/.ssh/known_hosts", std::string(SYSTEM_FILE)}) {
        _files.push_back(file);
        _files.push_back(file + "2");
    }
}

KnownHostsFile::KnownHostsFile(std::vector<std::string> files) : _files(std::move(files)) {}

KnownHostsFile::Finding KnownHostsFile::Lookup(std::string const& host, unsigned short port,
                                               std::string const& address, View blob) const {
    Target const target(host, port, address);
    Judge judge(blob);
    for (std::string const& file : _files) {
        Finding const failure = ForEachEntry(file, target, [&](Entry const& entry) { judge.Hear(entry); });
        if (failure.verdict == UNREADABLE) return failure;
    }
    return judge.Ruling();
}

std::vector<std::string> KnownHostsFile::KnownAlgorithms(std::string const& host, unsigned short port) const {
    Target const target(host, port, "");
    std::vector<std::string> known, withoutPort;
    for (std::string const& file : _files) {
        Finding const failure = ForEachEntry(file, target, [&](Entry const& entry) {
            if (entry.revoked || entry.damaged) return;
            AddMissing(entry.scope == Entry::KNOWN ? known : withoutPort,
                       AlgorithmsOf(KeyTypeOf(entry.blob)));
        });
        if (failure.verdict == UNREADABLE) return {};
    }
    return known.empty() ? withoutPort : known;
}

int KnownHostsFile::Append(std::string const& host, unsigned short port, View blob) const {
    std::string const type = KeyTypeOf(blob);
    if (!IsPlainField(host) || !IsPlainField(type)) return -EINVAL;
    std::string text = port == DEFAULT_PORT ? host : CanonicalName(host, port);
    text.append(" ").append(type).append(" ").append(EncodeBase64(blob)).append("\n");

    std::string const& file = _files.front();
    std::size_t const slash = file.rfind('/');
    if (slash != std::string::npos && slash > 0 && mkdir(file.substr(0, slash).c_str(), 0700) != 0 &&
        errno != EEXIST)
        return -errno;
    FileDescriptor const fd(open(file.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600));
    if (fd < 0) return -errno;
    if (int const result = CompleteLastLine(fd, text); result < 0) return result;
    char const* from = text.data();
    return DescriptorIO(fd).Write(from, from + text.size(), 0) == 0 ? 0 : -errno;
}

std::string KnownHostsFile::Finding::Text(std::string const& host) const {
    std::string place = file;
    if (line > 0) place += ":" + std::to_string(line);
    switch (verdict) {
    case MATCH:
        return "the host key of " + host + " is known (" + place + ")";
    case UNKNOWN:
        return "the host key of " + host + " is not known";
    case CHANGED:
        return "the host key of " + host + " has changed: " + place + " has another " + type +
               " key; remove that line if you know why";
    case REVOKED:
        return "the host key of " + host + " is revoked (" + place + ")";
    case DAMAGED:
        return "the host key of " + host + " can't be compared: the key in " + place +
               " is damaged; correct or remove that line";
    case UNREADABLE:
        break;
    }
    if (file.empty()) return "the known hosts can't be read: there is no home directory";
    return "the known hosts can't be read (" + place + ": " + std::strerror(error) + ")";
}

std::string Fingerprint(View blob) {
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(blob.data(), blob.size(), hash, &size, EVP_sha256(), nullptr) != 1)
        throw OpenSSLError("EVP_Digest");
    std::string text = "SHA256:" + EncodeBase64(View(hash, size));
    text.resize(text.find_last_not_of('=') + 1);
    return text;
}

} // namespace cindral::standard
