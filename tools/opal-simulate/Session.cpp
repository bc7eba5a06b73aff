#include "opal-simulate/Session.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <deque>
#include <memory>
#include <numeric>
#include <utility>

#include "Common/StreamingTuning.h"
#include "Common/network/BandwidthProbe.h"
#include "StreamSwitchingAlgorithm/PlaybackRules.h"
#include "opal-simulate/LevelRule.h"
#include "opal-simulate/ProbedLink.h"
#include "opal-simulate/SessionRecorder.h"
#include "opal-simulate/SimulatedClock.h"
#include "opal-simulate/SimulatedStreams.h"

namespace opal::simulate {
namespace {

constexpr double kTurnMs = playback::kTurnMs;
constexpr double kManagerPollMs = StreamingTuning::GetReaderPoll();
/// What opening a file transfers beside its index: the answer to the header request, the file's
/// header, and the first bytes of the index.
constexpr double kOpenBytes[] = {0.0, 1000.0, StreamingTuning::GetIndexHeaderBytes()};
constexpr double kManifestBytes = 4000.0;
constexpr double kCuePointBytes = 20.0;
/// How often a recording is told of the buffers.
constexpr double kBuffersPeriodMs = 200.0;

/// One stream's reader and buffer.
struct Stream {
    size_t level = 0;
    size_t nextCluster = 0;
    Transfer transfer;
    bool awake = false;  ///< its manager polls, rather than wait for the loop
    double nextPollMs = 0.0;
    int64_t maxDurationMs = -1;
    int64_t capacity = 0;
    int64_t usedBytes = 0;
    double sinkAheadMs = 0.0;                         ///< what the sink takes ahead of its position
    std::deque<std::pair<int64_t, size_t>> clusters;  ///< bytes and level of each
    int64_t takenEndMs = 0;                           ///< media time the writer has taken up to

    int64_t BufferedMs(double positionMs) const {
        return static_cast<int64_t>(clusters.size()) * Film::kClusterMs + takenEndMs -
               static_cast<int64_t>(positionMs);
    }
};

class Session : private BandwidthProbeNotify, private ProbedLink {
  public:
    Session(const Film& film, const Trace& trace, const PlayOptions& options)
        : m_film(film), m_link(trace), m_options(options) {
        m_result.trace = trace.name;
        m_video.capacity = playback::kVideoBufferBytes;
        m_video.sinkAheadMs = StreamingTuning::GetVideoSinkAhead();
        m_audio.capacity = playback::kAudioBufferBytes;
        m_audio.sinkAheadMs = StreamingTuning::GetAudioSinkAhead();
    }

    Result Run();

  private:
    enum class Message { Start, VideoCluster, AudioCluster };

    void OnProbe(int kind, int64_t size, int64_t duration) override;
    bool TransferAlone(const RequestLabel& label, double bytes) override;
    int64_t FileSize() const override;

    void Initialize();
    /// What opening a file transfers, request by request.
    std::vector<std::pair<RequestLabel, double>> Opening(OPALStreamType type, size_t index) const;
    bool OpenAlone(OPALStreamType type, size_t index);
    void StartPlayback();

    void Step();
    void PassTime(double ms);
    void CompleteTransfers();
    void PollManager(Stream& stream, bool video);
    void CompleteCluster(Stream& stream, bool video);
    void TakeClusters(Stream& stream, bool video);
    void AdvancePlayback(double ms);

    void LoopTurn();
    void Handle(Message message);
    void HandleVideoCluster();
    void SwitchLevel();
    void ContinueOpening();
    void WakeAudio();
    void Wake(Stream& stream, double waitMs = 0.0);
    void SetLevel(size_t level);
    void EnterLevel(size_t level);
    void ConsiderAbandoning();
    bool IsReadyToStart();
    void CheckUnderflow();

    void Record(const RequestLabel& label, const Transfer& transfer, RequestEnd end) const;
    void RecordCluster(const Stream& stream, bool video, RequestEnd end) const;
    void RecordState(SessionState state, size_t to = static_cast<size_t>(-1)) const;
    void RecordBuffers();

    bool IsTimedOut(const Transfer& transfer) const;
    bool AtEnd(const Stream& stream) const { return stream.nextCluster >= m_film.ClusterCount(); }
    int64_t ClusterSize(const Stream& stream, bool video) const;
    double NowMs() const { return m_link.NowMs(); }

    const Film& m_film;
    Link m_link;
    const PlayOptions& m_options;
    Result m_result;

