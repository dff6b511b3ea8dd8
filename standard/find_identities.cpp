#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

#include <brantle/cindral/exceptions.h>
#include <brantle/thornel/pathname.h>
#include <brantle/thornel/text.h>

#include "standard/find_identities.h"
#include "standard/known_hosts_line.h"
#include "standard/printable.h"
#include "standard/private_key_file.h"
#include "standard/signature_scheme.h"

namespace cindral::standard {

namespace {

constexpr std::size_t MAX_PUBLIC_FILE = 0x10000;

/// Returns the passphrase given, then the one preset in the user's object, then what the user enters.
class Passphrases : public EnterPassword {
public:
    Passphrases(View given, EnterPassword& user, std::string const& file)
        : EnterPassword(user._tries, ""), _given(given), _user(user) {
        _user.SetPrompt("Enter passphrase for", file.c_str());
        _tries += (given.empty() ? 0 : 1) + (_user.HasPreset() ? 1 : 0);
    }

    int operator()(char* buffer, unsigned int size) override {
        if (!_given.empty()) return Store(std::exchange(_given, View()), buffer, size);
        if (_user.HasPreset()) return Store(_user.UsePreset().Text(), buffer, size);
        return _user(buffer, size);
    }

private:
    static int Store(View secret, char* buffer, unsigned int size) {
        std::size_t const length = std::min<std::size_t>(secret.size(), size);
        std::memcpy(buffer, secret.data(), length);
        return static_cast<int>(length);
    }

    View _given;
    EnterPassword& _user;
};

/// A key in a file.
class FileIdentity : public Identity {
public:
    FileIdentity(std::string const& path, View passphrase, EnterPassword& enter)
        : Identity(Bytes(), path), _file(path), _passphrase(passphrase), _enter(enter) {}

    /// As PrivateKeyFile::Open.
    int Open() {
        int const result = _file.Open();
        _blob = _file.KeyBlob();
        return result;
    }

    bool IsUnlocked() const override { return _file.IsLoaded(); }
    bool Unlock(std::string& reason) override {
        if (IsUnlocked()) return true;
        Passphrases passphrases(_passphrase, _enter, _name);
        int const result = _file.Load(passphrases);
        if (result < 0) reason = PrivateKeyFile::Describe(result);
        _blob = _file.KeyBlob();
        return result == 0;
    }
    bool Sign(std::string const& algorithm, View data, Bytes& signature, std::string& reason) override {
        if (!Unlock(reason)) return false;
        try {
            signature = standard::Sign(algorithm, _file.Key(), data);
            return true;
        } catch (CryptoException const& error) {
            reason = error.what();
            return false;
        }
    }

private:
    PrivateKeyFile _file;
    View _passphrase;
    EnterPassword& _enter;
};

/// A key that the agent holds, and perhaps a file.
class AgentIdentity : public Identity {
public:
    AgentIdentity(std::shared_ptr<AgentClient> agent, Bytes blob, std::string name,
                  std::unique_ptr<FileIdentity> file = nullptr)
        : Identity(std::move(blob), std::move(name)), _agent(std::move(agent)), _file(std::move(file)) {}

    bool Unlock(std::string&) override { return true; }
    bool Sign(std::string const& algorithm, View data, Bytes& signature, std::string& reason) override {
        if (SignByAgent(algorithm, data, signature, reason)) return true;
        std::string fileReason;
        if (!_file) return false;
        if (_file->Sign(algorithm, data, signature, fileReason)) return true;
        reason += "; the file: " + fileReason;
        return false;
    }

private:
    bool SignByAgent(std::string const& algorithm, View data, Bytes& signature, std::string& reason) {
        unsigned int const flags = algorithm == "rsa-sha2-512"   ? AgentClient::RSA_SHA2_512
                                   : algorithm == "rsa-sha2-256" ? AgentClient::RSA_SHA2_256
                                                                 : 0;
        if (!_agent->Sign(_blob, data, flags, signature)) {
            reason = _agent->Error();
            return false;
        }
        // An agent that does not know the flags signs with SHA-1. A signature blob begins like a key blob.
        if (KeyTypeOf(signature) == algorithm) return true;
        reason = "the agent does not sign with " + algorithm;
        return false;
    }

