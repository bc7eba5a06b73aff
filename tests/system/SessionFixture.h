#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamingController/ISessionObserver.h"
#include "StreamingController/StreamingController.h"
#include "TvSet.h"
#include "opal-origin/Origin.h"
#include "opal-package/MatroskaWriter.h"
#include "recording/SessionRecords.h"
#include "support/RecordingListener.h"
#include "support/ScaledClock.h"

namespace opal::test {

/// How much faster than real time sessions run here: the library's clock and the television's.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kSpeed = 5;
#else
constexpr int kSpeed = 10;
#endif

/// Stream types in the journal of the television.
constexpr uint32_t kAudio = 0;
constexpr uint32_t kVideo = 1;

/// A presentation of synthetic blocks that the pass-through set shows undecoded.
struct Presentation {
    std::vector<int> levelKbps = {500};
    int audioTracks = 1;
    bool trick = false;
    int clusters = 5;         ///< of two seconds
    int blocksPerSecond = 5;  ///< video
    int audioKbps = 32;
};

/// One block, as far as tests compare them.
struct SeenBlock {
    int64_t timeMs;
    uint32_t size;
    uint32_t crc;

    bool operator==(const SeenBlock& other) const {
        return timeMs == other.timeMs && size == other.size && crc == other.crc;
    }
};

class FinalizedController : public StreamingController {
  public:
    ~FinalizedController() override { (void)Finalize(); }
};

/// Keeps what the switching code of the sessions during its life was told and asked.
class SwitchingObserver : public ISessionObserver {
  public:
    SwitchingObserver() { EXPECT_EQ(SetSessionObserver(this), OPAL_OK); }
    ~SwitchingObserver() override { (void)SetSessionObserver(nullptr); }
    void OnSwitchingCall(const SwitchingCallEvent& event) override { m_records.push_back(event); }
    void OnLevelIndex(const LevelIndexEvent& event) override { m_records.push_back(event); }
    void OnDropped(uint64_t) override { ADD_FAILURE() << "events were lost"; }
    /// Ends the observation.
    const std::vector<recording::Record>& Records() {
        EXPECT_EQ(SetSessionObserver(nullptr), OPAL_OK);
        return m_records;
    }

  private:
    std::vector<recording::Record> m_records;
};

/// The whole library over a loopback origin, on the television in pass-through mode.
class SessionFixture : public testing::Test {
  protected:
    explicit SessionFixture(int speed = kSpeed,
                            tvset::Decoding decoding = tvset::Decoding::PassThrough);
    ~SessionFixture() override;

    /// Builds the files; the manifest is served at Manifest().
    void Serve(const Presentation& presentation);
    std::string Manifest() const { return m_origin.Url("film.smil"); }
    /// What the manifest says when it is fetched from `baseUrl`.
    std::string ManifestText(const std::string& baseUrl) const;
    OPALError Initialize(OPALWriterModel model = OPAL_WRITER_MODEL_PUSH) {
        return InitializeFrom(Manifest(), model);
    }
    OPALError InitializeFrom(const std::string& manifest,
                             OPALWriterModel model = OPAL_WRITER_MODEL_PUSH);
    /// Initialises, plays and waits until playback has started.
    void StartPlaying(const Presentation& presentation);

    /// False if the condition has not come true in that much real time.
    [[nodiscard]] static bool Eventually(const std::function<bool()>& condition,
                                         std::chrono::seconds timeout = std::chrono::seconds(20));
    [[nodiscard]] bool WaitForPosition(int64_t ms);
    /// Milliseconds that Finalize takes, with the library's clock at the speed of real time.
    int64_t FinalizeMs(const std::vector<OPALError>& answers = {OPAL_OK});

    static uint32_t Crc(const uint8_t* data, size_t size);
    /// Access units that reached the television since the journal began, as the journal has them.
    static std::vector<SeenBlock> Pushed(uint32_t streamType);
    /// What the television must get of a file: blocks with start codes in place of lengths for
    /// video.
    std::vector<SeenBlock> ExpectedBlocks(const std::string& file) const;
    /// Ranges of clusters asked for, in order: "level1/3" for cluster 3 of level 1.
    std::vector<std::string> ClusterRequests() const;

    ScaledClock m_clock;
    origin::Origin m_origin;
    RecordingListener m_listener;
    std::unique_ptr<FinalizedController> m_player;
    std::map<std::string, package::BuiltFile> m_files;
    std::map<std::string, std::vector<package::Cluster>> m_media;
    Presentation m_presentation;

  private:
    void AddFile(const std::string& name, const package::TrackDescription& track,
                 std::vector<package::Cluster> clusters);
};

}  // namespace opal::test