    std::unique_ptr<LevelRule> m_rule;
    std::vector<std::unique_ptr<IClusterIndex>> m_indexes;
    std::vector<IClusterIndex*> m_openIndexes;

    Stream m_video;
    Stream m_audio;
    LevelRule::Sizes m_sizes;  ///< the levels' sizes of the cluster that video transfers
    double m_initDoneMs = 0.0;

    std::deque<Message> m_queue;
    bool m_playing = false;
    bool m_started = false;  ///< has ever played
    bool m_paused = true;
    bool m_audioAhead = false;
    double m_waitMs = 0.0;  ///< what the rule wants waited before the next video transfer
    bool m_failed = false;
    double m_positionMs = 0.0;
    double m_stallSinceMs = 0.0;

    /// What is still to be transferred before a switch takes effect: the levels on the way are
    /// opened.
    std::deque<std::pair<RequestLabel, double>> m_toFetch;
    Transfer m_fetch;
    size_t m_wantedLevel = 0;

    double m_nextBuffersMs = 0.0;  ///< when the recording is told of the buffers again
    bool m_playingTold = false;
};

bool Session::TransferAlone(const RequestLabel& label, double bytes) {
    if (m_failed)  // the transfer that failed still stands in the link's list
        return false;
    Transfer transfer;
    m_link.Start(transfer, bytes);
    while (!transfer.IsDone()) {
        SimulatedClock::SetNowMs(NowMs());
        if (m_options.recorder)
            m_options.recorder->AddLink(m_link.BytesPerMs());
        m_link.Advance(kTurnMs);
        if (IsTimedOut(transfer)) {
            m_failed = true;
            break;
        }
    }
    SimulatedClock::SetNowMs(NowMs());
    Record(label, transfer, m_failed ? RequestEnd::Failed : RequestEnd::Complete);
    return !m_failed;
}

int64_t Session::FileSize() const {
    int64_t size = 0;
    for (int64_t cluster : m_film.levels.front().clusterSizes)
        size += cluster;
    return size;
}

void Session::OnProbe(int, int64_t size, int64_t duration) {
    m_rule->OnProbe(playback::ProbedBandwidth(size, duration));
}

std::vector<std::pair<RequestLabel, double>> Session::Opening(OPALStreamType type,
                                                              size_t index) const {
    std::vector<std::pair<RequestLabel, double>> requests;
    for (double bytes : kOpenBytes)
        requests.emplace_back(RequestLabel{RequestPurpose::Header, type, index, -1}, bytes);
    requests.front().first.purpose = RequestPurpose::Size;
    requests.emplace_back(requests.back().first,
                          kCuePointBytes * static_cast<double>(m_film.ClusterCount()));
    return requests;
}

bool Session::OpenAlone(OPALStreamType type, size_t index) {
    for (const auto& [label, bytes] : Opening(type, index)) {
        if (!TransferAlone(label, bytes))
            return false;
    }
    return true;
}

void Session::Initialize() {
    SimulatedClock::SetNowMs(0.0);
    for (const Film::Level& level : m_film.levels)
        m_indexes.push_back(std::make_unique<SimulatedIndex>(level.clusterSizes));
    m_openIndexes.assign(m_film.levels.size(), nullptr);
    RecordState(SessionState::Opening);
    const RequestLabel manifest = {RequestPurpose::Manifest, OPAL_STREAM_NONE};
    if (!TransferAlone(manifest, 0.0) || !TransferAlone(manifest, kManifestBytes))
        return;
    m_rule = NewLevelRule(m_options.rule, m_film, m_openIndexes, m_options.bolaBufferMs);
    m_initDoneMs = NowMs();
    const auto probe = [this] {
        const StreamingTuning& tuning = StreamingTuning::Instance();
        return BandwidthProbe(this, tuning.GetProbeInitialSize(), tuning.GetProbeDuration())
                   .Probe("level0") == OPAL_OK;
    };
    m_video.level = m_rule->ChooseStart(probe, [this] { return static_cast<int64_t>(NowMs()); });
    for (size_t level = 0; level <= m_video.level && !m_failed; ++level) {
        if (OpenAlone(OPAL_STREAM_VIDEO, level))
            m_openIndexes[level] = m_indexes[level].get();
    }
}

void Session::StartPlayback() {
    if (m_film.audioBitrate > 0 && !OpenAlone(OPAL_STREAM_AUDIO, 0))
        return;
    if (m_options.recorder)
        m_options.recorder->AddState(SessionState::Opened, m_video.level, m_film.DurationMs());
    RecordState(SessionState::PlayWanted);
    if (m_film.audioBitrate > 0)
        Wake(m_audio);
    Wake(m_video);
    m_paused = false;
    m_queue.push_back(Message::Start);
}

Result Session::Run() {
    ProbedLink::SetCurrent(this);
    Initialize();
    if (!m_failed)
        StartPlayback();
    while (!m_failed && !m_result.finished && NowMs() < m_options.limitMs)
        Step();
    if (m_started && !m_playing && !m_result.finished)
        m_result.stallMs += NowMs() - m_stallSinceMs;
    m_result.playMs = m_positionMs;
    if (m_result.finished)
        RecordState(SessionState::EndOfStream);
    RecordState(SessionState::Closed);
    ProbedLink::SetCurrent(nullptr);
    return m_result;
}

void Session::Step() {
    PassTime(kTurnMs);
    ConsiderAbandoning();
    PollManager(m_video, true);
    if (m_film.audioBitrate > 0)
        PollManager(m_audio, false);
    const bool opening = !m_toFetch.empty();
    LoopTurn();
    if (opening)
        ContinueOpening();
    RecordBuffers();
}

void Session::PassTime(double ms) {
    while (ms > 1e-9) {
        const double passed = m_link.Advance(ms);
        SimulatedClock::SetNowMs(NowMs());
        AdvancePlayback(passed);
        CompleteTransfers();
        ms -= passed;
    }
}

void Session::AdvancePlayback(double ms) {
    if (!m_playing || m_paused)
        return;
    TakeClusters(m_video, true);
    TakeClusters(m_audio, false);
    m_positionMs = std::min(m_positionMs + ms, static_cast<double>(m_video.takenEndMs));
}

void Session::TakeClusters(Stream& stream, bool video) {
    while (!stream.clusters.empty() &&
           static_cast<double>(stream.takenEndMs) <= m_positionMs + stream.sinkAheadMs) {
        const auto [bytes, level] = stream.clusters.front();
        stream.clusters.pop_front();
        stream.usedBytes -= bytes;
        stream.takenEndMs += Film::kClusterMs;
        if (video) {
            m_result.bitrateSum += m_film.levels[level].bitrate;
            ++m_result.clusters;
        }
    }
}

bool Session::IsTimedOut(const Transfer& transfer) const {
    const auto timeoutMs =
        1000.0 * static_cast<double>(StreamingTuning::Instance().GetTransferTimeout());
    return transfer.active && !transfer.IsDone() && NowMs() - transfer.startMs >= timeoutMs;
}

/// A transfer that takes too long ends the session: nothing above the transport tries again.
void Session::CompleteTransfers() {
    if (IsTimedOut(m_fetch)) {
        m_failed = true;
        Record(m_toFetch.front().first, m_fetch, RequestEnd::Failed);
    }
    for (const Stream* stream : {&m_video, &m_audio}) {
        if (!IsTimedOut(stream->transfer))
            continue;
        m_failed = true;
        RecordCluster(*stream, stream == &m_video, RequestEnd::Failed);
    }
    if (m_video.transfer.IsDone())
        CompleteCluster(m_video, true);
    if (m_audio.transfer.IsDone())
        CompleteCluster(m_audio, false);
}

int64_t Session::ClusterSize(const Stream& stream, bool video) const {
    return video ? m_film.levels[stream.level].clusterSizes[stream.nextCluster]
                 : int64_t{m_film.audioBitrate} * Film::kClusterMs / 8000;
}

void Session::Wake(Stream& stream, double waitMs) {
    if (stream.awake)
        return;
    stream.awake = true;
    stream.nextPollMs = NowMs() + std::max(kManagerPollMs, waitMs);
}

/// One round of a reader manager: the next cluster, if there is room for its bytes.
void Session::PollManager(Stream& stream, bool video) {
    if (!stream.awake || stream.transfer.active || NowMs() + 1e-6 < stream.nextPollMs)
        return;
    stream.nextPollMs = NowMs() + kManagerPollMs;
    if (AtEnd(stream)) {
        stream.awake = false;
        return;
    }
    const int64_t size = ClusterSize(stream, video);
    if (size > stream.capacity)
        m_failed = true;
    else if (size <= stream.capacity - stream.usedBytes)
        m_link.Start(stream.transfer, static_cast<double>(size));
    if (video && stream.transfer.active) {
        m_sizes.clear();
        for (const Film::Level& level : m_film.levels)
            m_sizes.push_back(level.clusterSizes[stream.nextCluster]);
    }
}

/// A transfer that is given up starts again, for the same cluster from another level.
void Session::ConsiderAbandoning() {
    if (!m_playing || !m_video.transfer.active)
        return;
    const int64_t received =
        ClusterSize(m_video, true) - static_cast<int64_t>(std::ceil(m_video.transfer.bytesLeft));
    const auto level = m_rule->Abandon({std::llround(NowMs()), m_video.nextCluster, m_video.level,
                                        received, m_video.BufferedMs(m_positionMs)},
                                       m_sizes);
    if (!level)
        return;
    RecordCluster(m_video, true, RequestEnd::SlowTransfer);
    if (m_options.recorder)
        m_options.recorder->AddSlowTransfer(m_video.level, *level, m_video.nextCluster, received,
                                            m_video.BufferedMs(m_positionMs));
    m_link.Cancel(m_video.transfer);
    m_video.nextPollMs = NowMs() + kManagerPollMs;
    m_result.bytes += received;
    ++m_result.abandoned;
    SetLevel(*level);
    EnterLevel(*level);
}

void Session::CompleteCluster(Stream& stream, bool video) {
    const int64_t size = ClusterSize(stream, video);
    m_result.bytes += size;
    RecordCluster(stream, video, RequestEnd::Complete);
    StreamSwitchingNotify::Message sample;
    sample.downloadTime = std::llround(NowMs() - stream.transfer.startMs);
    sample.downloadSize = size;
    sample.timeSinceStart = std::llround(NowMs() - m_initDoneMs);
    sample.clusterIndex = stream.nextCluster;
    stream.transfer.active = false;
    stream.nextPollMs = NowMs() + kManagerPollMs;
    if (video)
        stream.maxDurationMs = m_rule->MaxBufferMs();

    const auto queuedMs = static_cast<int64_t>(stream.clusters.size()) * Film::kClusterMs;
    if (stream.maxDurationMs > 0 && queuedMs + Film::kClusterMs > stream.maxDurationMs) {
        ++m_result.refetches;  // the bytes are lost, and the same cluster comes again
        return;
    }
    stream.clusters.emplace_back(size, stream.level);
    stream.usedBytes += size;
    ++stream.nextCluster;
    if (video)
        m_result.levels.push_back(static_cast<int>(stream.level));
    stream.awake = false;
    sample.bufferedDuration = stream.BufferedMs(m_positionMs);

    const auto before = std::chrono::steady_clock::now();
    m_rule->OnDownload(video ? OPAL_STREAM_VIDEO : OPAL_STREAM_AUDIO, sample);
    if (video) {
        m_result.decisionNs +=
            std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - before)
                .count();
        ++m_result.decisions;
    }
    m_queue.push_back(video ? Message::VideoCluster : Message::AudioCluster);
}

void Session::LoopTurn() {
    if (m_playing && AtEnd(m_video) && m_video.clusters.empty() &&
        static_cast<double>(m_video.takenEndMs) - m_positionMs <=
            StreamingTuning::GetEndOfStreamRest()) {
        m_result.finished = true;
        return;
    }
    if (!m_queue.empty()) {
        const Message message = m_queue.front();
        m_queue.pop_front();
        Handle(message);
    }
    CheckUnderflow();
}

void Session::Handle(Message message) {
    switch (message) {
        case Message::Start:
            m_playing = IsReadyToStart();
            if (!m_playing) {
                m_queue.push_back(Message::Start);
            } else {
                m_paused = false;
                if (m_started)
                    m_result.stallMs += NowMs() - m_stallSinceMs;
                else
                    m_result.startupMs = NowMs();
                m_started = true;
                RecordState(SessionState::Playing, m_video.level);
            }
            break;
        case Message::VideoCluster:
            HandleVideoCluster();
            break;
        case Message::AudioCluster:
            if (!m_audioAhead)
                Wake(m_audio);
            break;
    }
}

void Session::HandleVideoCluster() {
    m_waitMs = 0.0;
    if (!AtEnd(m_video))
        SwitchLevel();
    if (m_toFetch.empty())
        Wake(m_video, m_waitMs);
    WakeAudio();
}

/// Unless it is too far ahead.
void Session::WakeAudio() {
    if (m_film.audioBitrate == 0)
        return;
    m_audioAhead = playback::IsAudioTooFarAhead(m_audio.BufferedMs(m_positionMs),
                                                m_video.BufferedMs(m_positionMs));
    if (!m_audioAhead)
        Wake(m_audio);
}

void Session::SwitchLevel() {
    const auto before = std::chrono::steady_clock::now();
    const auto choice = m_rule->Choose(m_playing, m_video.BufferedMs(m_positionMs));
    m_result.decisionNs +=
        std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - before).count();
    if (!choice)
        return;
    m_waitMs = choice->waitMs;
    if (m_options.listener)
        m_options.listener(NowMs(), m_video.nextCluster, static_cast<int>(choice->level));
    if (choice->level == m_video.level)
        return;
    SetLevel(choice->level);
    for (size_t i = 0; i <= m_wantedLevel; ++i) {
        if (m_openIndexes[i])
            continue;
        const auto requests = Opening(OPAL_STREAM_VIDEO, i);
        m_toFetch.insert(m_toFetch.end(), requests.begin(), requests.end());
    }
    if (m_toFetch.empty())
        EnterLevel(m_wantedLevel);
}

