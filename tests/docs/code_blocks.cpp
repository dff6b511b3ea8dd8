#include <regex>
#include <sstream>
#include <stdexcept>

#include "docs/code_blocks.h"
#include "support/servers/process.h"

namespace docs {

namespace {

std::string const FENCE = "```";

bool BeginsWith(std::string const& text, std::string const& start) {
    return text.compare(0, start.size(), start) == 0;
}

} // namespace

std::vector<CodeBlock> CodeBlocksIn(std::string const& file) {
    std::istringstream lines(servers::ReadFile(BRANTLE_SOURCE_DIR "/" + file));
    std::vector<CodeBlock> blocks;
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (BeginsWith(line, FENCE)) {
            inside = !inside;
            if (inside) blocks.push_back({file, line.substr(FENCE.size()), {}});
        } else if (inside) {
            blocks.back().text += line + "\n";
        }
    }
    if (inside) throw std::runtime_error(file + ": a block without an end");
    return blocks;
}

std::string CodeBlockWith(std::string const& file, std::string const& language, std::string const& text) {
    std::vector<std::string> found;
    for (CodeBlock const& block : CodeBlocksIn(file))
        if (block.language == language && block.text.find(text) != std::string::npos)
            found.push_back(block.text);
    if (found.size() != 1)
        throw std::runtime_error(file + " has " + std::to_string(found.size()) + " blocks '" + language +
                                 "' with '" + text + "'");
    return found[0];
}

std::vector<std::string> CommandsIn(std::string const& file) {
    std::vector<std::string> commands;
    for (CodeBlock const& block : CodeBlocksIn(file)) {
        if (block.language != "sh") continue;
        std::istringstream lines(std::regex_replace(block.text, std::regex("\\\\\n *"), ""));
        for (std::string line; std::getline(lines, line);) {
            std::string const command = std::regex_replace(line, std::regex(" *(^| )#.*$"), "");
            if (!command.empty()) commands.push_back(command);
        }
    }
    return commands;
}

std::string Replaced(std::string text, std::string const& from, std::string const& to) {
    std::size_t at = text.find(from);
    if (at == std::string::npos) throw std::runtime_error("no '" + from + "' in:\n" + text);
    for (; at != std::string::npos; at = text.find(from, at + to.size())) text.replace(at, from.size(), to);
    return text;
}

} // namespace docs
