#pragma once

#include <string>

namespace opal {

/// Where the settings files are looked for; "." unless a test says otherwise.
void SetConfigurationDirectory(const std::string& directory);

/// The path of settings file `name`: the bare name for the default directory.
std::string ConfigurationPath(const std::string& name);

/// Reads a settings file whole. False if it does not open. At most 1 MiB is accepted: a larger file
/// is no settings file, and reads as not there.
bool ReadConfigurationFile(const std::string& name, std::string& text);

}  // namespace opal
