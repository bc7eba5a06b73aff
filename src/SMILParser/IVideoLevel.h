#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <string>

/// One video quality level of the manifest, read-only.
///
/// Threading: read from any thread without a lock.
/// Ownership: handed around as boost::shared_ptr only; outlives the parser while a holder keeps it.
/// Units: bitrate in bits per second, VBV size in bits, header request size in bytes.
class IVideoLevel : boost::noncopyable {
  public:
    virtual ~IVideoLevel() = default;
    virtual std::string GetURI() const = 0;
    /// The parameter "mime", or empty.
    virtual std::string GetMimeType() const = 0;
    /// How many first bytes of the file hold its header.
    virtual size_t GetHeaderRequestSize() const = 0;
    virtual int GetVBVSize() const = 0;
    virtual int GetBitrate() const = 0;
    virtual int GetWidth() const = 0;
    virtual int GetHeight() const = 0;
    /// The raw text of a parameter. False, with `value` empty, if there is none of that name.
    virtual bool GetParam(const std::string& name, std::string& value) const = 0;
};
