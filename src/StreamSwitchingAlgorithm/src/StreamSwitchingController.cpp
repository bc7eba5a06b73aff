#include "StreamSwitchingAlgorithm/src/StreamSwitchingController.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "Common/StreamingTuning.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "SMILParser/IAudioTrack.h"
#include "SMILParser/IVideoLevel.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"

namespace {

using Lock = opal::MutexLock;
using boost::posix_time::milliseconds;
using Algorithm = VideoStreamSwitchingAlgorithm;
using Kind = SwitchingCalls::Kind;

constexpr int kMaxUsefulAudioBuffer = 16000;
/// With fewer levels a probe is not worth its time.
constexpr size_t kMinLevelsForProbe = 3;
const char kReservedLanguage[] = "eng";

/// A period that seems to have begun in the future is over: the wall clock was set back.
bool IsOver(int64_t elapsed, int64_t period) {
    return elapsed < 0 || elapsed > period;
}

int Saturate(int64_t value) {
    return static_cast<int>(
        std::clamp(value, int64_t{0}, static_cast<int64_t>(std::numeric_limits<int>::max())));
}

}  // namespace

IStreamSwitchingController* NewStreamSwitchingController() {
    return new StreamSwitchingController;
}

StreamSwitchingController::StreamSwitchingController()
    : m_notify(this), m_algorithm(new VideoStreamSwitchingAlgorithm) {}

StreamSwitchingController::~StreamSwitchingController() {
    m_notify.Clear();
}

template <typename Answer>
auto StreamSwitchingController::Ask(SwitchingCalls::Kind kind, Answer answer) {
    if (!SwitchingCalls::AreObserved())
        return answer(*m_algorithm);
    const bool decides = m_algorithm->IsDirty();
    SwitchingCalls::Event question = SwitchingCalls::Question(kind);
    const auto result = answer(*m_algorithm);
    m_calls.TellAnswer(std::move(question), result, decides);
    return result;
}

int StreamSwitchingController::GetCurrentLevel() {
    Lock lock(m_mutex);
    return Ask(Kind::GetCurrentLevel,
               [](Algorithm& algorithm) { return algorithm.GetCurrentLevel(); });
}

int StreamSwitchingController::GetTrickLevel() {
    return 0;
}

OPALError StreamSwitchingController::SetLevels(
    const std::vector<boost::shared_ptr<IVideoLevel>>& levels,
    const std::vector<boost::shared_ptr<IAudioTrack>>& audioTracks) {
    Lock lock(m_mutex);
    m_calls.TellLevels(levels, audioTracks);
    m_algorithm->Reset();
    m_algorithm->StampStartTime();
    for (const auto& level : levels) {
        if (!level->GetURI().empty())
            m_algorithm->AddLevel(level->GetURI(), level->GetBitrate(), level->GetVBVSize());
    }

    // The bandwidth of the English track is reserved, else the first track's; what the application
    // plays later does not change that.
    boost::shared_ptr<IAudioTrack> reserved;
    for (const auto& track : audioTracks) {
        if (track->GetURI().empty())
            continue;
        const bool english = track->GetLanguage() == kReservedLanguage;
        if (!reserved || english)
            reserved = track;
        if (english)
            break;
    }
    if (reserved)
        StoreAudioBitrate(reserved->GetReservedBandwidth());
    return OPAL_OK;
}

int StreamSwitchingController::GetVideoExcessBuffer() {
    Lock lock(m_mutex);
    return Ask(Kind::GetExcessBuffer,
               [](Algorithm& algorithm) { return algorithm.GetExcessBuffer(); });
}

int StreamSwitchingController::GetAudioExcessBuffer() {
    Lock lock(m_mutex);
    return std::max(0, m_audioBuffered - std::min(m_audioDelay, kMaxUsefulAudioBuffer));
}

bool StreamSwitchingController::IsVideoBuffered() {
    Lock lock(m_mutex);
    return Ask(Kind::IsVideoBuffered,
               [](Algorithm& algorithm) { return algorithm.IsVideoBuffered(); });
}

