#include "opal-origin/src/Content.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <cerrno>
#include <cstring>
#include <utility>

#include "opal-origin/Origin.h"

namespace opal::origin {
namespace {

class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0)
            close(m_fd);
    }
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    int Get() const { return m_fd; }

  private:
    int m_fd;
};

class FileSource : public Source {
  public:
    FileSource(Descriptor file, int64_t size) : m_file(std::move(file)), m_size(size) {}
    int64_t Size() const override { return m_size; }
    size_t Read(int64_t offset, char* pBuffer, size_t length) const override {
        size_t done = 0;
        while (done < length) {
            const ssize_t n = pread(m_file.Get(), pBuffer + done, length - done,
                                    offset + static_cast<int64_t>(done));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        return done;
    }

  private:
    const Descriptor m_file;
    const int64_t m_size;
};

class MemorySource : public Source {
  public:
    explicit MemorySource(std::string bytes) : m_bytes(std::move(bytes)) {}
    int64_t Size() const override { return static_cast<int64_t>(m_bytes.size()); }
    size_t Read(int64_t offset, char* pBuffer, size_t length) const override {
        return m_bytes.copy(pBuffer, length, static_cast<size_t>(offset));
    }

  private:
    const std::string m_bytes;
};

class GeneratedSource : public Source {
  public:
    explicit GeneratedSource(int64_t size) : m_size(size) {}
    int64_t Size() const override { return m_size; }
    size_t Read(int64_t offset, char* pBuffer, size_t length) const override {
        // Within 256 bytes only the lowest byte of the offset changes.
        for (size_t i = 0; i < length;) {
            const int64_t at = offset + static_cast<int64_t>(i);
            const int upper = Origin::GeneratedByte(at & ~int64_t{255});
            const size_t end = std::min(length, i + 256 - static_cast<size_t>(at & 255));
            for (int low = static_cast<int>(at & 255); i < end; ++i, ++low)
                pBuffer[i] = static_cast<char>(upper ^ low);
        }
        return length;
    }

  private:
    const int64_t m_size;
};

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool DecodePercent(const std::string& text, std::string* pResult) {
    pResult->clear();
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || HexDigit(text[i + 1]) < 0 || HexDigit(text[i + 2]) < 0)
                return false;
            c = static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2]));
            i += 2;
        }
        if (c == '\0')
            return false;
        pResult->push_back(c);
    }
    return true;
}

}  // namespace

Content::~Content() {
    if (m_folder >= 0)
        close(m_folder);
}

bool Content::OpenFolder(const std::string& folder, std::string* pError) {
    if (folder.empty() || m_folder >= 0)
        return true;
    m_folder = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_folder < 0)
        *pError = folder + ": " + std::strerror(errno);
    return m_folder >= 0;
}

void Content::Set(const std::string& path, std::shared_ptr<const Source> source) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_added[path] = std::move(source);
}

void Content::Remove(const std::string& path) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_added.erase(path);
}

std::shared_ptr<const Source> Content::Find(const std::string& path) const {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_added.find(path);
        if (found != m_added.end())
            return found->second;
    }
    return m_folder >= 0 ? FindInFolder(path) : nullptr;
}

// One component after the other, each without following a link: whatever the path, and whatever
// is renamed meanwhile, the walk cannot leave the folder.
std::shared_ptr<const Source> Content::FindInFolder(const std::string& path) const {
    Descriptor folder(-1);
    for (size_t start = 0; start < path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        const std::string name = path.substr(start, end - start);
        const bool last = end == path.size();
        if (name == "." || name == ".." || (last && name.empty()))
            return nullptr;
        if (!name.empty()) {
            const int parent = folder.Get() >= 0 ? folder.Get() : m_folder;
            const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
            Descriptor next(openat(parent, name.c_str(), last ? flags : flags | O_DIRECTORY));
            if (next.Get() < 0)
                return nullptr;
            folder = std::move(next);
        }
        start = end + 1;
    }
    struct stat status {};
    if (folder.Get() < 0 || fstat(folder.Get(), &status) != 0 || !S_ISREG(status.st_mode))
        return nullptr;
    return std::make_shared<FileSource>(std::move(folder), status.st_size);
}

std::shared_ptr<const Source> MakeMemorySource(std::string bytes) {
    return std::make_shared<MemorySource>(std::move(bytes));
}

std::shared_ptr<const Source> MakeGeneratedSource(int64_t size) {
    return std::make_shared<GeneratedSource>(size);
}

std::string ContentType(const std::string& path) {
    static const std::pair<const char*, const char*> types[] = {
        {".mkv", "video/x-matroska"},
        {".mka", "audio/x-matroska"},
        {".mks", "application/x-matroska"},
        {".webm", "video/webm"},
        {".mp4", "video/mp4"},
        {".smil", "application/smil+xml"},
        {".smi", "application/smil+xml"},
        {".xml", "text/xml"},
        {".json", "application/json"},
        {".srt", "application/x-subrip"},
        {".txt", "text/plain"},
        {".html", "text/html"},
        {".png", "image/png"},
        {".ttf", "font/ttf"},
    };
    for (const auto& [extension, type] : types) {
        const size_t length = std::strlen(extension);
        if (path.size() > length &&
            boost::beast::iequals(path.substr(path.size() - length), extension))
            return type;
    }
    return "application/octet-stream";
}

bool DecodeTarget(const std::string& target, std::string* pPath) {
    std::string raw = target.substr(0, target.find_first_of("?#"));
    const size_t scheme = raw.find("://");
    if (raw.empty() || (raw.front() != '/' && scheme == std::string::npos))
        return false;
    if (raw.front() != '/') {  // the form that proxies get: "http://host/path"
        const size_t slash = raw.find('/', scheme + 3);
        raw = slash == std::string::npos ? "/" : raw.substr(slash);
    }
    if (!DecodePercent(raw, pPath))
        return false;
    const std::string closed = *pPath + "/";
    return closed.find("/./") == std::string::npos && closed.find("/../") == std::string::npos;
}

}  // namespace opal::origin
