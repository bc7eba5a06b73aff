#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

/// One audio track of the manifest, read-only.
///
/// Threading: read from any thread without a lock.
/// Ownership: handed around as boost::shared_ptr only; outlives the parser while a holder keeps it.
/// Units: bandwidth in bits per second, header request size in bytes.
class IAudioTrack : boost::noncopyable {
  public:
    virtual ~IAudioTrack() = default;
    virtual std::string GetURI() const = 0;
    /// Three letters; "und" when the manifest gives none that fit.
    virtual std::string GetLanguage() const = 0;
    /// The parameter "mime", or empty.
    virtual std::string GetMimeType() const = 0;
    /// How many first bytes of the file hold its header.
    virtual size_t GetHeaderRequestSize() const = 0;
    /// What this track takes out of the bandwidth available for video.
    virtual int GetReservedBandwidth() const = 0;
    virtual int64_t GetAssetId() const = 0;
    /// The raw text of a parameter. False, with `value` empty, if there is none of that name.
    virtual bool GetParam(const std::string& name, std::string& value) const = 0;
};
