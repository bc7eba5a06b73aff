#include "StreamingController/src/Session.h"

#include <algorithm>
#include <utility>

#include "Common/Clock.h"
#include "Common/SessionEventStream.h"
#include "Common/StreamingTuning.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "PlatformAdapter/Common/IPlatform.h"
#include "SMILParser/ISMILParser.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamSwitchingAlgorithm/PlaybackRules.h"
#include "StreamingController/BufferingSession.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingDemux/EBML/IClusterIndex.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"

namespace {

const boost::posix_time::ptime kEpoch(boost::gregorian::date(1970, 1, 1));
// How often the session's observer is told of buffers and sinks.
constexpr int64_t kBuffersPeriodMs = 199;
constexpr int64_t kSinksPeriodMs = 999;

}  // namespace

// It binds references to what the controller's lock guards, and the compiler has no name for that
// lock where they are used.
StreamingController::Session::Session(StreamingController& c) OPAL_NO_THREAD_SAFETY_ANALYSIS
    : reports(c.m_pNotify, c.m_positionSeconds),
      objects{c.m_pSMILParser,   c.m_pSwitching, c.m_pReaders,    c.m_pReaderNotify, c.m_buffering,
              c.m_writersPaused, c.m_playRate,   c.m_writerModel, c.m_objectsMutex},
      video(OPAL_STREAM_VIDEO, objects, c.m_pVideoBuffer, c.m_pVideoWriter, c.m_pVideoPlatform),
      audio(OPAL_STREAM_AUDIO, objects, c.m_pAudioBuffer, c.m_pAudioWriter, c.m_pAudioPlatform),
      subtitle(OPAL_STREAM_SUBTITLE, objects, c.m_pSubtitleBuffer, c.m_pSubtitleWriter,
               c.m_pSubtitlePlatform),
      audioRoad(objects, reports, audio,
                {[&c] { return c.NewAudioSink(c.m_hArch, c.m_hTimer); },
                 [&c](const void* in, size_t inSize, const void*& out, size_t& outSize) {
                     return c.AdaptAudioHeader(in, inSize, out, outSize);
                 },
                 [this](int64_t& ms) { return GetPosition(ms); }}),
      subtitles(
          objects, subtitle,
          {c.m_subtitlesOn, c.m_savedWritersPaused, c.m_subtitleTargetBytes, c.m_pSubtitleNotify},
          {[&c] { return c.NewSubtitleSink(c.m_hArch, c.m_hTimer); },
           [&c](const void* in, size_t inSize, const void*& out, size_t& outSize) {
               return c.AdaptSubtitleHeader(in, inSize, out, outSize);
           },
           [this](int64_t& ms) { return GetPosition(ms); }},
          [&c] { return c.NewClusterBuffer(opal::playback::kAudioBufferBytes); },
          [&c] {
              auto* notify = new SubtitleNotify;
              notify->controller = &c;
              return notify;
          }),
      ticket(c.m_pProtectedContent) {}

void StreamingController::Session::Reset() {
    audioRoad.Reset();
    subtitles.Reset();
    reportAudio = false;
    levelSwitch = LevelSwitch();
    stopRequested = false;
    startSequence = stopSequence = 0;
    jumpPending = false;
    jumpTarget = -1;
    positionAtStart = 0;
    abandonRule.Reset();
    jumpStarting = false;
    m_told = Told();
}

/// An operation that starts playback was accepted: a stop from before it no longer holds.
void StreamingController::Session::AcceptStart() {
    ++startSequence;
    stopRequested = false;
}

// A subtitle stream that is switched off, or still being prepared, is not to fetch anything.
OPALError StreamingController::Session::StartReaders() {
    OPALError code = audioRoad.StartReader();
    if (code == OPAL_OK)
        code = video.StartReader();
    return code == OPAL_OK ? subtitles.StartReader() : code;
}

// A level switch from decision to sink. Nothing is flushed: clusters of the old level stay in the
// buffer, the new level's land behind them, and the change reaches the sink at a cluster boundary.
// A level that is not open yet is opened by the reader manager's thread; the switch is reported
// when the level is there. -7: a transfer runs, and the switch waits for its end.
OPALError StreamingController::Session::SwitchLevel(bool giveUpOpening) {
    using State = LevelSwitch::State;
    const size_t wanted = objects.LevelFromSwitching();
    if (video.CurrentIndex() == wanted || (levelSwitch.Is(State::Opens) && !giveUpOpening))
        return OPAL_OK;
    if (!giveUpOpening) {
        // Stopped first, so that no transfer begins behind the question.
        const OPALError stopped = objects.readers->StopVideo();
        if (stopped != OPAL_OK)
            return stopped;
        if (levelSwitch.Is(State::GivesUpTransfer))
            return OPAL_ERROR_NOT_YET;  // this decision is from before the collapse
        if (objects.readers->IsVideoTransferring()) {
            levelSwitch.state = State::WaitsForTransfer;
            return OPAL_ERROR_NOT_YET;
        }
    }
    return GoToLevel(wanted);
}

