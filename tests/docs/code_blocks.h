#ifndef BRANTLE_TESTS_DOCS_CODE_BLOCKS_H
#define BRANTLE_TESTS_DOCS_CODE_BLOCKS_H

#include <string>
#include <vector>

namespace docs {

/// A fenced block of a Markdown file.
struct CodeBlock {
    std::string file; ///< from the top of the tree
    std::string language;
    std::string text;
};

/// All fenced blocks of a file of this tree, in order.
std::vector<CodeBlock> CodeBlocksIn(std::string const& file);

/// The one block of that language that holds a certain text; throws std::runtime_error unless there is
/// exactly one.
std::string CodeBlockWith(std::string const& file, std::string const& language, std::string const& text);

/// The commands in all blocks marked "sh" of a file: their lines, without comments, continuations joined.
std::vector<std::string> CommandsIn(std::string const& file);

/// A text with each occurrence of another replaced; throws std::runtime_error if there is none.
std::string Replaced(std::string text, std::string const& from, std::string const& to);

} // namespace docs

#endif
