#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace opal::tools {

/// Gives a tool what all tools have: --version; a --help that fits a screen, with the options
/// `everyday` and the footer's last paragraph; --help-all, with all options and the whole footer.
/// Call it when every option is declared. The build makes man page and shell completions of the
/// same table, through the hidden option --print-document KIND [TOOL...].
///
/// A footer is paragraphs with an empty line between. Lines that begin with a blank stay as they
/// are, others are filled. A paragraph that begins with one or two words and a colon begins a
/// section of the man page. An option's type name tells what a shell may complete: FILE, FOLDER, or
/// words with '|' between.
void Prepare(CLI::App& app, const std::vector<std::string>& everyday);

/// Exit code where the command line was not one to run: 0 for what was asked to be printed, or
/// `unwritten` where that cannot be written, and `usage` for what is wrong, which is told.
int ExitOfParse(const CLI::App& app, const CLI::ParseError& error, int usage, int unwritten);

}  // namespace opal::tools