/// The next cluster comes from `level`.
OPALError StreamingController::Session::GoToLevel(size_t level) {
    const size_t current = video.CurrentIndex();
    int64_t position = 0;
    levelSwitch.EndWaiting();
    OPALError code = objects.readers->StopVideo();
    if (code == OPAL_OK)
        code = objects.readers->GetVideoPosition(position);
    if (code == OPAL_OK)
        code = objects.readers->BeginVideoStream(level);
    if (code == OPAL_OK)
        code = objects.readers->SeekVideo(position);
    if (code == OPAL_OK)
        code = objects.readers->StartVideo();
    if (code != OPAL_OK)
        return code;
    if (levelSwitch.Is(LevelSwitch::State::None))
        levelSwitch = {LevelSwitch::State::Opens, current};
    EndLevelSwitch();
    return OPAL_OK;
}

// Asked on every turn of the loop, so the reader manager only if there is something to ask it for.
OPALError StreamingController::Session::GiveUpSlowTransfer(bool playing) {
    if (levelSwitch.Is(LevelSwitch::State::GivesUpTransfer))
        return EndSlowTransfer();
    if (!playing || !AlgorithmConfig::Instance().GetAbandonTransfers() ||
        levelSwitch.Is(LevelSwitch::State::Opens) || objects.playRate != OPAL_PLAYRATE_ONEX ||
        !objects.readers->IsVideoTransferring())
        return OPAL_OK;
    opal::playback::AbandonRule::Transfer transfer;
    std::vector<int64_t> clusterBytes;
    if (!DescribeTransfer(transfer, clusterBytes))
        return OPAL_OK;
    const auto level = abandonRule.Ask(transfer, clusterBytes);
    if (!level)
        return OPAL_OK;
    levelSwitch = {LevelSwitch::State::GivesUpTransfer, *level, transfer.cluster};
    reports.SlowTransfer(transfer, *level, objects.ReportedBandwidth());
    const OPALError code = objects.readers->StopVideo();
    return code == OPAL_OK ? objects.readers->CancelSlowVideo() : code;
}

// The transfer may come to its end before the cancel reaches it, so the level is changed only when
// it is over; the position is then that of the first cluster that is missing.
OPALError StreamingController::Session::EndSlowTransfer() {
    if (objects.readers->IsVideoTransferring()) {
        opal::playback::AbandonRule::Transfer running;
        std::vector<int64_t> clusterBytes;
        if (!DescribeTransfer(running, clusterBytes))
            return OPAL_OK;
        if (running.cluster != levelSwitch.cluster) {
            // It has come to its end after all: this is the next, or the last one's very end,
            // behind which something may have stopped the reader meanwhile.
            levelSwitch.EndWaiting();
            return video.ReaderState() == STREAMING_READER_STOPPED ? video.StartReader() : OPAL_OK;
        }
        (void)objects.readers->StopVideo();  // something may have started the level anew
        return objects.readers->CancelSlowVideo();
    }
    const size_t level = levelSwitch.level;
    levelSwitch.EndWaiting();
    // The transfer may have come to its end after all, and been the last.
    if (level < video.CurrentIndex() && video.ReaderState() != STREAMING_READER_END)
        return GoToLevel(level);
    return video.StartReader();
}

/// The video transfer that runs, and its cluster as the levels have it. False if that is not known.
bool StreamingController::Session::DescribeTransfer(opal::playback::AbandonRule::Transfer& transfer,
                                                    std::vector<int64_t>& clusterBytes) {
    const std::vector<IClusterIndex*>& indexes = objects.readers->GetVideoClusterIndexes();
    transfer.level = video.CurrentIndex();
    int64_t time = 0;
    ClusterIndexEntry entry;
    if (transfer.level >= indexes.size() || !indexes[transfer.level] ||
        objects.readers->GetVideoPosition(time) != OPAL_OK ||
        indexes[transfer.level]->FindByTime(time, entry) != OPAL_OK)
        return false;
    transfer.nowMs = opal::ToMilliseconds(opal::Now() - kEpoch);
    transfer.cluster = static_cast<size_t>(entry.index);
    transfer.received = static_cast<int64_t>(video.BytesInFlight());
    transfer.bufferedMs = video.BufferedDuration();
    for (const IClusterIndex* index : indexes)
        clusterBytes.push_back(index ? index->GetSize(transfer.cluster) : 0);
    return true;
}

/// Reports a switch whose level is open by now.
void StreamingController::Session::EndLevelSwitch() {
    if (!levelSwitch.Is(LevelSwitch::State::Opens) ||
        video.ReaderState() == STREAMING_READER_NOT_OPEN)
        return;
    // The listener may begin another switch.
    const size_t from = std::exchange(levelSwitch, LevelSwitch()).level;
    const size_t to = video.CurrentIndex();
    // In trick play the current reader is no level; and a level that failed was never switched to.
    if (to != from && to < objects.parser->GetVideoLevelCount() && video.ReaderError() == OPAL_OK)
        reports.LevelChange(*objects.parser, from, to, objects.ReportedBandwidth());
}

