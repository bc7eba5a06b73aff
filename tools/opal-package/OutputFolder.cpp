#include "opal-package/OutputFolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

#include "opal-package/Error.h"
#include "opal-package/GoldenFile.h"

namespace opal::package {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& text, const std::error_code& error) {
    throw PackageError(Failure::InputOutput, text + ": " + error.message());
}

bool IsOurs(const fs::path& file) {
    const std::string name = file.filename().string();
    const std::string ending = file.extension().string();
    return name == kManifestName || name == kSidecarName || ending == ".mkv" || ending == ".mka" ||
           ending == ".mks" || ending == kGoldenEnding;
}

/// The media files of the presentation that a folder holds; none where it holds none.
std::set<std::string> MediaOf(const std::string& folder) {
    std::ifstream in(folder + "/" + kSidecarName, std::ios::binary);
    std::set<std::string> names;
    try {
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        for (const Entry& entry : ParseSidecar(text).entries) {
            // A name with a path in it would lead out of the folder.
            if (entry.file == fs::path(entry.file).filename().string())
                names.insert({entry.file, entry.file + kGoldenEnding});
        }
    } catch (const std::exception&) {  // no sidecar, or none of ours
        return {};
    }
    return names;
}

}  // namespace

OutputFolder::OutputFolder(const std::string& folder) {
    std::error_code error;
    fs::path path = fs::weakly_canonical(fs::absolute(folder), error);
    if (error)
        Fail(folder + ": cannot be created", error);
    if (!path.has_filename()) {
        path = path.parent_path();  // a slash at the end
    }
    m_folder = path.string();
    m_working = m_folder + ".part";
}

OutputFolder::~OutputFolder() {
    if (m_lock >= 0) {
        std::error_code ignored;
        fs::remove_all(m_working, ignored);
        close(m_lock);
    }
}

void OutputFolder::Begin() {
    std::error_code error;
    fs::create_directories(m_working, error);
    if (!error && fs::exists(m_folder) && !fs::is_directory(m_folder)) {
        error = std::make_error_code(std::errc::not_a_directory);
        fs::remove(m_working);
    }
    if (error)
        Fail(m_folder + ": cannot be created", error);
    const int lock = open(m_working.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (lock < 0 || flock(lock, LOCK_EX | LOCK_NB) != 0) {
        error.assign(errno, std::generic_category());
        if (lock >= 0)
            close(lock);
        Fail(m_working + ": cannot be used; is another opal-package making this folder?", error);
    }
    try {
        ClearLeftover();
    } catch (...) {
        close(lock);
        throw;
    }
    m_lock = lock;
}

void OutputFolder::ClearLeftover() const {
    std::error_code error;
    const std::vector<fs::directory_entry> files{fs::directory_iterator(m_working, error), {}};
    for (const auto& file : files) {
        if (!IsOurs(file.path())) {
            throw PackageError(Failure::InputOutput,
                               m_working + ": is in the way, and " +
                                   file.path().filename().string() +
                                   " in it is no file of a presentation; move the folder away");
        }
    }
    for (const auto& file : files)
        fs::remove(file.path(), error);
}

void OutputFolder::Move(const std::string& name) const {
    const std::string from = m_working + "/" + name;
    const std::string to = m_folder + "/" + name;
    std::error_code error;
    fs::rename(from, to, error);
    if (error == std::errc::cross_device_link) {  // the folder is a file system of its own
        fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
    }
    if (error)
        Fail(to + ": cannot be put in place", error);
}

void OutputFolder::Commit() {
    std::error_code error;
    if (!fs::exists(m_folder)) {
        fs::rename(m_working, m_folder, error);
        if (error)
            Fail(m_folder + ": cannot be put in place", error);
    } else {
        std::set<std::string> former = MediaOf(m_folder);
        // From here on until the new manifest is there, the folder is not to be played.
        fs::remove(m_folder + "/" + kManifestName, error);
        for (const auto& file : fs::directory_iterator(m_working)) {
            const std::string name = file.path().filename().string();
            if (name != kManifestName)
                Move(name);
            former.erase(name);
        }
        for (const std::string& name : former)
            fs::remove(m_folder + "/" + name, error);
        Move(kManifestName);
        fs::remove_all(m_working, error);
    }
    close(m_lock);
    m_lock = -1;
}

bool OutputFolder::Holds(const std::string& path) const {
    std::error_code error;
    const fs::path file = fs::canonical(path, error);
    if (error) {
        return false;  // not there, or no file at all
    }
    const fs::path folder(m_folder);
    return std::mismatch(folder.begin(), folder.end(), file.begin(), file.end()).first ==
           folder.end();
}

}  // namespace opal::package
