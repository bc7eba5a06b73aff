#include <algorithm>
#include <sstream>

#include "command-line/Documents.h"

namespace opal::tools {
namespace {

std::string Identifier(std::string name) {
    std::replace(name.begin(), name.end(), '-', '_');
    return "_" + name;
}

std::string Quote(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? "'\\''" : std::string(1, c);
    return quoted + "'";
}

/// What stands in the brackets of one option's line for zsh.
std::string Escape(const std::string& text) {
    std::string escaped;
    for (const char c : text)
        escaped += (c == '[' || c == ']' || c == ':' || c == '\\' ? "\\" : "") + std::string(1, c);
    return escaped;
}

std::string BashAction(const OptionRow& row) {
    if (!row.Choices().empty())
        return "mapfile -t COMPREPLY < <(compgen -W '" + Join(row.Choices(), " ") +
               "' -- \"$word\")";
    if (row.value == "FILE" || row.value == "FOLDER")
        return std::string("compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen ") +
               (row.value == "FILE" ? "-f" : "-d") + " -- \"$word\")";
    return ":";
}

std::string ZshAction(const OptionRow& row) {
    if (!row.Choices().empty())
        return "(" + Join(row.Choices(), " ") + ")";
    return row.value == "FILE" ? "_files" : row.value == "FOLDER" ? "_files -/" : " ";
}

std::string FishArguments(const OptionRow& row) {
    if (!row.Choices().empty())
        return " -x -a " + Quote(Join(row.Choices(), " "));
    if (row.value == "FOLDER")
        return " -x -a '(__fish_complete_directories)'";
    if (row.value == "FILE")
        return " -r -F";
    return row.positional ? " -f" : row.value.empty() ? "" : " -x";
}

}  // namespace

std::string BashCompletion(const ToolTable& table) {
    std::vector<std::string> names;
    std::string positional = ":";
    std::ostringstream cases;
    for (const OptionRow& row : table.options) {
        if (row.positional) {
            positional = BashAction(row);
            continue;
        }
        names.insert(names.end(), row.names.begin(), row.names.end());
        if (!row.value.empty())
            cases << "        " << Join(row.names, " | ") << ")\n            " << BashAction(row)
                  << "\n            return ;;\n";
    }
    std::ostringstream out;
    out << "# bash completion of " << table.name << "; generated\n"
        << Identifier(table.name) << "() {\n"
        << "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
        << "    # --option=value comes as three words.\n"
        << "    [[ $before == = ]] && before=${COMP_WORDS[COMP_CWORD - 2]}\n"
        << "    [[ $word == = ]] && word=\n"
        << "    COMPREPLY=()\n"
        << "    case $before in\n"
        << cases.str() << "    esac\n"
        << "    if [[ $word == -* ]]; then\n"
        << "        mapfile -t COMPREPLY < <(compgen -W '" << Join(names, " ")
        << "' -- \"$word\")\n"
        << "    else\n        " << positional << "\n    fi\n}\n"
        << "complete -F " << Identifier(table.name) << " " << table.name << "\n";
    return out.str();
}

std::string ZshCompletion(const ToolTable& table) {
    std::ostringstream out;
    out << "#compdef " << table.name << "\n_arguments -s";
    for (const OptionRow& row : table.options) {
        const std::string often = row.repeats ? "*" : "";
        if (row.positional) {
            out << " \\\n  " << Quote(often + ":" + row.names[0] + ":" + ZshAction(row));
            continue;
        }
        const std::string value = row.value.empty() ? "" : ":" + row.value + ":" + ZshAction(row);
        for (const std::string& name : row.names) {
            const std::string assigned = value.empty() ? "" : name[1] == '-' ? "=" : "+";
            out << " \\\n  "
                << Quote(often + name + assigned + "[" + Escape(row.description) + "]" + value);
        }
    }
    out << "\n";
    return out.str();
}

std::string FishCompletion(const ToolTable& table) {
    std::ostringstream out;
    for (const OptionRow& row : table.options) {
        out << "complete -c " << table.name;
        for (const std::string& name : row.names) {
            if (!row.positional)
                out << (name[1] == '-' ? " -l " + name.substr(2) : " -s " + name.substr(1));
        }
        if (!row.positional)
            out << " -d " << Quote(row.description);
        out << FishArguments(row) << "\n";
    }
    return out.str();
}

}  // namespace opal::tools
