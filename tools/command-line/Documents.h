#pragma once

#include <string>
#include <vector>

#include "command-line/Table.h"

namespace opal::tools {

/// The page of section 1, in roff; `others` are the tools it refers to. Its date is that of
/// SOURCE_DATE_EPOCH, else today.
std::string ManPage(const ToolTable& table, const std::vector<std::string>& others);

/// What a shell sources to complete the tool's command line.
std::string BashCompletion(const ToolTable& table);
std::string ZshCompletion(const ToolTable& table);
std::string FishCompletion(const ToolTable& table);

}  // namespace opal::tools