/// Counts a switch; the level takes effect when its file is open.
void Session::SetLevel(size_t level) {
    m_wantedLevel = level;
    ++m_result.switches;
    m_result.stepSum += std::abs(static_cast<int>(level) - static_cast<int>(m_video.level));
}

void Session::EnterLevel(size_t level) {
    if (m_options.recorder)
        m_options.recorder->AddState(SessionState::Level, level, 0, m_video.level);
    m_video.level = level;
}

/// The files of the levels up to the wanted one are opened, one request after the other, while the
/// loop goes on.
void Session::ContinueOpening() {
    if (m_fetch.IsDone()) {
        Record(m_toFetch.front().first, m_fetch, RequestEnd::Complete);
        m_fetch.active = false;
        m_toFetch.pop_front();
    }
    if (m_fetch.active)
        return;
    if (!m_toFetch.empty()) {
        m_link.Start(m_fetch, m_toFetch.front().second);
        return;
    }
    for (size_t i = 0; i <= m_wantedLevel; ++i)
        m_openIndexes[i] = m_indexes[i].get();
    EnterLevel(m_wantedLevel);
    Wake(m_video, m_waitMs);
}

bool Session::IsReadyToStart() {
    return m_rule->IsReadyToPlay(m_video.BufferedMs(m_positionMs), AtEnd(m_video));
}