bool StreamSwitchingController::IsAudioBuffered() {
    Lock lock(m_mutex);
    return m_audioBuffered >= m_audioDelay;
}

InitialBandwidthMode StreamSwitchingController::GetInitialBandwidthMode() {
    Lock lock(m_mutex);
    if (m_algorithm->GetLevelCount() < kMinLevelsForProbe)
        return InitialBandwidthMode_LowestLevel;
    return AlgorithmConfig::Instance().GetInitialBandwidthDecision();
}

int StreamSwitchingController::GetBandwidth() {
    Lock lock(m_mutex);
    return m_bandwidth;
}

void StreamSwitchingController::SetBandwidth(int bandwidth) {
    Lock lock(m_mutex);
    m_calls.TellSetter(Kind::SetBandwidth, bandwidth);
    StoreBandwidth(bandwidth);
}

/// The block time is in whole seconds as it stands, and is later added to milliseconds. That
/// mixture is deliberate: it makes a small allowance that shrinks fast with rising bandwidth.
void StreamSwitchingController::StoreBandwidth(int bandwidth) {
    m_algorithm->SetReservedBandwidth(m_audioBitrate);
    m_algorithm->SetBandwidth(bandwidth);
    m_blockTime = 0;
    if (bandwidth > 0)
        m_blockTime = int64_t{StreamingTuning::Instance().GetSwitchBlockBytes()} * 8 / bandwidth;
    m_algorithm->Invalidate();
}

void StreamSwitchingController::SetStartupTime(int64_t ms) {
    Lock lock(m_mutex);
    m_calls.TellSetter(Kind::SetStartupTime, ms);
    m_algorithm->SetStartupDelay(ms + m_blockTime * 2);
}

StreamSwitchingNotify* StreamSwitchingController::GetNotify() {
    return &m_notify;
}

int64_t StreamSwitchingController::GetMaxBuffer() {
    Lock lock(m_mutex);
    const AlgorithmConfig& config = AlgorithmConfig::Instance();
    return m_lastLevel == -1 ? config.GetMaxBufferFromEmpty() : config.GetMaxBuffer();
}

void StreamSwitchingController::SetAudioBitrate(int bitrate) {
    Lock lock(m_mutex);
    m_calls.TellSetter(Kind::SetAudioBitrate, bitrate);
    StoreAudioBitrate(bitrate);
}

/// Audio needs two seconds, whatever its rate.
void StreamSwitchingController::StoreAudioBitrate(int bitrate) {
    m_audioBitrate = bitrate;
    m_audioBufferSize = int64_t{bitrate} * 2;
    m_audioDelay = 0;
    if (bitrate != 0)
        m_audioDelay = static_cast<int>(static_cast<double>(m_audioBufferSize) /
                                        static_cast<double>(m_audioBitrate) * 1000.0);
}

void StreamSwitchingController::GetBufferRequirement(int& ms, OPALStreamType type) {
    Lock lock(m_mutex);
    ms = 0;
    if (type == OPAL_STREAM_VIDEO)
        m_algorithm->GetRequiredDelay(ms);
    else if (type == OPAL_STREAM_AUDIO)
        ms = m_audioDelay;
}

void StreamSwitchingController::SetClusterIndexes(const std::vector<IClusterIndex*>* indexes) {
    Lock lock(m_mutex);
    m_calls.TellIndexes(indexes);
    m_algorithm->SetClusterIndexes(indexes);
}

std::string StreamSwitchingController::GetLevelURI() {
    Lock lock(m_mutex);
    return m_algorithm->GetLevelURI(m_algorithm->GetCurrentLevel());
}

std::string StreamSwitchingController::GetLevelURI(int level) {
    Lock lock(m_mutex);
    return m_algorithm->GetLevelURI(level);
}

bool StreamSwitchingController::HasAudioBitrate() {
    Lock lock(m_mutex);
    return m_audioBitrate > 0;
}

void StreamSwitchingController::eventHandler(OPALStreamType type, StreamSwitchingNotify::event what,
                                             const Message& message) {
    Lock lock(m_mutex);
    if (what == StreamSwitchingNotify::EVENT_RESTART) {
        m_calls.TellRestart(type, false);
        OnRestart(type);
    } else {
        OPAL_ASSERT(what == StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE, "0");
        m_calls.TellDownload(type, message);
        OnDownloadComplete(type, message);
    }
}

