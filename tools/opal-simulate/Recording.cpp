#include "opal-simulate/Recording.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "Common/Clock.h"
#include "opal-simulate/SimulatedClock.h"
#include "opal-simulate/SimulatedStreams.h"

namespace opal::simulate {
namespace {

using nlohmann::json;
using Kind = Recording::Kind;

constexpr size_t kMaxLevels = 64;   // bits of openIndexes
constexpr int64_t kMaxTime = 1e12;  // ms; no session lasts thirty years

json ToJson(const Recording::Call& call) {
    return {{"kind", static_cast<int>(call.kind)},
            {"now_ms", call.nowMs},
            {"open_indexes", call.openIndexes},
            {"type", static_cast<int>(call.type)},
            {"event", call.event},
            {"download_time", call.message.downloadTime},
            {"download_size", call.message.downloadSize},
            {"buffered", call.message.bufferedDuration},
            {"time_since_start", call.message.timeSinceStart},
            {"cluster", call.message.clusterIndex},
            {"value", call.value},
            {"answer", call.answer}};
}

bool IsTime(int64_t ms) {
    return ms >= -kMaxTime && ms <= kMaxTime;
}

Recording::Call CallFromJson(const json& in) {
    Recording::Call call;
    const int kind = in.at("kind").get<int>();
    if (kind < 0 || kind > static_cast<int>(Kind::GetExcessBuffer))
        throw std::runtime_error("a call of no known kind");
    call.kind = static_cast<Kind>(kind);
    call.nowMs = in.at("now_ms").get<double>();
    call.openIndexes = in.at("open_indexes").get<uint64_t>();
    call.type = static_cast<OPALStreamType>(in.at("type").get<int>());
    call.event = in.at("event").get<int>();
    if (call.kind == Kind::Event && call.event != StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE &&
        call.event != StreamSwitchingNotify::EVENT_RESTART)
        throw std::runtime_error("an event of no known number");
    call.message.downloadTime = in.at("download_time").get<int64_t>();
    call.message.downloadSize = in.at("download_size").get<int64_t>();
    call.message.bufferedDuration = in.at("buffered").get<int64_t>();
    call.message.timeSinceStart = in.at("time_since_start").get<int64_t>();
    if (!(std::abs(call.nowMs) <= kMaxTime) || !IsTime(call.message.downloadTime) ||
        !IsTime(call.message.bufferedDuration) || !IsTime(call.message.timeSinceStart))
        throw std::runtime_error("a call at a time that cannot be");
    call.message.clusterIndex = in.at("cluster").get<size_t>();
    call.value = in.at("value").get<int64_t>();
    call.answer = in.at("answer").get<int64_t>();
    return call;
}

}  // namespace

std::vector<int> Recording::Decisions() const {
    std::vector<int> decisions;
    for (const Call& call : calls) {
        if (call.kind == Kind::GetCurrentLevel)
            decisions.push_back(static_cast<int>(call.answer));
    }
    return decisions;
}

std::string Recording::ToJson() const {
    json out;
    for (const Level& level : levels)
        out["levels"].push_back(
            {{"uri", level.uri}, {"bitrate", level.bitrate}, {"vbv", level.vbv}});
    out["audio_tracks"] = audioTracks;
    out["cluster_sizes"] = clusterSizes;
    for (const Call& call : calls)
        out["calls"].push_back(simulate::ToJson(call));
    return out.dump(1);
}

Recording Recording::FromJson(const std::string& text) {
    try {
        const json in = json::parse(text);
        Recording recording;
        for (const json& level : in.at("levels"))
            recording.levels.push_back({level.at("uri").get<std::string>(),
                                        level.at("bitrate").get<int>(),
                                        level.at("vbv").get<int>()});
        recording.audioTracks =
            in.at("audio_tracks").get<std::vector<std::pair<std::string, int>>>();
        recording.clusterSizes = in.at("cluster_sizes").get<std::vector<std::vector<int64_t>>>();
        for (const json& call : in.at("calls"))
            recording.calls.push_back(CallFromJson(call));
        if (recording.levels.size() > kMaxLevels ||
            recording.clusterSizes.size() > recording.levels.size())
            throw std::runtime_error("too many levels");
        return recording;
    } catch (const std::exception& error) {
        throw std::runtime_error(std::string("not a recording: ") + error.what());
    }
}

Recording Replay(const Recording& recording) {
    const std::unique_ptr<IStreamSwitchingController> controller(NewStreamSwitchingController());
    std::vector<boost::shared_ptr<IVideoLevel>> levels;
    for (const Recording::Level& level : recording.levels)
        levels.push_back(boost::make_shared<SimulatedLevel>(level.uri, level.bitrate, level.vbv));
    std::vector<boost::shared_ptr<IAudioTrack>> tracks;
    for (const auto& [language, reserved] : recording.audioTracks)
        tracks.push_back(boost::make_shared<SimulatedAudio>(language, reserved));
    std::vector<std::unique_ptr<IClusterIndex>> storage;
    for (const std::vector<int64_t>& sizes : recording.clusterSizes)
        storage.push_back(std::make_unique<SimulatedIndex>(sizes));
    std::vector<IClusterIndex*> indexes(recording.levels.size(), nullptr);

    Recording result = recording;
    for (Recording::Call& call : result.calls) {
        SimulatedClock::SetNowMs(call.nowMs);
        for (size_t level = 0; level < storage.size(); ++level)
            indexes[level] = (call.openIndexes >> level) & 1 ? storage[level].get() : nullptr;
        switch (call.kind) {
            case Kind::SetLevels:
                (void)controller->SetLevels(levels, tracks);
                break;
            case Kind::SetBandwidth:
                controller->SetBandwidth(static_cast<int>(call.value));
                break;
            case Kind::SetStartupTime:
                controller->SetStartupTime(call.value);
                break;
            case Kind::SetAudioBitrate:
                controller->SetAudioBitrate(static_cast<int>(call.value));
                break;
            case Kind::SetClusterIndexes:
                controller->SetClusterIndexes(call.value ? &indexes : nullptr);
                break;
            case Kind::Event:
                controller->GetNotify()->Notify(
                    call.type, static_cast<StreamSwitchingNotify::event>(call.event), call.message);
                break;
            case Kind::GetCurrentLevel:
                call.answer = controller->GetCurrentLevel();
                break;
            case Kind::IsVideoBuffered:
                call.answer = controller->IsVideoBuffered();
                break;
            case Kind::GetExcessBuffer:
                call.answer = controller->GetVideoExcessBuffer();
                break;
        }
    }
    return result;
}

RecordingSwitchingController::RecordingSwitchingController(IStreamSwitchingController* inner,
                                                           std::shared_ptr<Recording> recording)
    : m_inner(inner), m_recording(std::move(recording)), m_notify(this), m_start(opal::Now()) {}

RecordingSwitchingController::~RecordingSwitchingController() {
    m_notify.Clear();
}

Recording::Call& RecordingSwitchingController::Record(Kind kind, int64_t value,
                                                      OPALStreamType type) {
    Recording::Call call;
    call.kind = kind;
    call.nowMs = static_cast<double>((opal::Now() - m_start).total_microseconds()) / 1000.0;
    // The table belongs to the video's manager: a report from another thread must not look at it.
    if (type == OPAL_STREAM_VIDEO)
        m_openIndexes = OpenIndexes();
    call.openIndexes = m_openIndexes;
    call.value = value;
    m_recording->calls.push_back(call);
    return m_recording->calls.back();
}

uint64_t RecordingSwitchingController::OpenIndexes() {
    uint64_t open = 0;
    const size_t count = m_indexes ? std::min(m_indexes->size(), kMaxLevels) : 0;
    m_recording->clusterSizes.resize(std::max(m_recording->clusterSizes.size(), count));
    for (size_t level = 0; level < count; ++level) {
        const IClusterIndex* index = (*m_indexes)[level];
        if (!index)
            continue;
        open |= uint64_t{1} << level;
        std::vector<int64_t>& sizes = m_recording->clusterSizes[level];
        for (size_t i = sizes.size(); i < index->GetCount(); ++i)
            sizes.push_back(index->GetSize(i));
    }
    return open;
}

int RecordingSwitchingController::GetCurrentLevel() {
    std::lock_guard<std::mutex> lock(m_mutex);
    const int level = m_inner->GetCurrentLevel();
    Record(Kind::GetCurrentLevel).answer = level;
    return level;
}

int RecordingSwitchingController::GetTrickLevel() {
    return m_inner->GetTrickLevel();
}

OPALError RecordingSwitchingController::SetLevels(
    const std::vector<boost::shared_ptr<IVideoLevel>>& levels,
    const std::vector<boost::shared_ptr<IAudioTrack>>& audioTracks) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& level : levels)
        m_recording->levels.push_back({level->GetURI(), level->GetBitrate(), level->GetVBVSize()});
    for (const auto& track : audioTracks)
        m_recording->audioTracks.emplace_back(track->GetLanguage(), track->GetReservedBandwidth());
    Record(Kind::SetLevels);
    return m_inner->SetLevels(levels, audioTracks);
}

