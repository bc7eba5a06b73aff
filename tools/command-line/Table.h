#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace opal::tools {

/// An option or a positional argument, as CLI11 knows it.
struct OptionRow {
    std::vector<std::string> names;  ///< "-o", "--output"; of a positional one, "INPUT"
    std::string value;               ///< "FILE", "a|b"; empty for a flag
    std::string description;         ///< with default and relations
    bool positional = false;
    bool required = false;
    bool repeats = false;

    /// The words of "a|b"; empty for any other value.
    std::vector<std::string> Choices() const;
};

/// Text to be filled, or lines that stay as they are.
struct TextBlock {
    bool literal = false;
    std::string text;
};

struct Paragraph {
    std::string title;  ///< may be empty
    std::vector<TextBlock> blocks;
};

/// What a tool's help, man page and completions are made of.
struct ToolTable {
    std::string name;
    std::string description;
    std::vector<OptionRow> options;  ///< positionals first, help and version last
    std::vector<Paragraph> footer;
};

ToolTable ReadTable(const CLI::App& app);

/// What stands on the command line for it: "-o, --output FOLDER", "INPUT".
std::string Synopsis(const OptionRow& row);

/// `pieces` with `between` between them.
std::string Join(const std::vector<std::string>& pieces, const std::string& between);

}  // namespace opal::tools
