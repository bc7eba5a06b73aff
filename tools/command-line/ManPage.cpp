#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <sstream>

#include "Common/OPALVersion.h"
#include "command-line/Documents.h"

namespace opal::tools {
namespace {

/// So that roff prints it as it is, wherever a line begins.
std::string Escape(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        const bool lineBegins = escaped.empty() || escaped.back() == '\n';
        if (lineBegins && (c == '.' || c == '\''))
            escaped += "\\&";
        if (c == '\\')
            escaped += "\\e";
        else if (c == '-')
            escaped += "\\-";
        else
            escaped += c;
    }
    return escaped;
}

std::string Bold(const std::string& text) {
    return "\\fB" + Escape(text) + "\\fR";
}
std::string Italic(const std::string& text) {
    return "\\fI" + Escape(text) + "\\fR";
}

/// What stood behind a title's colon stands for itself.
std::string Sentence(std::string text) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text;
}

std::string Today() {
    const char* epoch = std::getenv("SOURCE_DATE_EPOCH");
    const std::time_t now = epoch ? std::atoll(epoch) : std::time(nullptr);
    std::tm parts = {};
    char text[32] = "";
    gmtime_r(&now, &parts);
    (void)std::strftime(text, sizeof(text), "%Y-%m-%d", &parts);
    return text;
}

void WriteSynopsis(std::ostream& out, const ToolTable& table) {
    out << ".SH SYNOPSIS\n" << Bold(table.name) << " [" << Italic("OPTION") << "]...";
    for (const OptionRow& row : table.options) {
        if (row.positional)
            out << (row.required ? " " : " [") << Italic(row.names[0]) << (row.required ? "" : "]")
                << (row.repeats ? "..." : "");
    }
    out << "\n";
}

void WriteOption(std::ostream& out, const OptionRow& row) {
    std::vector<std::string> names;
    for (const std::string& name : row.names)
        names.push_back(row.positional ? Italic(name) : Bold(name));
    out << ".TP\n" << Join(names, ", ");
    if (!row.positional && !row.value.empty())
        out << " " << Italic(row.value);
    out << "\n" << Escape(row.description) << ".\n";
}

void WriteParagraph(std::ostream& out, const Paragraph& paragraph) {
    std::string title = paragraph.title;
    std::transform(title.begin(), title.end(), title.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    bool first = !title.empty();
    if (first)
        out << ".SH " << Escape(title) << "\n";
    for (const TextBlock& block : paragraph.blocks) {
        if (block.text.empty())
            continue;
        out << (first ? "" : ".PP\n");
        first = false;
        if (block.literal)
            out << ".EX\n" << Escape(block.text) << "\n.EE\n";
        else
            out << Escape(Sentence(block.text)) << "\n";
    }
}

}  // namespace

std::string ManPage(const ToolTable& table, const std::vector<std::string>& others) {
    std::string whatis = table.description.substr(0, table.description.find('.'));
    whatis[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(whatis[0])));
    std::string upper = table.name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    std::ostringstream out;
    out << ".TH " << Escape(upper) << " 1 " << Today()
        << " \"libOPAL " OPAL_VERSION_TEXT "\" \"User Commands\"\n"
        << ".SH NAME\n"
        << Escape(table.name) << " \\- " << Escape(whatis) << "\n";
    WriteSynopsis(out, table);
    out << ".SH DESCRIPTION\n" << Escape(table.description) << "\n.SH OPTIONS\n";
    for (const OptionRow& row : table.options)
        WriteOption(out, row);
    for (const Paragraph& paragraph : table.footer)
        WriteParagraph(out, paragraph);
    std::vector<std::string> references;
    for (const std::string& other : others) {
        if (other != table.name)
            references.push_back(Bold(other) + "(1)");
    }
    if (!references.empty())
        out << ".SH SEE ALSO\n" << Join(references, ",\n") << "\n";
    return out.str();
}

}  // namespace opal::tools
