#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "SMILParser/IAudioTrack.h"
#include "SMILParser/ISubtitleTrack.h"
#include "SMILParser/IVideoLevel.h"
#include "SMILParser/IVideoTrickTrack.h"

namespace opal {

/// The parameters of an entry, by name.
class EntryParams {
  public:
    /// The last value of a name wins. False, with nothing stored, for an empty name.
    bool Add(const std::string& name, const std::string& value) {
        if (name.empty())
            return false;
        m_values[name] = value;
        return true;
    }
    bool Get(const std::string& name, std::string& value) const {
        value.clear();
        const auto entry = m_values.find(name);
        if (entry == m_values.end())
            return false;
        value = entry->second;
        return true;
    }

  private:
    std::map<std::string, std::string> m_values;
};

/// What video levels and trick tracks have in common, which is everything but their interface.
template <typename Interface>
class VideoEntry : public Interface {
  public:
    VideoEntry(const std::string& uri, size_t headerRequestSize, int vbvSize, int bitrate,
               int width, int height)
        : m_uri(uri),
          m_headerRequestSize(headerRequestSize),
          m_vbvSize(vbvSize),
          m_bitrate(bitrate),
          m_width(width),
          m_height(height) {}

    std::string GetURI() const override { return m_uri; }
    std::string GetMimeType() const override {
        std::string value;
        (void)GetParam("mime", value);
        return value;
    }
    size_t GetHeaderRequestSize() const override { return m_headerRequestSize; }
    int GetVBVSize() const override { return m_vbvSize; }
    int GetBitrate() const override { return m_bitrate; }
    int GetWidth() const override { return m_width; }
    int GetHeight() const override { return m_height; }
    bool GetParam(const std::string& name, std::string& value) const override {
        return m_params.Get(name, value);
    }

    /// While the manifest is parsed; nothing changes afterwards.
    bool AddParam(const std::string& name, const std::string& value) {
        return m_params.Add(name, value);
    }

  private:
    std::string m_uri;
    size_t m_headerRequestSize;
    int m_vbvSize;
    int m_bitrate;
    int m_width;
    int m_height;
    EntryParams m_params;
};

/// What audio and subtitle tracks have in common, which is everything but their interface.
template <typename Interface>
class LanguageEntry : public Interface {
  public:
    LanguageEntry(const std::string& uri, const std::string& language, size_t headerRequestSize,
                  int reservedBandwidth, int64_t assetId)
        : m_uri(uri),
          m_language(language),
          m_headerRequestSize(headerRequestSize),
          m_reservedBandwidth(reservedBandwidth),
          m_assetId(assetId) {}

    std::string GetURI() const override { return m_uri; }
    std::string GetLanguage() const override { return m_language; }
    std::string GetMimeType() const override {
        std::string value;
        (void)GetParam("mime", value);
        return value;
    }
    size_t GetHeaderRequestSize() const override { return m_headerRequestSize; }
    int GetReservedBandwidth() const override { return m_reservedBandwidth; }
    int64_t GetAssetId() const override { return m_assetId; }
    bool GetParam(const std::string& name, std::string& value) const override {
        return m_params.Get(name, value);
    }

    /// While the manifest is parsed; nothing changes afterwards.
    bool AddParam(const std::string& name, const std::string& value) {
        return m_params.Add(name, value);
    }

  private:
    std::string m_uri;
    std::string m_language;
    size_t m_headerRequestSize;
    int m_reservedBandwidth;
    int64_t m_assetId;
    EntryParams m_params;
};

}  // namespace opal

class VideoLevelImpl : public opal::VideoEntry<IVideoLevel> {
  public:
    using VideoEntry::VideoEntry;
};

class VideoTrickTrackImpl : public opal::VideoEntry<IVideoTrickTrack> {
  public:
    using VideoEntry::VideoEntry;
};

class AudioTrackImpl : public opal::LanguageEntry<IAudioTrack> {
  public:
    using LanguageEntry::LanguageEntry;
};

class SubtitleTrackImpl : public opal::LanguageEntry<ISubtitleTrack> {
  public:
    using LanguageEntry::LanguageEntry;
};
