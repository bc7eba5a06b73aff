#include "recording/SessionWriter.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "recording/SessionNames.h"

namespace opal::recording {
namespace {

using Object = nlohmann::ordered_json;

Object Index(size_t index) {
    return index == static_cast<size_t>(-1) ? Object() : Object(index);
}

/// A field that is left out when it says nothing.
template <typename Value>
void AddUnless(Object& out, const char* key, const Value& value, const Value& nothing) {
    if (value != nothing)
        out[key] = value;
}

void AddNumber(Object& out, const char* key, int64_t value) {
    AddUnless<int64_t>(out, key, value, 0);
}

// One function a kind of event: its name and its fields.

const char* Write(const RequestEvent& in, Object& out) {
    out["purpose"] = Name(in.purpose);
    out["stream"] = Name(in.stream);
    out["index"] = Index(in.index);
    AddUnless<int64_t>(out, "cluster", in.cluster, -1);
    out["url"] = in.url;
    for (const auto& [offset, length] : in.ranges)
        out["ranges"].push_back({offset, length});
    out["wait_us"] = in.waitUs;
    out["transfer_us"] = in.transferUs;
    out["bytes"] = in.bytes;
    out["status"] = in.status;
    out["result"] = static_cast<int>(in.result);
    out["end"] = Name(in.end);
    return "request";
}

const char* Write(const DecisionEvent& in, Object& out) {
    out["rule"] = Name(in.rule);
    out["from"] = in.from < 0 ? Object() : Object(in.from);
    out["to"] = in.to < 0 ? Object() : Object(in.to);
    out["cluster"] = in.cluster;
    out["bandwidth_bps"] = in.bandwidth;
    out["reserved_bps"] = in.reservedBandwidth;
    out["available_bps"] = in.available;
    out["guarded_bps"] = in.guarded;
    out["target"] = in.target;
    out["candidate"] = in.candidate;
    out["buffered_ms"] = in.bufferedMs;
    out["required_ms"] = in.requiredMs;
    out["guard_ms"] = in.guardMs;
    out["held_ms"] = in.heldMs;
    out["download_bytes"] = in.downloadBytes;
    out["download_ms"] = in.downloadMs;
    out["mode"] = in.mode == 0 ? "agile" : "steady";
    return "decision";
}

const char* Write(const SwitchingCallEvent& in, Object& out) {
    using Kind = SwitchingCallEvent::Kind;
    out["kind"] = Name(in.kind);
    AddNumber(out, "value", in.value);
    AddNumber(out, "answer", in.answer);
    AddUnless<uint64_t>(out, "open_indexes", in.openIndexes, 0);
    for (const SwitchingCallEvent::Level& level : in.levels)
        out["levels"].push_back(
            {{"uri", level.uri}, {"bitrate_bps", level.bitrate}, {"vbv", level.vbv}});
    for (const SwitchingCallEvent::AudioTrack& track : in.audioTracks)
        out["audio_tracks"].push_back({{"language", track.language},
                                       {"reserved_bps", track.reservedBandwidth},
                                       {"has_uri", track.hasUri}});
    if (in.kind == Kind::Download || in.kind == Kind::Restart)
        out["stream"] = Name(in.stream);
    AddUnless(out, "invalidates", in.invalidates, false);
    AddNumber(out, "download_ms", in.downloadMs);
    AddNumber(out, "download_bytes", in.downloadBytes);
    AddNumber(out, "buffered_ms", in.bufferedMs);
    AddNumber(out, "since_start_ms", in.sinceStartMs);
    AddNumber(out, "cluster", in.cluster);
    return "call";
}

const char* Write(const LevelIndexEvent& in, Object& out) {
    out["level"] = Index(in.level);
    out["cluster_bytes"] = in.clusterBytes;
    return "index";
}

const char* Write(const BufferEvent& in, Object& out) {
    out["position_ms"] = in.positionMs;
    out["video_ms"] = in.videoMs;
    out["audio_ms"] = in.audioMs;
    out["subtitle_ms"] = in.subtitleMs;
    out["underflow_ms"] = in.underflowMs;
    out["required_video_ms"] = in.requiredVideoMs;
    out["required_audio_ms"] = in.requiredAudioMs;
    out["max_video_ms"] = in.maxVideoMs;
    out["bandwidth_bps"] = in.bandwidth;
    out["level"] = Index(in.level);
    out["playing"] = in.playing;
    return "buffers";
}

const char* Write(const StateEvent& in, Object& out) {
    const bool rated = in.state == SessionState::Playing || in.state == SessionState::Rate ||
                       in.state == SessionState::RateWanted;
    out["state"] = Name(in.state);
    AddUnless<int64_t>(out, "position_ms", in.positionMs, -1);
    if (in.state == SessionState::Opened || in.state == SessionState::Seek ||
        in.state == SessionState::Subtitle || in.state == SessionState::MediaFailed)
        out["value_ms"] = in.valueMs;
    AddNumber(out, "end_ms", in.endMs);
    if (in.state == SessionState::Level)
        out["from"] = Index(in.from);
    if (in.to != static_cast<size_t>(-1) || in.state == SessionState::SubtitleTrack)
        out["to"] = Index(in.to);
    if (rated)
        out["rate"] = Name(in.rate);
    AddNumber(out, "code", static_cast<int>(in.code));
    AddUnless(out, "text", in.text, std::string());
    if (in.state == SessionState::ClusterDamaged)
        out["stream"] = Name(in.stream);
    AddUnless<int64_t>(out, "cluster", in.cluster, -1);
    return "state";
}

const char* Write(const SinkEvent& in, Object& out) {
    out["stream"] = Name(in.stream);
    out["blocks"] = in.blocks;
    out["bytes"] = in.bytes;
    out["refused"] = in.refused;
    out["flushes"] = in.flushes;
    return "sink";
}

const char* Write(const PlayerEvent& in, Object& out) {
    out["shown"] = in.shown;
    out["dropped"] = in.dropped;
    out["decoded"] = in.decoded;
    out["errors"] = in.errors;
    out["audio_ms"] = in.audioMs;
    AddNumber(out, "queued_video", in.queuedVideo);
    AddNumber(out, "queued_audio", in.queuedAudio);
    return "player";
}

const char* Write(const LinkEvent& in, Object& out) {
    out["bps"] = in.bitsPerSecond < 0 ? Object() : Object(in.bitsPerSecond);
    return "link";
}

const char* Write(const DroppedEvent& in, Object& out) {
    out["total"] = in.total;
    return "dropped";
}

const char* Write(const EndEvent& in, Object& out) {
    AddNumber(out, "exit", in.exitCode);
    const Object summary = Object::parse(in.summary, nullptr, false);
    if (!in.summary.empty())
        out["summary"] = summary.is_discarded() ? Object(in.summary) : summary;
    return "end";
}

/// A text that is no UTF-8 stands in the line with replacement characters.
std::string Dump(const Object& object) {
    return object.dump(-1, ' ', false, Object::error_handler_t::replace);
}

}  // namespace

std::string ToLine(const Header& header) {
    Object out = {{"event", "recording"},      {"t_us", 0},
                  {"version", header.version}, {"tool", header.tool},
                  {"library", header.library}, {"start_us", header.startUs}};
    AddUnless(out, "source", header.source, std::string());
    AddUnless(out, "simulated", header.simulated, false);
    AddUnless(out, "settings", header.settings, std::string());
    return Dump(out);
}

std::string ToLine(const Record& record, int64_t startUs) {
    Object out = {{"event", ""}, {"t_us", 0}};
    std::visit(
        [&](const auto& event) {
            out["event"] = Write(event, out);
            out["t_us"] = event.timeUs - startUs;
        },
        record);
    return Dump(out);
}

}  // namespace opal::recording