void Session::CheckUnderflow() {
    if (!m_playing || !playback::IsUnderflow(m_video.BufferedMs(m_positionMs), AtEnd(m_video)))
        return;
    m_paused = true;
    m_playing = false;
    m_rule->OnUnderflow();
    m_queue.push_back(Message::Start);
    ++m_result.stalls;
    m_stallSinceMs = NowMs();
    RecordState(SessionState::Underflow);
}

void Session::Record(const RequestLabel& label, const Transfer& transfer, RequestEnd end) const {
    if (m_options.recorder)
        m_options.recorder->AddRequest(label, transfer, 0, end);
}

void Session::RecordCluster(const Stream& stream, bool video, RequestEnd end) const {
    if (!m_options.recorder)
        return;
    int64_t offset = ClusterSize(stream, video) * static_cast<int64_t>(stream.nextCluster);
    if (video) {
        const std::vector<int64_t>& sizes = m_film.levels[stream.level].clusterSizes;
        offset = std::accumulate(sizes.begin(),
                                 sizes.begin() + static_cast<std::ptrdiff_t>(stream.nextCluster),
                                 int64_t{0});
    }
    m_options.recorder->AddRequest(
        {RequestPurpose::Cluster, video ? OPAL_STREAM_VIDEO : OPAL_STREAM_AUDIO, stream.level,
         static_cast<int64_t>(stream.nextCluster)},
        stream.transfer, offset, end);
}

void Session::RecordState(SessionState state, size_t to) const {
    if (m_options.recorder)
        m_options.recorder->AddState(state, to);
}

void Session::RecordBuffers() {
    if (!m_options.recorder)
        return;
    m_options.recorder->AddLink(m_link.BytesPerMs());
    if (m_playing == m_playingTold && NowMs() < m_nextBuffersMs)
        return;
    m_nextBuffersMs = NowMs() + kBuffersPeriodMs;
    m_playingTold = m_playing;
    BufferEvent event;
    event.positionMs = static_cast<int64_t>(m_positionMs);
    event.videoMs = m_video.BufferedMs(m_positionMs);
    event.audioMs = m_film.audioBitrate > 0 ? m_audio.BufferedMs(m_positionMs) : 0;
    event.underflowMs = playback::kUnderflowMs;
    event.level = m_video.level;
    event.playing = m_playing;
    m_rule->Describe(event);
    m_options.recorder->Add(event);
}

}  // namespace

Result Play(const Film& film, const Trace& trace, const PlayOptions& options) {
    return Session(film, trace, options).Run();
}

}  // namespace opal::simulate
