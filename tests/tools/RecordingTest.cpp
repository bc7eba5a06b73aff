#include <gtest/gtest.h>

#include <sstream>

#include "recording/SessionNames.h"
#include "recording/SessionReader.h"

namespace {

using namespace opal;
using namespace opal::recording;

const char* const kHeader =
    R"({"event":"recording","t_us":0,"version":1,"tool":"t","library":"1","start_us":1000,"source":"u","simulated":true})"
    "\n";

Session Read(const std::string& text, std::string* error = nullptr) {
    std::istringstream in(text);
    Session session;
    std::string reason;
    if (!SessionReader::Read(in, &session, error ? error : &reason))
        session.header.tool = "refused";
    return session;
}

TEST(SessionReaderTest, FieldsOfEachKindAreRead) {
    const Session session = Read(
        std::string(kHeader) +
        R"({"event":"request","t_us":5,"purpose":"cluster","stream":"trick","index":2,"cluster":7,"url":"http://a/b","ranges":[[1,2],[30,40]],"wait_us":11,"transfer_us":12,"bytes":13,"status":206,"result":-4,"end":"slow-transfer"}
{"event":"decision","t_us":6,"rule":"buffer-low","from":3,"to":null,"cluster":8,"bandwidth_bps":9,"reserved_bps":10,"available_bps":1.5,"guarded_bps":2.5,"target":3.5,"candidate":4.5,"buffered_ms":14,"required_ms":15,"guard_ms":16,"held_ms":17,"download_bytes":18,"download_ms":19,"mode":"steady"}
{"event":"call","t_us":7,"kind":"set-levels","open_indexes":18446744073709551615,"levels":[{"uri":"v","bitrate_bps":5,"vbv":6}],"audio_tracks":[{"language":"eng","reserved_bps":7}],"stream":"audio","invalidates":true,"download_ms":1}
{"event":"index","t_us":8,"level":1,"cluster_bytes":[4,5,6]}
{"event":"buffers","t_us":9,"position_ms":1,"video_ms":2,"max_video_ms":8,"level":null,"playing":true}
{"event":"state","t_us":10,"state":"rate","rate":"-16x","from":1,"text":"x"}
{"event":"sink","t_us":11,"stream":"audio","blocks":1,"bytes":2,"refused":3,"flushes":4}
{"event":"player","t_us":12,"shown":1,"queued_audio":7}
{"event":"link","t_us":13,"bps":-1}
{"event":"dropped","t_us":14,"total":3}
{"event":"later-kind","t_us":15}
{"event":"state","t_us":16,"state":"later-state"}
{"event":"end","t_us":17,"exit":4,"summary":{"a":1}}
{"event":"sink","t_us":18,"stre)");
    EXPECT_EQ(session.skipped, 2U);
    EXPECT_EQ(session.unreadable, 1U) << "the cut line";
    ASSERT_EQ(session.records.size(), 11U);
    EXPECT_TRUE(session.header.simulated);
    const auto& request = std::get<RequestEvent>(session.records[0]);
    EXPECT_EQ(request.timeUs, 1005);
    EXPECT_EQ(request.ranges.at(1), std::make_pair(int64_t{30}, int64_t{40}));
    EXPECT_EQ(std::make_tuple(request.stream, request.end, request.result, request.bytes),
              std::make_tuple(OPAL_STREAM_TRICK, RequestEnd::SlowTransfer, OPALError(-4), 13));
    const auto& decision = std::get<DecisionEvent>(session.records[1]);
    EXPECT_EQ(std::make_tuple(decision.rule, decision.from, decision.to, decision.mode),
              std::make_tuple(SwitchingRule::BufferLow, 3, -1, 1));
    EXPECT_EQ(std::make_tuple(decision.guarded, decision.candidate, decision.heldMs),
              std::make_tuple(2.5, 4.5, 17));
    const auto& call = std::get<SwitchingCallEvent>(session.records[2]);
    EXPECT_EQ(call.openIndexes, ~uint64_t{0});
    EXPECT_EQ(call.levels.at(0).vbv, 6);
    EXPECT_TRUE(call.audioTracks.at(0).hasUri && call.invalidates);
    EXPECT_EQ(std::get<LevelIndexEvent>(session.records[3]).clusterBytes.at(2), 6);
    EXPECT_EQ(std::get<BufferEvent>(session.records[4]).level, static_cast<size_t>(-1));
    EXPECT_EQ(std::get<StateEvent>(session.records[5]).rate, OPAL_PLAYRATE_SIXTEENXRW);
    EXPECT_EQ(std::get<EndEvent>(session.records[10]).summary, R"({"a":1})");
}

TEST(SessionReaderTest, GarbageIsSkippedAndWhatIsNoRecordingRefused) {
    std::string error;
    EXPECT_EQ(Read(R"({"event":"recording","version":2})", &error).header.tool, "refused");
    EXPECT_NE(error.find("version 2"), std::string::npos) << error;
    for (const char* text : {"", "\n", "[]", "not JSON", "{\"event\":\"state\",\"t_us\":1}"})
        EXPECT_EQ(Read(text).header.tool, "refused") << text;
    const Session session = Read(
        std::string(kHeader) + "[1]\nnull\n\xff\xfe\n{\"event\":\"link\"}\n" +
        "{\"event\":\"link\",\"t_us\":1e300}\n" + std::string(100000, '[') + "\n" +
        R"({"event":"call","t_us":1,"kind":"set-levels","levels":[7,"x",null,{}],"audio_tracks":{}})" +
        "\n{\"event\":\"link\",\"t_us\":1,\"bps\":1e30}\n");
    EXPECT_EQ(session.unreadable, 6U);
    ASSERT_EQ(session.records.size(), 2U);
    EXPECT_EQ(std::get<SwitchingCallEvent>(session.records[0]).levels.size(), 4U);
    EXPECT_GT(std::get<LinkEvent>(session.records[1]).bitsPerSecond, 1'000'000'000'000);
}

}  // namespace
