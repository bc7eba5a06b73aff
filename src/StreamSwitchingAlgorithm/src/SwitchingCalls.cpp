#include "StreamSwitchingAlgorithm/src/SwitchingCalls.h"

#include <algorithm>
#include <utility>

#include "SMILParser/IAudioTrack.h"
#include "SMILParser/IVideoLevel.h"
#include "StreamingDemux/EBML/IClusterIndex.h"

namespace {

constexpr size_t kMostLevels = 64;  // bits of openIndexes

}  // namespace

void SwitchingCalls::TellLevels(const Levels& levels, const AudioTracks& audioTracks) {
    m_openIndexes = 0;
    opal::SessionEventStream::IfObserved([&] {
        Event event = Begin(Kind::SetLevels);
        for (const auto& level : levels)
            event.levels.push_back({level->GetURI(), level->GetBitrate(), level->GetVBVSize()});
        for (const auto& track : audioTracks)
            event.audioTracks.push_back(
                {track->GetLanguage(), track->GetReservedBandwidth(), !track->GetURI().empty()});
        Tell(std::move(event));
    });
}

void SwitchingCalls::TellSetter(Kind kind, int64_t value) {
    if (!AreObserved())
        return;
    Event event = Begin(kind);
    event.value = value;
    Tell(std::move(event));
}

void SwitchingCalls::TellIndexes(const std::vector<IClusterIndex*>* indexes) {
    m_indexes = indexes;
    TellSetter(Kind::SetClusterIndexes, indexes != nullptr);
}

void SwitchingCalls::TellDownload(OPALStreamType type,
                                  const StreamSwitchingNotify::Message& message) {
    if (!AreObserved())
        return;
    // The table belongs to the video's manager, so only what comes from its thread looks at it.
    if (type == OPAL_STREAM_VIDEO)
        opal::SessionEventStream::IfObserved([this] { m_openIndexes = OpenIndexes(); });
    Event event = Begin(Kind::Download);
    event.stream = type;
    event.downloadMs = message.downloadTime;
    event.downloadBytes = message.downloadSize;
    event.bufferedMs = message.bufferedDuration;
    event.sinceStartMs = message.timeSinceStart;
    event.cluster = static_cast<int64_t>(message.clusterIndex);
    Tell(std::move(event));
}

void SwitchingCalls::TellRestart(OPALStreamType type, bool invalidates) {
    if (!AreObserved())
        return;
    Event event = Begin(Kind::Restart);
    event.stream = type;
    event.invalidates = invalidates;
    Tell(std::move(event));
}

SwitchingCalls::Event SwitchingCalls::Question(Kind kind) {
    Event event;
    event.kind = kind;
    event.timeUs = opal::SessionEventStream::NowUs();
    return event;
}

void SwitchingCalls::TellAnswer(Event&& question, int64_t answer, bool decides) {
    int64_t& last = m_lastAnswers.at(static_cast<size_t>(question.kind));
    if (!decides && last == answer)
        return;
    if (decides)
        m_lastAnswers.fill(kNoAnswer);
    last = answer;
    question.answer = answer;
    question.openIndexes = m_openIndexes;
    opal::SessionEventStream::Tell(std::move(question));
}

SwitchingCalls::Event SwitchingCalls::Begin(Kind kind) {
    Event event = Question(kind);
    event.openIndexes = m_openIndexes;
    return event;
}

void SwitchingCalls::Tell(Event&& event) {
    m_lastAnswers.fill(kNoAnswer);
    opal::SessionEventStream::Tell(std::move(event));
}

/// Tells the indexes that are new, too.
uint64_t SwitchingCalls::OpenIndexes() {
    uint64_t open = 0;
    const size_t count = m_indexes ? std::min(m_indexes->size(), kMostLevels) : 0;
    for (size_t level = 0; level < count; ++level) {
        const IClusterIndex* index = (*m_indexes)[level];
        if (!index)
            continue;
        open |= uint64_t{1} << level;
        if ((m_openIndexes >> level) & 1)
            continue;
        opal::LevelIndexEvent event;
        event.level = level;
        for (size_t i = 0; i < index->GetCount(); ++i)
            event.clusterBytes.push_back(index->GetSize(i));
        opal::SessionEventStream::Tell(std::move(event));
    }
    return open;
}