    std::shared_ptr<AgentClient> _agent;
    std::unique_ptr<FileIdentity> _file;
};

/// The key in a ".pub" file, a line "type base64 comment"; empty if there is none.
Bytes ReadPublicKey(std::string const& path) {
    std::ifstream file(path);
    std::string text(MAX_PUBLIC_FILE, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    // The line has the format of known_hosts without the hosts.
    std::string const line = "* " + text.substr(0, text.find('\n'));
    KnownHostsLine parsed;
    Bytes blob;
    return parsed.Parse(line) && parsed.DecodeKey(blob) ? blob : Bytes();
}

std::vector<std::string> DefaultFiles() {
    Pathname const home = Pathname::Home();
    std::vector<std::string> files;
    if (str_empty(home.Text())) return files;
    for (char const* name : {"id_ed25519", "id_ecdsa", "id_rsa"})
        files.push_back(home.Text() + std::string("/.ssh/") + name);
    return files;
}

/// Collects the identities.
class Finder {
public:
    Finder(std::shared_ptr<AgentClient> const& agent, std::vector<std::string>& notes)
        : _agent(agent), _keys(agent->List()), _notes(notes) {
        if (!agent->Error().empty()) notes.push_back("agent: " + Printable(agent->Error()));
    }

    /// Adds the key of the file if the agent holds it; otherwise AddFiles adds it later.
    void Consider(std::string const& path, View passphrase, EnterPassword& enter, bool mayBeMissing) {
        auto file = std::make_unique<FileIdentity>(path, passphrase, enter);
        int const result = file->Open();
        Bytes const blob = result == 0 ? file->Blob() : PublicHalf(path);
        if (result < 0) file.reset();
        if (!blob.empty() && TakeKey(blob)) {
            _found.push_back(std::make_unique<AgentIdentity>(_agent, blob, path, std::move(file)));
        } else if (file) {
            _files.push_back(std::move(file));
        } else if (result != -ENOENT || !mayBeMissing) {
            _notes.push_back(path + ": " + PrivateKeyFile::Describe(result));
        }
    }
    void AddFiles() {
        for (std::unique_ptr<FileIdentity>& file : _files) _found.push_back(std::move(file));
        _files.clear();
    }
    void AddKeys() {
        while (!_keys.empty()) {
            AgentClient::Identity const key = _keys.front();
            TakeKey(key.blob);
            std::string const name = "agent's key " + Printable(key.comment);
            _found.push_back(std::make_unique<AgentIdentity>(_agent, key.blob, name));
        }
    }
    Identities Take() { return std::move(_found); }

private:
    static Bytes PublicHalf(std::string const& path) {
        Bytes const blob = ReadPublicKey(path);
        return blob.empty() ? ReadPublicKey(path + ".pub") : blob;
    }

    /// Whether the agent holds the key, which is then removed from `_keys`.
    bool TakeKey(Bytes const& blob) {
        auto const isKey = [&](AgentClient::Identity const& key) { return key.blob == blob; };
        auto const taken = std::remove_if(_keys.begin(), _keys.end(), isKey);
        bool const found = taken != _keys.end();
        _keys.erase(taken, _keys.end());
        return found;
    }

    std::shared_ptr<AgentClient> const& _agent;
    std::vector<AgentClient::Identity> _keys; ///< those of the agent that are not in use yet
    std::vector<std::string>& _notes;
    std::vector<std::unique_ptr<FileIdentity>> _files;
    Identities _found;
};

} // namespace

Identities FindIdentities(std::string const& file, std::shared_ptr<AgentClient> const& agent, View passphrase,
                          EnterPassword& enter, std::vector<std::string>& notes) {
    Finder finder(agent, notes);
    if (!file.empty()) {
        finder.Consider(file, passphrase, enter, false);
        finder.AddFiles();
    } else {
        for (std::string const& path : DefaultFiles()) finder.Consider(path, passphrase, enter, true);
    }
    finder.AddKeys();
    finder.AddFiles();
    return finder.Take();
}

} // namespace cindral::standard