void StreamSwitchingController::eventHandler(OPALStreamType type, StreamSwitchingNotify::event what,
                                             int, int) {
    Lock lock(m_mutex);
    OPAL_ASSERT(what == StreamSwitchingNotify::EVENT_RESTART, "0");
    m_calls.TellRestart(type, true);
    OnRestart(type);
    m_algorithm->Invalidate();
}

void StreamSwitchingController::OnDownloadComplete(OPALStreamType type, const Message& message) {
    // A clock that was set back must not make a negative duration.
    const int64_t downloadTime = std::max(int64_t{0}, message.downloadTime);
    const auto downloadSize = static_cast<uint32_t>(message.downloadSize);
    m_monitor.AddSample(
        BandwidthSample(downloadSize, message.timeSinceStart - downloadTime, downloadTime));
    if (type == OPAL_STREAM_AUDIO)
        m_audioBuffered = Saturate(message.bufferedDuration);
    if (type != OPAL_STREAM_VIDEO)
        return;

    m_algorithm->SetDownloadResult(static_cast<int>(downloadSize), Saturate(downloadTime),
                                   Saturate(message.bufferedDuration),
                                   static_cast<int>(message.clusterIndex));
    m_algorithm->SetReservedBandwidth(m_audioBitrate);
    m_bandwidth = m_monitor.GetBandwidth(message.timeSinceStart);
    // The algorithm's own setter: an estimate of 0 is routine here, and the block time stays.
    m_algorithm->SetBandwidth(m_bandwidth);
    m_algorithm->Invalidate();
    const int level = m_algorithm->GetCurrentLevel();
    UpdateStability(level, downloadTime);
    UpdateMode(level, downloadTime);
    m_lastLevel = level;
}

void StreamSwitchingController::UpdateStability(int level, int64_t downloadTime) {
    const boost::posix_time::ptime now = opal::Now();
    if (m_stableSince.is_not_a_date_time()) {
        m_stableSince = now - milliseconds(downloadTime);
        m_stableDuration = downloadTime;
    }
    if (level != m_lastLevel && m_stableDuration > 0 && m_lastLevel != -1) {
        m_stableSince = now;
        m_stableDuration = 0;
    } else {
        m_stableDuration = opal::ToMilliseconds(now - m_stableSince);
    }
}

void StreamSwitchingController::UpdateMode(int level, int64_t downloadTime) {
    if (m_mode == AlgorithmConfig::kSteady && level < m_lastLevel)
        SwitchMode(AlgorithmConfig::kAgile);
    if (m_mode != AlgorithmConfig::kAgile)
        return;

    const boost::posix_time::ptime now = opal::Now();
    int64_t elapsed = downloadTime;
    if (m_agileStart.is_not_a_date_time())
        m_agileStart = now - milliseconds(downloadTime);
    else
        elapsed = opal::ToMilliseconds(now - m_agileStart);
    const AlgorithmConfig& config = AlgorithmConfig::Instance();
    if (config.GetDisableSteadyState())
        return;
    if (IsOver(elapsed, config.GetMaxSecondsInAgileMode()) ||
        IsOver(m_stableDuration, config.GetMinSecondsInAgileMode()))
        SwitchMode(AlgorithmConfig::kSteady);
}

void StreamSwitchingController::OnRestart(OPALStreamType type) {
    if (type != OPAL_STREAM_VIDEO)
        return;
    SwitchMode(AlgorithmConfig::kAgile);
    m_stableSince = opal::Now();
    m_stableDuration = 0;
    m_lastLevel = -1;
    m_algorithm->Restart();
}

void StreamSwitchingController::SwitchMode(int mode) {
    LogServer::Instance().PostOrDestroy(
        LogEventFactory::Instance().NewAlgorithmModeChangeLogEvent(mode));
    if (mode == AlgorithmConfig::kAgile)
        m_agileStart = opal::Now();
    m_mode = mode;
    m_algorithm->SetMode(mode);
}
