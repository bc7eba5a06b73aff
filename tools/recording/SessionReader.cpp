#include "recording/SessionReader.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "recording/SessionNames.h"

namespace opal::recording {
namespace {

using nlohmann::json;

constexpr int kMaxDepth = 8;
constexpr int64_t kMaxTimeUs = 100'000'000'000'000;       // three years
constexpr int64_t kMaxStartUs = 100'000'000'000'000'000;  // the year 5138

/// Brackets inside of brackets cost the parser far more memory than their bytes.
bool IsFlat(std::string_view line) {
    int depth = 0;
    bool inText = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (inText) {
            i += c == '\\';
            inText = c != '"';
        } else if (c == '"') {
            inText = true;
        } else if (c == '{' || c == '[') {
            if (++depth > kMaxDepth)
                return false;
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
    return true;
}

/// The fields of one line. What is missing or of another type has its default; what is out of the
/// range of its type is the nearest of it.
class Fields {
  public:
    explicit Fields(const json& object) : m_object(object) {}

    int64_t Int(const char* key, int64_t missing = 0) const { return ToInt(At(key), missing); }

    int Small(const char* key, int missing = 0) const {
        using Limits = std::numeric_limits<int>;
        return static_cast<int>(
            std::clamp<int64_t>(Int(key, missing), Limits::min(), Limits::max()));
    }

    size_t Index(const char* key) const {
        const int64_t value = Int(key, -1);
        return value < 0 ? static_cast<size_t>(-1) : static_cast<size_t>(value);
    }

    uint64_t Unsigned(const char* key) const {
        const json& value = At(key);
        return value.is_number_unsigned() ? value.get<uint64_t>() : 0;
    }

    double Real(const char* key) const {
        const json& value = At(key);
        const double real = value.is_number() ? value.get<double>() : 0.0;
        return std::isfinite(real) ? real : 0.0;
    }

    bool Flag(const char* key, bool missing = false) const {
        const json& value = At(key);
        return value.is_boolean() ? value.get<bool>() : missing;
    }

    std::string Text(const char* key) const {
        const json& value = At(key);
        return value.is_string() ? value.get<std::string>() : std::string();
    }

    /// A word of an enumeration: false if there is one that is not known.
    template <class Enum>
    bool Word(const char* key, Enum* value) const {
        const json& word = At(key);
        return word.is_null() ||
               (word.is_string() && FromName(word.get_ref<const std::string&>(), value));
    }

    const json& List(const char* key) const {
        static const json none = json::array();
        const json& value = At(key);
        return value.is_array() ? value : none;
    }

    const json& At(const char* key) const {
        static const json none;
        const auto found = m_object.find(key);
        return found == m_object.end() ? none : *found;
    }

    static int64_t ToInt(const json& value, int64_t missing) {
        constexpr int64_t most = std::numeric_limits<int64_t>::max();
        if (value.is_number_unsigned())
            return static_cast<int64_t>(std::min<uint64_t>(value.get<uint64_t>(), most));
        if (value.is_number_integer())
            return value.get<int64_t>();
        if (value.is_number_float() && std::isfinite(value.get<double>()))
            return static_cast<int64_t>(std::clamp(value.get<double>(), -9e18, 9e18));
        return missing;
    }

  private:
    const json& m_object;
};

// One function a kind of event: false if a word of it is not known.

bool ReadInto(const Fields& in, RequestEvent* event) {
    event->index = in.Index("index");
    event->cluster = in.Int("cluster", -1);
    event->url = in.Text("url");
    for (const json& range : in.List("ranges")) {
        if (range.is_array() && range.size() == 2)
            event->ranges.emplace_back(Fields::ToInt(range[0], 0), Fields::ToInt(range[1], 0));
    }
    event->waitUs = std::clamp<int64_t>(in.Int("wait_us"), 0, kMaxTimeUs);
    event->transferUs = std::clamp<int64_t>(in.Int("transfer_us"), 0, kMaxTimeUs);
    event->bytes = in.Int("bytes");
    event->status = in.Small("status");
    event->result = static_cast<OPALError>(in.Small("result"));
    return in.Word("purpose", &event->purpose) && in.Word("stream", &event->stream) &&
           in.Word("end", &event->end);
}

bool ReadInto(const Fields& in, DecisionEvent* event) {
    event->from = in.Small("from", -1);
    event->to = in.Small("to", -1);
    event->cluster = in.Int("cluster", -1);
    event->bandwidth = in.Small("bandwidth_bps");
    event->reservedBandwidth = in.Small("reserved_bps");
    event->available = in.Real("available_bps");
    event->guarded = in.Real("guarded_bps");
    event->target = in.Real("target");
    event->candidate = in.Real("candidate");
    event->bufferedMs = in.Small("buffered_ms");
    event->requiredMs = in.Small("required_ms");
    event->guardMs = in.Small("guard_ms");
    event->heldMs = in.Int("held_ms");
    event->downloadBytes = in.Small("download_bytes");
    event->downloadMs = in.Small("download_ms");
    event->mode = in.Text("mode") == "steady" ? 1 : 0;
    return in.Word("rule", &event->rule) && !in.At("rule").is_null();
}

bool ReadInto(const Fields& in, SwitchingCallEvent* event) {
    event->value = in.Int("value");
    event->answer = in.Int("answer");
    event->openIndexes = in.Unsigned("open_indexes");
    for (const json& level : in.List("levels")) {
        const Fields fields(level);
        event->levels.push_back(
            {fields.Text("uri"), fields.Small("bitrate_bps"), fields.Small("vbv")});
    }
    for (const json& track : in.List("audio_tracks")) {
        const Fields fields(track);
        event->audioTracks.push_back(
            {fields.Text("language"), fields.Small("reserved_bps"), fields.Flag("has_uri", true)});
    }
    event->invalidates = in.Flag("invalidates");
    event->downloadMs = in.Int("download_ms");
    event->downloadBytes = in.Int("download_bytes");
    event->bufferedMs = in.Int("buffered_ms");
    event->sinceStartMs = in.Int("since_start_ms");
    event->cluster = in.Int("cluster");
    return in.Word("kind", &event->kind) && !in.At("kind").is_null() &&
           in.Word("stream", &event->stream);
}

bool ReadInto(const Fields& in, LevelIndexEvent* event) {
    event->level = in.Index("level");
    for (const json& size : in.List("cluster_bytes"))
        event->clusterBytes.push_back(Fields::ToInt(size, 0));
    return true;
}

bool ReadInto(const Fields& in, BufferEvent* event) {
    event->positionMs = in.Int("position_ms", -1);
    event->videoMs = in.Int("video_ms");
    event->audioMs = in.Int("audio_ms");
    event->subtitleMs = in.Int("subtitle_ms");
    event->underflowMs = in.Int("underflow_ms");
    event->requiredVideoMs = in.Int("required_video_ms");
    event->requiredAudioMs = in.Int("required_audio_ms");
    event->maxVideoMs = in.Int("max_video_ms");
    event->bandwidth = in.Int("bandwidth_bps");
    event->level = in.Index("level");
    event->playing = in.Flag("playing");
    return true;
}

bool ReadInto(const Fields& in, StateEvent* event) {
    event->positionMs = in.Int("position_ms", -1);
    event->valueMs = in.Int("value_ms");
    event->endMs = in.Int("end_ms");
    event->from = in.Index("from");
    event->to = in.Index("to");
    event->code = static_cast<OPALError>(in.Small("code"));
    event->text = in.Text("text");
    event->cluster = in.Int("cluster", -1);
    return in.Word("state", &event->state) && !in.At("state").is_null() &&
           in.Word("rate", &event->rate) && in.Word("stream", &event->stream);
}

bool ReadInto(const Fields& in, SinkEvent* event) {
    event->blocks = in.Unsigned("blocks");
    event->bytes = in.Unsigned("bytes");
    event->refused = in.Unsigned("refused");
    event->flushes = in.Unsigned("flushes");
    return in.Word("stream", &event->stream);
}

bool ReadInto(const Fields& in, PlayerEvent* event) {
    event->shown = in.Int("shown");
    event->dropped = in.Int("dropped");
    event->decoded = in.Int("decoded");
    event->errors = in.Int("errors");
    event->audioMs = in.Int("audio_ms");
    event->queuedVideo = in.Int("queued_video");
    event->queuedAudio = in.Int("queued_audio");
    return true;
}

bool ReadInto(const Fields& in, LinkEvent* event) {
    event->bitsPerSecond = std::max<int64_t>(in.Int("bps", -1), -1);
    return true;
}

bool ReadInto(const Fields& in, DroppedEvent* event) {
    event->total = in.Int("total");
    return true;
}

bool ReadInto(const Fields& in, EndEvent* event) {
    const json& summary = in.At("summary");
    event->exitCode = in.Small("exit");
    if (summary.is_string())
        event->summary = summary.get<std::string>();
    else if (!summary.is_null())
        event->summary = summary.dump();
    return true;
}

template <class Event>
bool ReadRecord(const Fields& in, int64_t timeUs, Record* record) {
    Event event;
    event.timeUs = timeUs;
    if (!ReadInto(in, &event))
        return false;
    *record = std::move(event);
    return true;
}

struct Kind {
    const char* name;
    bool (*read)(const Fields&, int64_t, Record*);
};

constexpr Kind kKinds[] = {{"request", ReadRecord<RequestEvent>},
                           {"decision", ReadRecord<DecisionEvent>},
                           {"call", ReadRecord<SwitchingCallEvent>},
                           {"index", ReadRecord<LevelIndexEvent>},
                           {"buffers", ReadRecord<BufferEvent>},
                           {"state", ReadRecord<StateEvent>},
                           {"sink", ReadRecord<SinkEvent>},
                           {"player", ReadRecord<PlayerEvent>},
                           {"link", ReadRecord<LinkEvent>},
                           {"dropped", ReadRecord<DroppedEvent>},
                           {"end", ReadRecord<EndEvent>}};

bool ReadHeader(const Fields& in, Header* header, std::string* error) {
    if (in.Text("event") != "recording") {
        *error = "no recording of a session: its first line is no \"recording\"";
        return false;
    }
    if (in.Int("version", -1) != kVersion) {
        *error = "a recording of version " + in.At("version").dump().substr(0, 20) +
                 "; this program knows version " + std::to_string(kVersion);
        return false;
    }
    header->tool = in.Text("tool");
    header->library = in.Text("library");
    header->startUs = std::clamp<int64_t>(in.Int("start_us"), 0, kMaxStartUs);
    header->source = in.Text("source");
    header->simulated = in.Flag("simulated");
    header->settings = in.Text("settings");
    return true;
}

/// Reads up to the end of a line or of the file. False: nothing is left. A line that is too long
/// comes cut, and the rest of it is passed over.
bool NextLine(std::istream& in, std::string* line, bool* whole) {
    line->clear();
    std::streambuf* buffer = in.rdbuf();
    int c = buffer->sbumpc();
    if (c == std::char_traits<char>::eof())
        return false;
    for (; c != std::char_traits<char>::eof() && c != '\n'; c = buffer->sbumpc()) {
        if (line->size() <= SessionReader::kMaxLine)
            line->push_back(static_cast<char>(c));
    }
    *whole = c == '\n';
    return true;
}

}  // namespace

bool SessionReader::Take(std::string_view line, std::string* error) {
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    const bool readable = line.size() <= kMaxLine && IsFlat(line);
    const json object = readable ? json::parse(line.begin(), line.end(), nullptr, false)
                                 : json(json::value_t::discarded);
    const Fields in(object);
    if (!m_started) {
        m_started = ReadHeader(in, &m_session.header, error);
        return m_started;
    }
    const int64_t timeUs = in.Int("t_us", kMaxTimeUs + 1);
    if (!object.is_object() || timeUs > kMaxTimeUs || timeUs < -kMaxTimeUs) {
        ++m_session.unreadable;
        return true;
    }
    if (m_session.records.size() >= kMaxRecords) {
        m_session.partial = true;
        return true;
    }
    const std::string name = in.Text("event");
    const auto kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                   [&name](const Kind& known) { return name == known.name; });
    Record record;
    if (kind != std::end(kKinds) && kind->read(in, m_session.header.startUs + timeUs, &record))
        m_session.records.push_back(std::move(record));
    else
        ++m_session.skipped;
    return true;
}

bool SessionReader::Read(std::istream& in, Session* session, std::string* error) {
    SessionReader reader;
    std::string line;
    bool whole = false;
    size_t bytes = 0;
    while (bytes < kMaxBytes && NextLine(in, &line, &whole)) {
        bytes += line.size() + 1;
        if (!reader.Take(line, error))
            return false;
    }
    if (!reader.m_started) {
        *error = "empty";
        return false;
    }
    *session = std::move(reader.m_session);
    session->partial = session->partial || bytes >= kMaxBytes;
    return true;
}

bool SessionReader::ReadFile(const std::string& path, Session* session, std::string* error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = std::strerror(errno);
        return false;
    }
    try {
        return Read(in, session, error);
    } catch (const std::ios_base::failure& failure) {  // a folder
        *error = failure.code().message();
        return false;
    }
}

}  // namespace opal::recording
