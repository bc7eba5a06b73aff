#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace opal {

struct FileCloser {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

/// For reading. Null for what does not open or is no regular file; nothing is waited for.
FileHandle OpenRegularFile(const std::string& path);

/// Where the settings files are looked for; "." unless a test says otherwise.
void SetConfigurationDirectory(const std::string& directory);

/// The path of settings file `name`: the bare name for the default directory.
std::string ConfigurationPath(const std::string& name);

/// Reads a settings file whole. False if it does not open. At most 1 MiB is accepted: a larger file
/// is no settings file, and reads as not there.
bool ReadConfigurationFile(const std::string& name, std::string& text);

}  // namespace opal
