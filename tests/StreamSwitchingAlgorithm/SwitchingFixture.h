#pragma once

#include <boost/make_shared.hpp>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "SMILParser/IAudioTrack.h"
#include "SMILParser/IVideoLevel.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "StreamingDemux/EBML/IClusterIndex.h"
#include "support/VirtualClock.h"

namespace opal::test {

class FakeLevel : public IVideoLevel {
  public:
    FakeLevel(int bitrate, int vbv) : m_bitrate(bitrate), m_vbv(vbv) {}
    std::string GetURI() const override { return "level-" + std::to_string(m_bitrate); }
    std::string GetMimeType() const override { return {}; }
    size_t GetHeaderRequestSize() const override { return 1000; }
    int GetVBVSize() const override { return m_vbv; }
    int GetBitrate() const override { return m_bitrate; }
    int GetWidth() const override { return 0; }
    int GetHeight() const override { return 0; }
    bool GetParam(const std::string&, std::string&) const override { return false; }

  private:
    int m_bitrate;
    int m_vbv;
};

class FakeAudioTrack : public IAudioTrack {
  public:
    FakeAudioTrack(std::string language, int reserved)
        : m_language(std::move(language)), m_reserved(reserved) {}
    std::string GetURI() const override { return "audio-" + m_language; }
    std::string GetLanguage() const override { return m_language; }
    std::string GetMimeType() const override { return {}; }
    size_t GetHeaderRequestSize() const override { return 1000; }
    int GetReservedBandwidth() const override { return m_reserved; }
    int64_t GetAssetId() const override { return 0; }
    bool GetParam(const std::string&, std::string&) const override { return false; }

  private:
    std::string m_language;
    int m_reserved;
};

/// Clusters of two seconds and one size.
class FakeIndex : public IClusterIndex {
  public:
    FakeIndex(size_t count, int64_t size) : m_count(count), m_size(size) {}
    OPALError Parse(const uint8_t*, int64_t) override { return OPAL_OK; }
    size_t GetCount() const override { return m_count; }
    OPALError GetEntry(size_t, ClusterIndexEntry&) const override { return OPAL_ERROR_GENERAL; }
    OPALError FindByTime(int64_t, ClusterIndexEntry&) const override { return OPAL_ERROR_GENERAL; }
    int64_t GetTime(size_t index) const override { return static_cast<int64_t>(index) * 2000; }
    int64_t GetOffset(size_t index) const override { return static_cast<int64_t>(index) * m_size; }
    int64_t GetSize(size_t index) const override { return index < m_count ? m_size : 0; }
    size_t GetFrameCount(size_t) const override { return 0; }
    uint32_t GetHeaderSize(size_t) const override { return 0; }
    OPALError GetFrame(size_t, size_t, int64_t&, uint32_t&) const override {
        return OPAL_ERROR_RANGE;
    }

  private:
    size_t m_count;
    int64_t m_size;
};

/// A ladder, the real switching controller over it, and a session that runs in virtual time.
class SwitchingSession {
  public:
    using Message = StreamSwitchingNotify::Message;

    /// VBV size is `vbvSeconds` times the rate; indexes of all levels are there at once.
    explicit SwitchingSession(const std::vector<int>& rates, int vbvSeconds = 2,
                              const std::vector<boost::shared_ptr<IAudioTrack>>& audio = {})
        : controller(NewStreamSwitchingController()) {
        std::vector<boost::shared_ptr<IVideoLevel>> levels;
        for (int rate : rates) {
            levels.push_back(boost::make_shared<FakeLevel>(rate, rate * vbvSeconds));
            m_indexStorage.push_back(std::make_unique<FakeIndex>(300, rate / 4));
            indexes.push_back(m_indexStorage.back().get());
        }
        (void)controller->SetLevels(levels, audio);
    }

    void GiveIndexes() { controller->SetClusterIndexes(&indexes); }

    /// A video cluster has come in `ms` after a pause of `gap`; `buffered` is what there is now.
    /// Returns the level of the next one.
    int Video(int64_t bytes, int64_t ms, int64_t buffered, int64_t gap = 0) {
        clock.Advance(gap + ms);
        Message message;
        message.downloadSize = bytes;
        message.downloadTime = ms;
        message.bufferedDuration = buffered;
        message.timeSinceStart = clock.ElapsedMs();
        message.clusterIndex = m_cluster++;
        controller->GetNotify()->Notify(OPAL_STREAM_VIDEO,
                                        StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE, message);
        return controller->GetCurrentLevel();
    }

    void Restart() {
        controller->GetNotify()->Notify(OPAL_STREAM_VIDEO, StreamSwitchingNotify::EVENT_RESTART,
                                        Message());
    }

    VirtualClock clock;
    std::unique_ptr<IStreamSwitchingController> controller;
    std::vector<IClusterIndex*> indexes;

  private:
    std::vector<std::unique_ptr<IClusterIndex>> m_indexStorage;
    size_t m_cluster = 0;
};

}  // namespace opal::test
