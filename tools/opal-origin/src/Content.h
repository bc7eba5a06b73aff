#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace opal::origin {

/// One file as it was found. Immutable but for a folder file that is changed on the disc: reads
/// beyond its new end give fewer bytes.
class Source {
  public:
    virtual ~Source() = default;
    virtual int64_t Size() const = 0;
    /// The number of bytes read; less than asked for at the end or on an error.
    virtual size_t Read(int64_t offset, char* pBuffer, size_t length) const = 0;
};

/// The files of the origin: those added, and behind them those of a folder.
///
/// Threading: any thread.
class Content {
  public:
    ~Content();
    /// False with a text if the folder cannot be read. The empty path: no folder.
    bool OpenFolder(const std::string& folder, std::string* pError);
    void Set(const std::string& path, std::shared_ptr<const Source> source);
    void Remove(const std::string& path);
    /// Null if there is no such file. The path begins with '/' and is decoded.
    std::shared_ptr<const Source> Find(const std::string& path) const;

  private:
    std::shared_ptr<const Source> FindInFolder(const std::string& path) const;

    mutable std::mutex m_mutex;
    int m_folder = -1;  // written before the first Find only
    std::map<std::string, std::shared_ptr<const Source>> m_added;
};

std::shared_ptr<const Source> MakeMemorySource(std::string bytes);
std::shared_ptr<const Source> MakeGeneratedSource(int64_t size);

std::string ContentType(const std::string& path);

/// The path of a request target: without scheme, host and query, percent-decoded. False if it is
/// not valid: no '/' in front, a broken or zero escape, a "." or ".." component.
bool DecodeTarget(const std::string& target, std::string* pPath);

}  // namespace opal::origin
