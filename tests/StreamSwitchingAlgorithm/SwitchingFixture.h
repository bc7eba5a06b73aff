#pragma once

#include <boost/make_shared.hpp>
#include <memory>
#include <vector>

#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "opal-simulate/SimulatedStreams.h"
#include "support/VirtualClock.h"

namespace opal::test {

using FakeAudioTrack = simulate::SimulatedAudio;

/// Clusters of two seconds and one size.
class FakeIndex : private std::vector<int64_t>, public simulate::SimulatedIndex {
  public:
    FakeIndex(size_t count, int64_t size)
        : std::vector<int64_t>(count, size),
          SimulatedIndex(static_cast<const std::vector<int64_t>&>(*this)) {}
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
            levels.push_back(
                boost::make_shared<simulate::SimulatedLevel>("level", rate, rate * vbvSeconds));
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
