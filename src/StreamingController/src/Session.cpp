#include "StreamingController/src/Session.h"

#include "StreamSwitchingAlgorithm/PlaybackRules.h"

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
                 [&c](int64_t& ms) {
                     c.m_mutex.AssertHeld();
                     return c.GetPlaybackPosition(ms);
                 }}),
      subtitles(
          objects, subtitle,
          {c.m_subtitlesOn, c.m_savedWritersPaused, c.m_subtitleTargetBytes, c.m_pSubtitleNotify},
          {[&c] { return c.NewSubtitleSink(c.m_hArch, c.m_hTimer); },
           [&c](const void* in, size_t inSize, const void*& out, size_t& outSize) {
               return c.AdaptSubtitleHeader(in, inSize, out, outSize);
           },
           [&c](int64_t& ms) {
               c.m_mutex.AssertHeld();
               return c.GetPlaybackPosition(ms);
           }},
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