/// Where playback is. Behind a jump, until the sink's position has moved, that is where the jump
/// leads.
OPALError StreamingController::Session::GetPosition(int64_t& ms) {
    const OPALError code = video.Sink()->GetPosition(ms);
    int64_t& target = jumpTarget;
    if (code != OPAL_OK || target < 0)
        return code;
    if (jumpPending || ms == positionAtStart)
        ms = target;
    else
        target = -1;
    return OPAL_OK;
}

/// Empties the streams for a jump, in the order of `pipes`. `position` is where playback was.
OPALError StreamingController::Session::EmptyStreams(bool subtitlesFirst, int64_t& position) {
    const auto between = [&] { return GetPosition(position); };
    OPALError code = OPAL_OK;
    if (!subtitles.IsOn())
        code = opal::StreamPipe::Empty({&video, &audio}, true, between);
    else if (subtitlesFirst)
        code = opal::StreamPipe::Empty({&subtitle, &video, &audio}, true, between);
    else
        code = opal::StreamPipe::Empty({&video, &audio, &subtitle}, true, between);
    jumpPending = true;
    if (code != OPAL_OK)
        return code;
    abandonRule.Reset();
    levelSwitch.EndWaiting();
    jumpStarting = true;
    objects.RestartSwitching(OPAL_STREAM_VIDEO);
    video.Buffer()->SetMaxDuration(objects.switching->GetMaxBuffer());
    objects.RestartSwitching(OPAL_STREAM_AUDIO);
    objects.RestartSwitching(OPAL_STREAM_SUBTITLE);
    return OPAL_OK;
}

OPALError StreamingController::Session::GetBufferingProgress(size_t& percent) {
    percent = 0;
    if (!objects.buffering.IsActive() || !objects.readers)
        return OPAL_ERROR_NOT_READY;
    size_t inFlight = 0;
    for (opal::StreamPipe* pipe : {&video, &audio, &subtitle})
        if (!objects.buffering.IsStreamComplete(pipe->Type()))
            inFlight += pipe->BytesInFlight();
    objects.buffering.UpdatePercent(inFlight);
    return objects.buffering.GetPercent(percent);
}

void StreamingController::Session::ObserveBuffers(bool playing) {
    if (playing == m_told.playing && !opal::IsOver(m_told.buffers, kBuffersPeriodMs))
        return;
    const bool sinks = opal::IsOver(m_told.sinks, kSinksPeriodMs);
    m_told = {opal::Now(), sinks ? opal::Now() : m_told.sinks, playing};
    opal::BufferEvent event;
    int64_t position = 0;
    if (video.Sink() && GetPosition(position) == OPAL_OK)
        event.positionMs = position;
    reports.ObservePosition(event.positionMs);
    event.videoMs = video.BufferedDuration();
    event.audioMs = audio.BufferedDuration();
    event.subtitleMs = subtitle.BufferedDuration();
    event.underflowMs = opal::playback::kUnderflowMs;
    int required = 0;
    objects.switching->GetBufferRequirement(required, OPAL_STREAM_VIDEO);
    event.requiredVideoMs = required;
    objects.switching->GetBufferRequirement(required, OPAL_STREAM_AUDIO);
    event.requiredAudioMs = required;
    event.maxVideoMs = std::max<int64_t>(objects.switching->GetMaxBuffer(), 0);
    event.bandwidth = objects.switching->GetBandwidth();
    if (video.CurrentIndex() < objects.parser->GetVideoLevelCount())  // else a trick track
        event.level = video.CurrentIndex();
    event.playing = playing;
    opal::SessionEventStream::Tell(std::move(event));
    for (opal::StreamPipe* pipe : {&video, &audio, &subtitle}) {
        opal::SinkEvent taken;
        if (sinks && pipe->GetSinkFigures(taken))
            opal::SessionEventStream::Tell(std::move(taken));
    }
}

/// Playback has been declared started.
void StreamingController::Session::MarkStarted() {
    if (std::exchange(jumpStarting, false))
        (void)video.Sink()->GetPosition(positionAtStart);
}

/// A message that begins playback behind a jump is handled.
void StreamingController::Session::EndJump() {
    if (jumpPending)
        (void)video.Sink()->GetPosition(positionAtStart);
    jumpPending = false;
}

void StreamingController::Session::PostPulseErrors() {
    for (const opal::TicketSession::Failure& failure : ticket.TakeFailures()) {
        qutl::MemoryBuffer<unsigned char> text;
        text.Assign(reinterpret_cast<const unsigned char*>(failure.text.data()),
                    failure.text.size(), 0, false);
        LogServer::Instance().PostOrDestroy(
            LogEventFactory::Instance().NewPulseErrorLogEvent(failure.code, text));
    }
}

bool StreamingController::Session::HasRoomForTrickCluster() {
    return video.Buffer()->GetBufferedDuration() <
           StreamingTuning::Instance().GetTrickClusterDuration();
}
