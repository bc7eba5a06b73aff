#include "command-line/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "Common/OPALVersion.h"
#include "command-line/Documents.h"

namespace opal::tools {
namespace {

constexpr size_t kWidth = 79;
constexpr size_t kColumn = 26;  // where the descriptions begin

/// The words of `text` in lines of kWidth, behind what already stands in the first `column`
/// columns; the other lines begin at `indent`. Ends with a line end.
std::string Fill(const std::string& text, size_t column, size_t indent) {
    std::string filled;
    std::istringstream words(text);
    bool first = true;
    for (std::string word; words >> word; first = false) {
        if (!first && column + 1 + word.size() > kWidth) {
            filled += "\n" + std::string(indent, ' ') + word;
            column = indent + word.size();
        } else {
            filled += (first ? "" : " ") + word;
            column += word.size() + (first ? 0 : 1);
        }
    }
    return filled + "\n";
}

std::string Line(const OptionRow& row) {
    std::string left = "  " + Synopsis(row);
    if (left.size() + 2 > kColumn)
        left += "\n" + std::string(kColumn, ' ');
    else
        left.resize(kColumn, ' ');
    return left + Fill(row.description, kColumn, kColumn);
}

std::string Text(const Paragraph& paragraph) {
    std::string text = paragraph.title.empty() ? "" : paragraph.title + ": ";
    std::string shown;
    for (const TextBlock& block : paragraph.blocks) {
        shown += block.literal ? block.text + "\n" : Fill(text + block.text, 0, 0);
        text.clear();
    }
    return shown;
}

std::string Usage(const ToolTable& table) {
    std::string usage = "Usage: " + table.name + " [OPTION]...";
    for (const OptionRow& row : table.options) {
        if (row.positional)
            usage += (row.required ? " " + row.names[0] : " [" + row.names[0] + "]") +
                     (row.repeats ? "..." : "");
    }
    return usage + "\n" + Fill(table.description, 0, 0) + "\n";
}

std::string WholeHelp(const ToolTable& table) {
    std::string help = Usage(table);
    for (const OptionRow& row : table.options)
        help += Line(row);
    for (const Paragraph& paragraph : table.footer)
        help += "\n" + Text(paragraph);
    return help;
}

std::string ShortHelp(const ToolTable& table, const std::vector<std::string>& everyday) {
    std::string help = Usage(table);
    for (const OptionRow& row : table.options) {
        const bool shown = std::any_of(row.names.begin(), row.names.end(), [&](const auto& name) {
            return std::find(everyday.begin(), everyday.end(), name) != everyday.end();
        });
        if (shown || row.positional)
            help += Line(row);
    }
    return help + "\n" + Text(table.footer.back()) + "All options and examples: " + table.name +
           " --help-all, or man " + table.name + ".\n";
}

void PrintDocument(const CLI::App& app, const std::vector<std::string>& words) {
    const ToolTable table = ReadTable(app);
    if (words[0] == "man")
        std::cout << ManPage(table, {words.begin() + 1, words.end()});
    else if (words[0] == "bash")
        std::cout << BashCompletion(table);
    else if (words[0] == "zsh")
        std::cout << ZshCompletion(table);
    else if (words[0] == "fish")
        std::cout << FishCompletion(table);
    else
        throw CLI::ValidationError("--print-document", "man, bash, zsh or fish");
    throw CLI::Success();
}

}  // namespace

void Prepare(CLI::App& app, const std::vector<std::string>& everyday) {
    app.set_version_flag("--version", app.get_name() + " " OPAL_VERSION_TEXT, "Print the version");
    app.set_help_flag("-h,--help", "Print the most used options");
    app.set_help_all_flag("--help-all", "Print all options");
    app.formatter_fn([everyday](const CLI::App* shown, std::string, CLI::AppFormatMode mode) {
        const ToolTable table = ReadTable(*shown);
        return mode == CLI::AppFormatMode::All ? WholeHelp(table) : ShortHelp(table, everyday);
    });
    app.add_option_function<std::vector<std::string>>(
           "--print-document",
           [&app](const std::vector<std::string>& words) { PrintDocument(app, words); }, "")
        ->group("");
}

int ExitOfParse(const CLI::App& app, const CLI::ParseError& error, int usage, int unwritten) {
    if (app.exit(error) != 0)
        return usage;
    if (std::cout.flush() && std::fflush(stdout) == 0)
        return 0;
    std::cerr << app.get_name() << ": standard output cannot be written" << std::endl;
    return unwritten;
}

}  // namespace opal::tools
