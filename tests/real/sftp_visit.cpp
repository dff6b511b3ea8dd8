#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "real/sftp_visit.h"

using namespace cindral;

namespace {

void Check(int result, std::string const& path) {
    if (result != 0) throw std::system_error(errno, std::generic_category(), path);
}

} // namespace

Visit::Visit(SftpPeer const& peer)
    : SftpClientSession(peer.server.Port(), peer.server.Host().c_str()), _peer(peer) {
    umask(022);
    GiveToAccount(_there.Path());
    EnterPassword enter(0, "");
    KbdCopyCallback callback("");
    if (Connect(20) != 0 || KeyExchange() != 0 ||
        Authenticate(peer.server.File("user_rsa").c_str(), peer.server.User().c_str(), "", enter, callback) !=
            0)
        throw std::runtime_error("no login");
    for (unsigned int packets = peer.unsolicited; packets > 0; --packets) AuthReadPacket();
    if (Start() != 0 || Cd(status, _there.Path().c_str()) != 0 || LCd(_here.Path().c_str()) != 0)
        throw std::runtime_error("no SFTP");
}

void Visit::GiveToAccount(std::string const& path) const {
    Check(lchown(path.c_str(), _peer.uid, _peer.gid), path);
}

void Visit::MakeThere(std::string const& name, std::string const& content, mode_t mode) const {
    servers::WriteFile(There(name), content, mode);
    GiveToAccount(There(name));
}

void Visit::MakeHere(std::string const& name, std::string const& content, mode_t mode) const {
    servers::WriteFile(Here(name), content, mode);
}

void Visit::MakeDirectoryThere(std::string const& name) const {
    std::filesystem::create_directory(There(name));
    GiveToAccount(There(name));
}

void Visit::MakeLinkThere(std::string const& target, std::string const& name) const {
    std::filesystem::create_symlink(target, There(name));
    GiveToAccount(There(name));
}

SftpFileHandle Visit::OpenThere(std::string const& name, unsigned int flags) {
    SftpFileHandle const handle = Client().Open(status, There(name).c_str(), flags, SftpFileAttr());
    if (handle._bytes.Length() == 0) throw std::runtime_error(There(name) + " can't be opened");
    return handle;
}

struct stat OnDisk(std::string const& path) {
    struct stat file;
    Check(lstat(path.c_str(), &file), path);
    return file;
}

mode_t ModeOf(std::string const& path) { return OnDisk(path).st_mode & 07777; }

bool Exists(std::string const& path) {
    struct stat file;
    return lstat(path.c_str(), &file) == 0;
}

std::vector<std::string> Texts(TOList<String_t> const& names) {
    std::vector<std::string> texts;
    TOListIterator<String_t> next(names);
    while (String_t const* const name = next()) texts.push_back(name->Text());
    return texts;
}

TOList<String_t> Names(std::vector<std::string> const& texts) {
    TOList<String_t> names;
    for (std::string const& text : texts) names.Append(text.c_str());
    return names;
}
