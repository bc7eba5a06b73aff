#include <gmock/gmock.h>

#include <vector>

#include "StreamSwitchingAlgorithm/src/BandwidthMonitor.h"
#include "SwitchingFixture.h"

using namespace opal::test;

namespace {

constexpr int64_t kNow = 100000;

struct Download {
    size_t bytes;
    int64_t from;  // before now
    int64_t to;
};

int Estimate(const std::vector<Download>& downloads, int64_t now = kNow) {
    BandwidthMonitor monitor;
    for (const Download& download : downloads)
        monitor.AddSample(
            BandwidthSample(download.bytes, kNow - download.from, download.from - download.to));
    return monitor.GetBandwidth(now);
}

class BandwidthMonitorTest : public SwitchingTest {};

}  // namespace

TEST_F(BandwidthMonitorTest, CountsActiveTimeInTheWindowOnly) {
    const struct {
        const char* what;
        std::vector<Download> downloads;
        int estimate;
    } rows[] = {
        {"none", {}, 0},
        {"one, whole in the window", {{1000000, 2000, 0}}, 4000000},
        {"two with a gap", {{500000, 3000, 2500}, {500000, 1000, 500}}, 5333333},
        {"one that the window's start cuts", {{1000000, 5000, 1000}}, 1500000},
        {"all before the window", {{1000000, 9000, 5000}, {1000000, 5000, 4000}}, 0},
        {"too little active time", {{1000000, 300, 0}}, 0},
        {"just enough active time", {{125000, 1000, 0}}, 1000000},
        {"no measurable duration", {{1000000, 2000, 0}, {9000000, 500, 500}}, 4000000},
        {"overlapping ones add up", {{500000, 2000, 0}, {500000, 1500, 500}}, 4000000},
        {"touching ones leave no gap", {{500000, 2000, 1000}, {500000, 1000, 0}}, 4000000},
        {"a gap before the window is none of it", {{1, 9000, 8000}, {500000, 2000, 0}}, 2000000},
        {"the clock was set back", {{9000000, -3600000, -3602000}, {500000, 2000, 0}}, 2000000},
        {"beyond what an int holds", {{0xFFFFFFFF, 2000, 0}}, 2147483647},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Estimate(row.downloads), row.estimate) << row.what;
    EXPECT_EQ(Estimate({{1000000, 2000, 0}}, 0), 0) << "time 0 has no estimate";
}

TEST_F(BandwidthMonitorTest, KeepsTheNewestSamplesOnly) {
    AlgorithmConfig::Global global;
    global.bandwidthMonitorSampleCount = 2;
    Configure(global);
    EXPECT_EQ(Estimate({{9000000, 3500, 3000}, {250000, 2000, 1000}, {250000, 1000, 0}}), 2000000);
}

TEST_F(BandwidthMonitorTest, BadFiguresAreHarmlessOrTheCallersFault) {
    AlgorithmConfig::Global global;
    for (int64_t window : {INT64_MIN, INT64_MIN + 1000, int64_t{-1}, int64_t{0}, INT64_MAX}) {
        global.bandwidthMonitorWindowInterval = window;
        Configure(global);
        EXPECT_GE(Estimate({{1000000, 2000, 0}}), 0) << window;
    }
    EXPECT_THROW(BandwidthSample(1, 0, -1), std::exception);
}

// Audio that ends within a long video download is reported before it.
TEST_F(BandwidthMonitorTest, PausesOfAudioWithinAVideoDownloadAreIdleByEndAndBusyByStart) {
    const std::vector<Download> downloads = {
        {25000, 2900, 2700}, {25000, 1500, 1300}, {925000, 3000, 400}, {25000, 200, 0}};
    EXPECT_EQ(Estimate(downloads), 5000000)
        << "by end: 1200 ms between two audio downloads, and 200 ms after video";
    AlgorithmConfig::Global global;
    global.bandwidthMonitorGapOrder = 1;
    Configure(global);
    EXPECT_EQ(Estimate(downloads), 2857142) << "by start: the 200 ms after video";
}
