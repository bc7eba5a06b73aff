#include "opal-simulate/Replay.h"

#include <boost/make_shared.hpp>
#include <memory>
#include <stdexcept>

#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "opal-simulate/SimulatedClock.h"
#include "opal-simulate/SimulatedStreams.h"

namespace opal::simulate {
namespace {

using Call = SwitchingCallEvent;
using Kind = Call::Kind;

constexpr size_t kMaxLevels = 64;              // bits of openIndexes
constexpr int64_t kMaxTimeMs = 1000000000000;  // no session lasts thirty years

bool IsTime(int64_t ms) {
    return ms >= -kMaxTimeMs && ms <= kMaxTimeMs;
}

/// A switching controller that is told and asked what a recorded one was.
class Player {
  public:
    Player(const Call& start, int64_t startUs) : m_startUs(startUs) {
        if (start.levels.size() > kMaxLevels)
            throw std::runtime_error("a session of more than 64 levels cannot be decided again");
        for (const Call::Level& level : start.levels)
            m_levels.push_back(
                boost::make_shared<SimulatedLevel>(level.uri, level.bitrate, level.vbv));
        for (const Call::AudioTrack& track : start.audioTracks)
            m_tracks.push_back(boost::make_shared<SimulatedAudio>(
                track.language, track.reservedBandwidth, track.hasUri ? "audio" : ""));
        m_sizes.resize(m_levels.size());
        m_indexes.resize(m_levels.size());
        m_open.resize(m_levels.size(), nullptr);
        SetTime(start);
        (void)m_switching->SetLevels(m_levels, m_tracks);
    }

    void Take(const LevelIndexEvent& event) {
        if (event.level >= m_sizes.size())
            throw std::runtime_error("the index of a level that is not there");
        m_indexes[event.level].reset();
        m_sizes[event.level] = event.clusterBytes;
        m_indexes[event.level] = std::make_unique<SimulatedIndex>(m_sizes[event.level]);
        m_open[event.level] = nullptr;
    }

    /// What a question is answered now; what any other call is answered, which is nothing, is 0.
    int64_t Take(const Call& call) {
        SetTime(call);
        for (size_t level = 0; level < m_open.size(); ++level)
            m_open[level] = (call.openIndexes >> level) & 1 ? m_indexes[level].get() : nullptr;
        switch (call.kind) {
            case Kind::SetBandwidth:
                m_switching->SetBandwidth(static_cast<int>(call.value));
                break;
            case Kind::SetStartupTime:
                m_switching->SetStartupTime(call.value);
                break;
            case Kind::SetAudioBitrate:
                m_switching->SetAudioBitrate(static_cast<int>(call.value));
                break;
            case Kind::SetClusterIndexes:
                m_switching->SetClusterIndexes(call.value != 0 ? &m_open : nullptr);
                break;
            case Kind::Download:
                TakeDownload(call);
                break;
            case Kind::Restart:
                TakeRestart(call);
                break;
            case Kind::GetCurrentLevel:
                return m_switching->GetCurrentLevel();
            case Kind::IsVideoBuffered:
                return m_switching->IsVideoBuffered() ? 1 : 0;
            case Kind::GetExcessBuffer:
                return m_switching->GetVideoExcessBuffer();
            case Kind::SetLevels:
                break;
        }
        return 0;
    }

  private:
    void SetTime(const Call& call) const {
        SimulatedClock::SetNowMs(static_cast<double>(call.timeUs - m_startUs) / 1000.0);
    }

    void TakeDownload(const Call& call) {
        if (!IsTime(call.downloadMs) || !IsTime(call.bufferedMs) || !IsTime(call.sinceStartMs) ||
            call.downloadBytes < 0 || call.downloadBytes > kMaxTimeMs || call.cluster < 0)
            throw std::runtime_error("a download that cannot be");
        StreamSwitchingNotify::Message message;
        message.downloadTime = call.downloadMs;
        message.downloadSize = call.downloadBytes;
        message.bufferedDuration = call.bufferedMs;
        message.timeSinceStart = call.sinceStartMs;
        message.clusterIndex = static_cast<size_t>(call.cluster);
        m_switching->GetNotify()->Notify(call.stream,
                                         StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE, message);
    }

    void TakeRestart(const Call& call) {
        StreamSwitchingNotify& notify = *m_switching->GetNotify();
        if (call.invalidates)
            notify.Notify(call.stream, StreamSwitchingNotify::EVENT_RESTART, 0, 0);
        else
            notify.Notify(call.stream, StreamSwitchingNotify::EVENT_RESTART,
                          StreamSwitchingNotify::Message());
    }

    const int64_t m_startUs;
    std::vector<boost::shared_ptr<IVideoLevel>> m_levels;
    std::vector<boost::shared_ptr<IAudioTrack>> m_tracks;
    std::vector<std::vector<int64_t>> m_sizes;  ///< of each level's clusters
    std::vector<std::unique_ptr<IClusterIndex>> m_indexes;
    std::vector<IClusterIndex*> m_open;
    // Looks at the indexes, so it goes first.
    const std::unique_ptr<IStreamSwitchingController> m_switching{NewStreamSwitchingController()};
};

}  // namespace

std::vector<Replayed> Replay(const std::vector<recording::Record>& records) {
    std::vector<Replayed> questions;
    std::unique_ptr<Player> player;
    int64_t startUs = 0;
    for (const recording::Record& record : records) {
        const auto* index = std::get_if<LevelIndexEvent>(&record);
        if (index && player)
            player->Take(*index);
        const auto* call = std::get_if<Call>(&record);
        if (!call)
            continue;
        if (call->kind == Kind::SetLevels) {
            startUs = call->timeUs;
            player = std::make_unique<Player>(*call, startUs);
        } else if (player) {
            const int64_t answer = player->Take(*call);
            if (call->kind >= Kind::GetCurrentLevel)
                questions.push_back({call->kind, call->timeUs - startUs, call->answer, answer});
        } else {
            throw std::runtime_error("it begins without a session's levels");
        }
    }
    return questions;
}

}  // namespace opal::simulate