int RecordingSwitchingController::GetVideoExcessBuffer() {
    std::lock_guard<std::mutex> lock(m_mutex);
    const int ms = m_inner->GetVideoExcessBuffer();
    Record(Kind::GetExcessBuffer).answer = ms;
    return ms;
}

int RecordingSwitchingController::GetAudioExcessBuffer() {
    return m_inner->GetAudioExcessBuffer();
}

bool RecordingSwitchingController::IsVideoBuffered() {
    std::lock_guard<std::mutex> lock(m_mutex);
    const bool buffered = m_inner->IsVideoBuffered();
    Record(Kind::IsVideoBuffered).answer = buffered;
    return buffered;
}

bool RecordingSwitchingController::IsAudioBuffered() {
    return m_inner->IsAudioBuffered();
}

InitialBandwidthMode RecordingSwitchingController::GetInitialBandwidthMode() {
    return m_inner->GetInitialBandwidthMode();
}

int RecordingSwitchingController::GetBandwidth() {
    return m_inner->GetBandwidth();
}

void RecordingSwitchingController::SetBandwidth(int bandwidth) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Record(Kind::SetBandwidth, bandwidth);
    m_inner->SetBandwidth(bandwidth);
}

void RecordingSwitchingController::SetStartupTime(int64_t ms) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Record(Kind::SetStartupTime, ms);
    m_inner->SetStartupTime(ms);
}

