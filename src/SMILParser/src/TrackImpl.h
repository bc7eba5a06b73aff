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

/// What the entries of all kinds have in common.
template <typename Interface>
class ManifestEntry : public Interface {
  public:
    std::string GetURI() const override { return m_uri; }
    std::string GetMimeType() const override {
        std::string value;
        (void)GetParam("mime", value);
        return value;
    }
    size_t GetHeaderRequestSize() const override { return m_headerRequestSize; }
    bool GetParam(const std::string& name, std::string& value) const override {
        value.clear();
        const auto entry = m_params.find(name);
        if (entry == m_params.end())
            return false;
        value = entry->second;
        return true;
    }

    /// While the manifest is parsed; nothing changes afterwards. The last value of a name wins.
    /// False, with nothing stored, for an empty name.
    bool AddParam(const std::string& name, const std::string& value) {
        if (name.empty())
            return false;
        m_params[name] = value;
        return true;
    }

  protected:
    ManifestEntry(const std::string& uri, size_t headerRequestSize)
        : m_uri(uri), m_headerRequestSize(headerRequestSize) {}

  private:
    std::string m_uri;
    size_t m_headerRequestSize;
    std::map<std::string, std::string> m_params;
};

/// Video levels and trick tracks, which differ in their interface only.
template <typename Interface>
class VideoEntry : public ManifestEntry<Interface> {
  public:
    VideoEntry(const std::string& uri, size_t headerRequestSize, int vbvSize, int bitrate,
               int width, int height)
        : ManifestEntry<Interface>(uri, headerRequestSize),
          m_vbvSize(vbvSize),
          m_bitrate(bitrate),
          m_width(width),
          m_height(height) {}

    int GetVBVSize() const override { return m_vbvSize; }
    int GetBitrate() const override { return m_bitrate; }
    int GetWidth() const override { return m_width; }
    int GetHeight() const override { return m_height; }

  private:
    int m_vbvSize;
    int m_bitrate;
    int m_width;
    int m_height;
};

/// Audio and subtitle tracks, which differ in their interface only.
template <typename Interface>
class LanguageEntry : public ManifestEntry<Interface> {
  public:
    LanguageEntry(const std::string& uri, const std::string& language, size_t headerRequestSize,
                  int reservedBandwidth, int64_t assetId)
        : ManifestEntry<Interface>(uri, headerRequestSize),
          m_language(language),
          m_reservedBandwidth(reservedBandwidth),
          m_assetId(assetId) {}

    std::string GetLanguage() const override { return m_language; }
    int GetReservedBandwidth() const override { return m_reservedBandwidth; }
    int64_t GetAssetId() const override { return m_assetId; }

  private:
    std::string m_language;
    int m_reservedBandwidth;
    int64_t m_assetId;
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
