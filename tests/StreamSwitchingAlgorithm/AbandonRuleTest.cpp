#include "StreamSwitchingAlgorithm/AbandonRule.h"

#include <gtest/gtest.h>

using opal::playback::AbandonRule;

namespace {

constexpr size_t kGoesOn = 99;
/// Of clusters of two seconds, 0.5 to 4 Mbit/s.
const std::vector<int64_t> kSizes = {125000, 250000, 500000, 1000000};

/// A transfer of cluster 7, looked at every 10 ms.
struct Download {
    size_t level = 3;
    int64_t received = 0;
    int64_t ms = 5000;
    AbandonRule rule = {};

    /// Lets `duration` pass at `bytesPerMs` with a buffer that plays. Returns the first answer.
    size_t Run(int64_t duration, int64_t bytesPerMs, int64_t buffered) {
        for (int64_t i = 0; i <= duration; i += 10, ms += 10, received += 10 * bytesPerMs) {
            const auto answer = rule.Ask({ms, 7, level, received, buffered - i}, kSizes);
            if (answer)
                return *answer;
        }
        return kGoesOn;
    }
};

}  // namespace

TEST(AbandonRuleTest, ATransferThatOutlastsTheBufferIsGivenUpForALevelThatComesSooner) {
    const struct {
        const char* what;
        size_t level;
        int64_t received;  // when the rule begins to look; it answers a second later
        int64_t bytesPerMs;
        int64_t buffered;
        size_t answer;
    } rows[] = {
        {"a rest of 4 s, 9 s buffered", 3, 500000, 100, 10000, kGoesOn},
        {"a rest of 4 s, 3.5 s buffered", 3, 500000, 100, 4500, 0},
        {"half of 4.9 s fetches the second level's", 3, 50000, 160, 5900, 1},
        {"half of 1.5 s fetches no level's", 3, 100000, 130, 2500, 0},
        {"nearly done, the rest is smaller than the lowest cluster", 3, 880000, 10, 2000, kGoesOn},
        {"nothing comes any more", 3, 300000, 0, 3000, 0},
        {"there is no lower level", 0, 10000, 1, 2000, kGoesOn},
        {"a level that is not there", 4, 10000, 1, 2000, kGoesOn},
    };
    for (const auto& row : rows) {
        Download download{row.level, row.received};
        EXPECT_EQ(download.Run(990, row.bytesPerMs, row.buffered), kGoesOn)
            << row.what << ": younger than a second";
        EXPECT_EQ(download.Run(10, row.bytesPerMs, row.buffered - 1000), row.answer) << row.what;
    }
}

TEST(AbandonRuleTest, OnlyTheLastSecondCountsAndAClusterIsGivenUpOnce) {
    Download download;
    EXPECT_EQ(download.Run(3000, 200, 20000), kGoesOn) << "600 of 1000 kB in three seconds";
    EXPECT_EQ(download.Run(1000, 20, 3000), 0u) << "then the link falls to a tenth";
    download.level = 1;
    download.received = 0;
    EXPECT_EQ(download.Run(3000, 20, 3000), kGoesOn) << "the same cluster again";
    download.rule.Reset();
    download.received = 0;
    EXPECT_EQ(download.Run(1000, 20, 3000), 0u) << "after a jump it is another transfer";
    Download cut;
    EXPECT_EQ(cut.Run(1000, 600, 20000), kGoesOn);
    EXPECT_EQ(cut.Run(1000, 0, 5000), 1u)
        << "half of 4 s fetches the third level's cluster, but only the second's is below the rest";
    std::vector<int64_t> unknown = kSizes;
    unknown[0] = 0;
    AbandonRule rule;
    for (int64_t ms = 0; ms < 3000; ms += 10)
        EXPECT_FALSE(rule.Ask({ms, 8, 3, 0, 1000}, unknown)) << "a size that is not known";
}
