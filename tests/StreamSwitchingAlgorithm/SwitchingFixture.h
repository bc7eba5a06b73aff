#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <memory>
#include <vector>

#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "opal-simulate/SimulatedStreams.h"
#include "support/VirtualClock.h"

namespace opal::test {

/// The bit-rates of the levels, where a test does not say.
inline const std::vector<int> kLadder = {500000, 1000000, 2000000, 4000000};

/// Leaves the built-in settings behind.
class SwitchingTest : public testing::Test {
  protected:
    ~SwitchingTest() override { AlgorithmConfig::Instance().Reset(); }
};

inline AlgorithmConfig::Global BuiltIn() {
    AlgorithmConfig::Global global;
    global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    global.minBufferedToEnterAgile = 40000;
    return global;
}

inline void Configure(const AlgorithmConfig::Global& global, int64_t agileUp = 4000,
                      int64_t steadyUp = 20000) {
    AlgorithmConfig::Mode agile;
    agile.minPeriodUpSwitch = agileUp;
    AlgorithmConfig::Mode steady;
    steady.minPeriodUpSwitch = steadyUp;
    ASSERT_EQ(AlgorithmConfig::Instance().Set(global, agile, steady), OPAL_OK);
}

/// For each level the index of 300 clusters of one size.
struct LadderIndexes {
    explicit LadderIndexes(const std::vector<int>& rates) {
        for (int rate : rates)
            sizes.emplace_back(300, rate / 4);
        for (const std::vector<int64_t>& level : sizes) {
            storage.push_back(std::make_unique<simulate::SimulatedIndex>(level));
            pointers.push_back(storage.back().get());
        }
    }
    std::vector<std::vector<int64_t>> sizes;
    std::vector<std::unique_ptr<IClusterIndex>> storage;
    std::vector<IClusterIndex*> pointers;
};

/// A ladder, the real switching controller over it, and a session that runs in virtual time.
class SwitchingSession {
  public:
    /// VBV size is twice the rate.
    explicit SwitchingSession(const std::vector<int>& rates,
                              const std::vector<boost::shared_ptr<IAudioTrack>>& audio = {})
        : controller(NewStreamSwitchingController()), m_indexes(rates) {
        std::vector<boost::shared_ptr<IVideoLevel>> levels;
        for (int rate : rates)
            levels.push_back(boost::make_shared<simulate::SimulatedLevel>("level", rate, rate * 2));
        (void)controller->SetLevels(levels, audio);
    }

    /// The first level; then all indexes are there at once.
    int Begin() {
        const int level = controller->GetCurrentLevel();
        controller->SetClusterIndexes(&m_indexes.pointers);
        return level;
    }
    /// A cluster has come in `ms` after a pause of `gap`; `buffered` is what there is now.
    void Report(OPALStreamType type, int64_t bytes, int64_t ms, int64_t buffered, int64_t gap = 0) {
        clock.Advance(gap + ms);
        StreamSwitchingNotify::Message message;
        message.downloadSize = bytes;
        message.downloadTime = ms;
        message.bufferedDuration = buffered;
        message.timeSinceStart = clock.ElapsedMs();
        message.clusterIndex = m_cluster++;
        controller->GetNotify()->Notify(type, StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE,
                                        message);
    }
    /// The same of video. Returns the level of the next cluster.
    int Video(int64_t bytes, int64_t ms, int64_t buffered, int64_t gap = 0) {
        Report(OPAL_STREAM_VIDEO, bytes, ms, buffered, gap);
        return controller->GetCurrentLevel();
    }
    void Restart() {
        controller->GetNotify()->Notify(OPAL_STREAM_VIDEO, StreamSwitchingNotify::EVENT_RESTART,
                                        StreamSwitchingNotify::Message());
    }

    VirtualClock clock;
    const std::unique_ptr<IStreamSwitchingController> controller;

  private:
    LadderIndexes m_indexes;
    size_t m_cluster = 0;
};

}  // namespace opal::test
