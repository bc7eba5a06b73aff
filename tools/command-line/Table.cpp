#include "command-line/Table.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>

namespace opal::tools {
namespace {

std::string ValueName(const CLI::Option& option) {
    if (option.get_type_size() == 0)
        return "";
    const std::string type = option.get_type_name();
    const std::string name = type.substr(0, type.find(':'));  // behind it: what checks the value
    return name == "INT" || name == "UINT" || name == "FLOAT" ? "N" : name;
}

/// In alphabetical order: CLI11's own is that of addresses.
std::string Names(const std::set<CLI::Option*>& options) {
    std::vector<std::string> names;
    for (const CLI::Option* option : options)
        names.push_back(option->get_name());
    std::sort(names.begin(), names.end());
    return Join(names, ", ");
}

std::string Describe(const CLI::Option& option) {
    std::vector<std::string> notes;
    if (!option.get_default_str().empty())
        notes.push_back(option.get_default_str() + " by default");
    if (!option.get_needs().empty())
        notes.push_back("needs " + Names(option.get_needs()));
    if (!option.get_excludes().empty())
        notes.push_back("not with " + Names(option.get_excludes()));
    return option.get_description() + (notes.empty() ? "" : " (" + Join(notes, "; ") + ")");
}

OptionRow ReadOption(const CLI::Option& option) {
    OptionRow row;
    row.positional = option.get_positional();
    if (row.positional)
        row.names.push_back(option.get_name(true));
    for (const std::string& name : option.get_snames())
        row.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        row.names.push_back("--" + name);
    row.value = ValueName(option);
    row.description = Describe(option);
    row.required = option.get_required();
    row.repeats = option.get_items_expected_max() >= CLI::detail::expected_max_vector_size;
    return row;
}

/// The options of the groups that `app` has are its own too.
void AddOptions(const CLI::App& app, std::vector<const CLI::Option*>& options) {
    const auto shown =
        app.get_options([](const CLI::Option* option) { return !option->get_group().empty(); });
    options.insert(options.end(), shown.begin(), shown.end());
    for (const CLI::App* group : app.get_subcommands({}))
        AddOptions(*group, options);
}

/// Takes the title off; the text keeps what stands behind the colon.
std::string TakeTitle(std::string& text) {
    const size_t colon = text.find(':');
    const std::string title = text.substr(0, colon);
    if (colon == std::string::npos || std::isupper(static_cast<unsigned char>(title[0])) == 0 ||
        std::count(title.begin(), title.end(), ' ') > 1)
        return "";
    text.erase(0, text.find_first_not_of(' ', colon + 1));
    return title;
}

std::vector<Paragraph> ReadFooter(const std::string& footer) {
    std::vector<Paragraph> paragraphs(1);
    std::istringstream lines(footer);
    for (std::string line; std::getline(lines, line);) {
        Paragraph& paragraph = paragraphs.back();
        if (line.empty()) {
            paragraphs.emplace_back();
            continue;
        }
        const bool literal = line[0] == ' ';
        if (paragraph.blocks.empty() && !literal)
            paragraph.title = TakeTitle(line);
        if (paragraph.blocks.empty() || paragraph.blocks.back().literal != literal)
            paragraph.blocks.push_back({literal, line});
        else
            paragraph.blocks.back().text += (literal ? "\n" : " ") + line;
    }
    return paragraphs;
}

}  // namespace

std::string Join(const std::vector<std::string>& pieces, const std::string& between) {
    std::string text;
    for (const std::string& piece : pieces)
        text += (text.empty() ? "" : between) + piece;
    return text;
}

std::vector<std::string> OptionRow::Choices() const {
    std::vector<std::string> words;
    std::istringstream parts(value);
    for (std::string word; std::getline(parts, word, '|');)
        words.push_back(word);
    return words.size() > 1 ? words : std::vector<std::string>();
}

std::string Synopsis(const OptionRow& row) {
    return Join(row.names, ", ") + (row.positional || row.value.empty() ? "" : " " + row.value);
}

ToolTable ReadTable(const CLI::App& app) {
    ToolTable table;
    table.name = app.get_name();
    table.description = app.get_description();
    table.footer = ReadFooter(app.get_footer());
    const auto rank = [&app](const CLI::Option* option) {
        const bool help = option == app.get_help_ptr() || option == app.get_help_all_ptr() ||
                          option == app.get_version_ptr();
        return option->get_positional() ? 0 : help ? 2 : 1;
    };
    std::vector<const CLI::Option*> options;
    AddOptions(app, options);
    std::stable_sort(options.begin(), options.end(),
                     [&](const auto* a, const auto* b) { return rank(a) < rank(b); });
    for (const CLI::Option* option : options)
        table.options.push_back(ReadOption(*option));
    return table;
}

}  // namespace opal::tools
