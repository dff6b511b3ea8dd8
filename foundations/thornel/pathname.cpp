#include <brantle/thornel/pathname.h>

#include <glob.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <brantle/thornel/text.h>

#include "passwd_entry.h"

namespace {

/// The text of a path, empty for a null pointer.
std::string_view View(String_t const& path) { return str_text(path.Text()); }

String_t ToString(std::string_view text) {
    return String_t(text.data(), static_cast<unsigned int>(text.size()));
}

/// A path split before its last component.
struct Cut {
    std::string_view _dir;  ///< without separators at its end, except for "/"
    std::string_view _leaf; ///< without separators
};

Cut CutLeaf(std::string_view path) {
    std::size_t const end = path.find_last_not_of('/');
    if (end == std::string_view::npos) return {};
    path = path.substr(0, end + 1);
    std::size_t const slash = path.find_last_of('/');
    if (slash == std::string_view::npos) return {{}, path};
    std::size_t const dirEnd = path.find_last_not_of('/', slash);
    return {dirEnd == std::string_view::npos ? path.substr(0, 1) : path.substr(0, dirEnd + 1),
            path.substr(slash + 1)};
}

/// The components that remain of a path when "." and ".." are resolved in the text.
std::vector<std::string_view> Resolve(std::string_view path, bool absolute) {
    std::vector<std::string_view> components;
    while (!path.empty()) {
        std::size_t const end = std::min(path.find('/'), path.size());
        std::string_view const component = path.substr(0, end);
        path.remove_prefix(std::min(end + 1, path.size()));
        if (component.empty() || component == ".") continue;
        bool const canGoUp = !components.empty() && components.back() != "..";
        if (component != ".." || (!canGoUp && !absolute))
            components.push_back(component);
        else if (canGoUp)
            components.pop_back();
    }
    return components;
}

} // namespace

Pathname Pathname::Home() {
    if (char const* const home = std::getenv("HOME"); !str_empty(home)) return home;
    PasswdEntry entry;
    entry.Read(getuid());
    return entry.Found() ? Pathname(entry.Home()) : Pathname();
}

Pathname Pathname::Cwd() {
    std::vector<char> buffer(256);
    while (!getcwd(buffer.data(), buffer.size())) {
        if (errno != ERANGE) return Pathname();
        buffer.resize(buffer.size() * 2);
    }
    return buffer.data();
}

Pathname& Pathname::Append(char const* component) {
    if (str_empty(component)) return *this;
    std::string path(View(*this));
    if (!path.empty()) {
        if (path.back() != '/') path += '/';
        component += std::strspn(component, "/");
    }
    return *this = (path + component).c_str();
}

Pathname& Pathname::Insert(char const* directory) {
    if (str_empty(directory)) return *this;
    return *this = Pathname(directory).Append(Text());
}

Pathname& Pathname::Collapse() {
    std::string_view const path = View(*this);
    if (path.empty()) return *this;
    std::string collapsed;
    for (std::string_view const component : Resolve(path, IsAbs())) {
        if (IsAbs() || !collapsed.empty()) collapsed += '/';
        collapsed += component;
    }
    if (collapsed.empty()) collapsed = IsAbs() ? "/" : ".";
    return *this = collapsed.c_str();
}

Pathname& Pathname::Abs() { return IsAbs() ? *this : Insert(Cwd().Text()); }

bool Pathname::IsAbs() const { return View(*this).substr(0, 1) == "/"; }

Pathname Pathname::Dir() const { return ToString(CutLeaf(View(*this))._dir); }

String_t Pathname::Leaf(char const* suffix) const {
    std::string_view leaf = CutLeaf(View(*this))._leaf;
    std::string_view const tail = suffix ? suffix : "";
    if (leaf.size() > tail.size() && leaf.substr(leaf.size() - tail.size()) == tail)
        leaf.remove_suffix(tail.size());
    return ToString(leaf);
}

Pathname& Pathname::ChExt(char const* extension) {
    std::string_view const leaf = CutLeaf(View(*this))._leaf;
    if (leaf.empty()) return *this;
    std::size_t const dot = leaf.find_last_of('.');
    std::string_view const stem = dot == 0 ? leaf : leaf.substr(0, dot);
    std::string path(View(*this).substr(0, static_cast<std::size_t>(stem.data() - Text()) + stem.size()));
    if (extension) path += extension;
    return *this = path.c_str();
}

int Pathname::Glob(Pathname const& pattern, int flags, TOList<String_t>& list) {
    struct Names : glob_t {
        Names() : glob_t{} {}
        ~Names() { globfree(this); }
    } names;
    int const ownFlags = GLOB_APPEND | GLOB_DOOFFS | GLOB_NOCHECK;
    int const result = glob(str_text(pattern.Text()), flags & ~ownFlags, nullptr, &names);
    if (result == GLOB_NOMATCH) return 0;
    if (result != 0) return -1;
    for (std::size_t i = 0; i < names.gl_pathc; ++i) list.Append(names.gl_pathv[i]);
    return static_cast<int>(names.gl_pathc);
}
