#pragma once

#include <string>
#include <utility>
#include <vector>

#include "SMILParser/IAudioTrack.h"
#include "SMILParser/IVideoLevel.h"
#include "StreamingDemux/EBML/IClusterIndex.h"

namespace opal::simulate {

/// A manifest's level, as far as switching looks at it.
class SimulatedLevel : public IVideoLevel {
  public:
    SimulatedLevel(std::string uri, int bitrate, int vbv)
        : m_uri(std::move(uri)), m_bitrate(bitrate), m_vbv(vbv) {}
    std::string GetURI() const override { return m_uri; }
    std::string GetMimeType() const override { return {}; }
    size_t GetHeaderRequestSize() const override { return 1000; }
    int GetVBVSize() const override { return m_vbv; }
    int GetBitrate() const override { return m_bitrate; }
    int GetWidth() const override { return 0; }
    int GetHeight() const override { return 0; }
    bool GetParam(const std::string&, std::string&) const override { return false; }

  private:
    const std::string m_uri;
    const int m_bitrate;
    const int m_vbv;
};

/// A manifest's audio track, as far as switching looks at it.
class SimulatedAudio : public IAudioTrack {
  public:
    SimulatedAudio(std::string language, int bitrate, std::string uri = "audio")
        : m_uri(std::move(uri)), m_language(std::move(language)), m_bitrate(bitrate) {}
    std::string GetURI() const override { return m_uri; }
    std::string GetLanguage() const override { return m_language; }
    std::string GetMimeType() const override { return {}; }
    size_t GetHeaderRequestSize() const override { return 1000; }
    int GetReservedBandwidth() const override { return m_bitrate; }
    int64_t GetAssetId() const override { return 0; }
    bool GetParam(const std::string&, std::string&) const override { return false; }

  private:
    const std::string m_uri;
    const std::string m_language;
    const int m_bitrate;
};

/// An index of clusters of two seconds. The sizes are not owned.
class SimulatedIndex : public IClusterIndex {
  public:
    explicit SimulatedIndex(const std::vector<int64_t>& sizes) : m_sizes(sizes) {}
    OPALError Parse(const uint8_t*, int64_t) override { return OPAL_OK; }
    size_t GetCount() const override { return m_sizes.size(); }
    OPALError GetEntry(size_t, ClusterIndexEntry&) const override {
        return OPAL_ERROR_OUT_OF_RANGE;
    }
    OPALError FindByTime(int64_t, ClusterIndexEntry&) const override { return OPAL_ERROR_GENERAL; }
    int64_t GetTime(size_t index) const override {
        return index < m_sizes.size() ? static_cast<int64_t>(index) * 2000 : 0;
    }
    int64_t GetOffset(size_t) const override { return 0; }
    int64_t GetSize(size_t index) const override {
        return index < m_sizes.size() ? m_sizes[index] : 0;
    }
    size_t GetFrameCount(size_t) const override { return 0; }
    uint32_t GetHeaderSize(size_t) const override { return 0; }
    OPALError GetFrame(size_t, size_t, int64_t&, uint32_t&) const override {
        return OPAL_ERROR_RANGE;
    }

  private:
    const std::vector<int64_t>& m_sizes;
};

}  // namespace opal::simulate
