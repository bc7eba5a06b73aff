#include "StreamingController/src/Session.h"

#include "PlatformAdapter/Common/IPlatform.h"
#include "SMILParser/ISMILParser.h"
#include "StreamSwitchingAlgorithm/PlaybackRules.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"

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
    switchingFrom = kNone;
    stopRequested = false;
    startSequence = stopSequence = 0;
    jumpPending = false;
    jumpTarget = -1;
    positionAtStart = 0;
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
    size_t& from = switchingFrom;
    const size_t current = video.CurrentIndex();
    const size_t wanted = objects.LevelFromSwitching();
    if (current == wanted || (from != kNone && !giveUpOpening))
        return OPAL_OK;
    if (!giveUpOpening && objects.readers->IsVideoTransferring())
        return OPAL_ERROR_NOT_YET;
    int64_t position = 0;
    OPALError code = objects.readers->StopVideo();
    if (code == OPAL_OK)
        code = objects.readers->GetVideoPosition(position);
    if (code == OPAL_OK)
        code = objects.readers->BeginVideoStream(wanted);
    if (code == OPAL_OK)
        code = objects.readers->SeekVideo(position);
    if (code == OPAL_OK)
        code = objects.readers->StartVideo();
    if (code != OPAL_OK)
        return code;
    if (from == kNone)
        from = current;
    EndLevelSwitch();
    return OPAL_OK;
}

/// Reports a switch whose level is open by now.
void StreamingController::Session::EndLevelSwitch() {
    size_t& from = switchingFrom;
    if (from == kNone || video.ReaderState() == STREAMING_READER_NOT_OPEN)
        return;
    const size_t to = video.CurrentIndex();
    // In trick play the current reader is no level; and a level that failed was never switched to.
    if (to != from && to < objects.parser->GetVideoLevelCount() && video.ReaderError() == OPAL_OK)
        reports.LevelChange(*objects.parser, from, to, objects.ReportedBandwidth());
    from = kNone;
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
    objects.RestartSwitching(OPAL_STREAM_VIDEO);
    video.Buffer()->SetMaxDuration(objects.switching->GetMaxBuffer());
    objects.RestartSwitching(OPAL_STREAM_AUDIO);
    objects.RestartSwitching(OPAL_STREAM_SUBTITLE);
    return OPAL_OK;
}