StreamSwitchingNotify* RecordingSwitchingController::GetNotify() {
    return &m_notify;
}

int64_t RecordingSwitchingController::GetMaxBuffer() {
    return m_inner->GetMaxBuffer();
}

void RecordingSwitchingController::SetAudioBitrate(int bitrate) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Record(Kind::SetAudioBitrate, bitrate);
    m_inner->SetAudioBitrate(bitrate);
}

void RecordingSwitchingController::GetBufferRequirement(int& ms, OPALStreamType type) {
    m_inner->GetBufferRequirement(ms, type);
}

void RecordingSwitchingController::SetClusterIndexes(const std::vector<IClusterIndex*>* indexes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_indexes = indexes;
    Record(Kind::SetClusterIndexes, indexes != nullptr);
    m_inner->SetClusterIndexes(indexes);
}

void RecordingSwitchingController::eventHandler(OPALStreamType type,
                                                StreamSwitchingNotify::event what,
                                                const Message& message) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Recording::Call& call = Record(Kind::Event, 0, type);
    call.type = type;
    call.event = what;
    call.message = message;
    m_inner->GetNotify()->Notify(type, what, message);
}

void RecordingSwitchingController::eventHandler(OPALStreamType type,
                                                StreamSwitchingNotify::event what, int, int) {
    eventHandler(type, what, Message());
}

}  // namespace opal::simulate
