#include "opal-simulate/LevelRule.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <string>

#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamSwitchingAlgorithm/PlaybackRules.h"
#include "opal-simulate/SimulatedStreams.h"

namespace opal::simulate {
namespace {

/// The library's own: its switching controller under the rules of a session.
class BuiltInRule : public LevelRule {
  public:
    BuiltInRule(const Film& film, const std::vector<IClusterIndex*>& indexes)
        : m_film(film), m_indexes(indexes) {
        std::vector<boost::shared_ptr<IVideoLevel>> levels;
        for (size_t i = 0; i < film.levels.size(); ++i)
            levels.push_back(boost::make_shared<SimulatedLevel>(
                "level" + std::to_string(i), film.levels[i].bitrate, film.levels[i].vbv));
        std::vector<boost::shared_ptr<IAudioTrack>> tracks;
        if (film.audioBitrate > 0)
            tracks.push_back(boost::make_shared<SimulatedAudio>("eng", film.audioBitrate));
        (void)m_switching->SetLevels(levels, tracks);
    }

    size_t ChooseStart(const std::function<bool()>& probe,
                       const std::function<int64_t()>& elapsedMs) override {
        const size_t level =
            playback::ChooseStart(*m_switching, m_film.levels.size(), probe, elapsedMs).level;
        m_switching->SetClusterIndexes(&m_indexes);
        return level;
    }
    void OnProbe(int bandwidth) override { m_switching->SetBandwidth(bandwidth); }
    void OnDownload(OPALStreamType type, const StreamSwitchingNotify::Message& sample) override {
        m_switching->GetNotify()->Notify(type, StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE,
                                         sample);
    }
    void OnUnderflow() override {
        m_switching->GetNotify()->Notify(OPAL_STREAM_VIDEO, StreamSwitchingNotify::EVENT_RESTART,
                                         StreamSwitchingNotify::Message());
    }
    std::optional<Choice> Choose(bool playing, int64_t) override {
        if (!playback::MaySwitchLevel(playing, true, false))
            return std::nullopt;
        return Choice{playback::LevelOf(m_switching->GetCurrentLevel(), m_film.levels.size()), 0.0};
    }
    bool IsReadyToPlay(int64_t, bool videoAtEnd) override {
        return playback::IsReadyToPlay(m_switching->IsVideoBuffered(), m_film.audioBitrate > 0,
                                       m_switching->IsAudioBuffered(), videoAtEnd);
    }
    int64_t MaxBufferMs() override { return m_switching->GetMaxBuffer(); }
    std::optional<size_t> Abandon(const Transfer& transfer, const Sizes& sizes) override {
        return AlgorithmConfig::Instance().GetAbandonTransfers() ? m_abandon.Ask(transfer, sizes)
                                                                 : std::nullopt;
    }
    void Describe(BufferEvent& event) override {
        int required = 0;
        m_switching->GetBufferRequirement(required, OPAL_STREAM_VIDEO);
        event.requiredVideoMs = required;
        m_switching->GetBufferRequirement(required, OPAL_STREAM_AUDIO);
        event.requiredAudioMs = required;
        event.maxVideoMs = std::max<int64_t>(0, m_switching->GetMaxBuffer());
        event.bandwidth = m_switching->GetBandwidth();
    }

  private:
    const Film& m_film;
    const std::vector<IClusterIndex*>& m_indexes;
    const boost::scoped_ptr<IStreamSwitchingController> m_switching{NewStreamSwitchingController()};
    playback::AbandonRule m_abandon;
};

/// BOLA-E. It begins on the lowest level without a probe, and plays as soon as it has a cluster.
class BolaLevelRule : public LevelRule {
  public:
    BolaLevelRule(const Film& film, double bufferMs)
        : m_bola(Bitrates(film), Film::kClusterMs, bufferMs) {}

    size_t ChooseStart(const std::function<bool()>&, const std::function<int64_t()>&) override {
        return 0;
    }
    void OnProbe(int) override {}
    void OnDownload(OPALStreamType type, const StreamSwitchingNotify::Message& sample) override {
        if (type == OPAL_STREAM_VIDEO)
            m_bola.OnDownload(static_cast<double>(sample.downloadSize),
                              static_cast<double>(sample.downloadTime));
    }
    void OnUnderflow() override {}
    std::optional<Choice> Choose(bool, int64_t bufferedMs) override {
        const BolaRule::Choice choice = m_bola.Choose(static_cast<double>(bufferedMs));
        return Choice{choice.level, choice.waitMs};
    }
    bool IsReadyToPlay(int64_t bufferedMs, bool videoAtEnd) override {
        return bufferedMs >= Film::kClusterMs || videoAtEnd;
    }
    int64_t MaxBufferMs() override { return 0; }
    std::optional<size_t> Abandon(const Transfer& transfer, const Sizes& sizes) override {
        return m_bola.Abandon(transfer.level, static_cast<double>(sizes[transfer.level]),
                              static_cast<double>(transfer.received),
                              static_cast<double>(transfer.bufferedMs));
    }
    void Describe(BufferEvent& event) override { event.requiredVideoMs = Film::kClusterMs; }

  private:
    static std::vector<int> Bitrates(const Film& film) {
        std::vector<int> bitrates;
        for (const Film::Level& level : film.levels)
            bitrates.push_back(level.bitrate);
        return bitrates;
    }
    BolaRule m_bola;
};

}  // namespace

std::unique_ptr<LevelRule> NewLevelRule(RuleName name, const Film& film,
                                        const std::vector<IClusterIndex*>& indexes,
                                        double bolaBufferMs) {
    if (name == RuleName::BolaE)
        return std::make_unique<BolaLevelRule>(film, bolaBufferMs);
    return std::make_unique<BuiltInRule>(film, indexes);
}

}  // namespace opal::simulate
