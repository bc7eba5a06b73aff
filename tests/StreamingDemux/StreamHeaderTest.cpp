#include <gmock/gmock.h>

#include "StreamingDemux/EBML/EBMLIDs.h"
#include "StreamingDemux/EBML/StreamHeaderParser.h"
#include "StreamingDemux/EbmlBytes.h"

namespace opal::test {
namespace {

using namespace opal::ebml;
using testing::HasSubstr;

/// An audio file's header: two hours of AAC.
const char* const kAudioHeader =
    "1a45dfa3874282847765626d185380670100000000"
    "0f4240114d9b74904dbb8d53ab841c53bb6b53ac830186781549a9668e2ad7b1830f4240"
    "4489844adbba001654ae6b9cae9a8381028685415f41414363a2821210e189b584"
    "472c44009f8102";

/// All that a parser answers; an error's number for what is missing.
std::string Ask(const StreamHeaderParser& parser) {
    const auto either = [](OPALError code, const int64_t& value) {
        return std::to_string(code == OPAL_OK ? value : int64_t{code});
    };
    int64_t value = 7;
    std::string text = "segment " + either(parser.GetSegmentDataOffset(value), value);
    text += ", cues " + either(parser.FindCuesPosition(value), value);
    text += ", " + either(parser.GetDurationMs(value), value) + " ms";
    text += ", frame " + either(parser.GetDefaultDuration(value), value);
    AudioStreamInfo audio;
    const OPALError audioResult = parser.GetAudioInfo(audio);
    text += ", audio " + either(audioResult, audio.samplingFrequency) + ' ' + audio.codecID + ' ' +
            std::to_string(audio.channels) + ' ' + ToHex(audio.codecPrivate);
    std::string font;
    qutl::MemoryBuffer<unsigned char> data;
    const OPALError fontResult = parser.GetFontName(font);
    EXPECT_EQ(parser.GetFontData(data), fontResult);
    return text + ", font " + either(fontResult, 0) + ' ' + font + ' ' + ToHex(data) + ',';
}

std::string Ask(const Bytes& bytes) {
    const ExactBytes exact(bytes);
    StreamHeaderParser parser;
    const OPALError result = parser.Parse(exact.data(), exact.Size());
    EXPECT_TRUE(result == OPAL_OK || result == OPAL_ERROR_GENERAL);
    return Ask(parser);
}

const std::string kNothing = "segment -3, cues -3, -4 ms, frame -1, audio -1  0 , font -1  ,";

TEST(StreamHeader, AudioFile) {
    const ExactBytes bytes(Hex(kAudioHeader));
    StreamHeaderParser parser;
    ASSERT_EQ(parser.Parse(bytes.data(), bytes.Size()), OPAL_OK);
    EXPECT_EQ(Ask(parser),
              "segment 24, cues 99984, 7200000 ms, frame -1, audio 44100 A_AAC 2 1210, font -1  ,");
    parser.Reset();
    EXPECT_EQ(Ask(parser), kNothing);
    EXPECT_EQ(parser.Parse(nullptr, 5), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(parser.Parse(bytes.data(), 0), OPAL_ERROR_INVALID_ARGUMENT);
    for (const char* digits : {"a080", "1a45dfa301ffffffffffffff1853806780"})
        EXPECT_EQ(Ask(Hex(digits)), kNothing) << digits;
}

TEST(StreamHeader, CutAtEveryLengthIsRightOrAbsent) {
    const Bytes bytes = Hex(kAudioHeader);
    for (size_t size = 1; size < bytes.size(); ++size) {
        SCOPED_TRACE(size);
        const std::string answers = Ask(bytes.substr(0, size));
        // The Segment's header is 12 to 23; the EBML header alone is no stream.
        if (size < 24) {
            EXPECT_EQ(answers, kNothing);
            continue;
        }
        EXPECT_THAT(answers, HasSubstr("segment 24,"));
        EXPECT_THAT(answers, testing::ContainsRegex(size >= 45 ? "cues 99984," : "cues (0|-9),"));
        EXPECT_THAT(answers, HasSubstr(size >= 64 ? ", 7200000 ms" : ", -1 ms"));
        EXPECT_THAT(answers, HasSubstr("audio -1  0")) << "channels come last";
    }
}

TEST(StreamHeader, EachAnswerNeedsItsElements) {
    const auto seek = [](const Bytes& children) { return Element(kSeek, children); };
    const auto position = [](const char* digits) { return Element(kSeekPosition, Hex(digits)); };
    const auto info = [](const char* ticks, const char* scale) {
        return Element(kInfo, Element(kTimecodeScale, Hex(scale)) + Element(kDuration, Hex(ticks)));
    };
    const auto track = [](const char* type, const Bytes& children) {
        return Element(kTrackEntry, Element(kTrackType, Hex(type)) + children);
    };
    const auto audio = [&](size_t codecLength, const Bytes& children) {
        const Bytes codec = Element(kCodecID, std::string(codecLength, 'A'));
        return Element(kTracks, track("02", codec + Element(kAudio, children)));
    };
    const auto font = [](const char* type) {
        const Bytes file = Element(kFileMimeType, type) + Element(kFileName, "a.ttf");
        return Element(kAttachments, Element(kAttachedFile, file + Element(kFileData, "abc")));
    };
    const Bytes cues = Element(kSeekID, Hex("1c53bb6b")), other = Element(kSeekID, Hex("1549a966")),
                frame = Element(kDefaultDuration, Hex("02625a00")),
                output = Element(kOutputSamplingFrequency, Hex("473b8000")),
                sampling = Element(kSamplingFrequency, Hex("46bb8000")),
                channels = Element(kChannels, Hex("06"));
    const struct {
        const char* what;
        Bytes segment;
        std::string answer;
    } rows[] = {
        {"no SeekHead", "", "cues -9,"},
        {"Cues listed nowhere",
         Element(kSeekHead, seek(cues) + seek(position("10")) + seek(other + position("20"))),
         "cues 0,"},
        {"relative to the Segment's six bytes",
         Element(kSeekHead, seek(cues) + seek(position("30") + cues)), "cues 54,"},
        {"beyond 64 bits, wrapped", Element(kSeekHead, seek(cues + position("7fffffffffffffff"))),
         "cues -9223372036854775803,"},
        {"", info("41700000", "0f4240"), " 15 ms"},
        {"a float of eight bytes", info("402e000000000000", "0f4240"), " -1 ms"},
        {"no scale", info("41700000", "00"), " -1 ms"},
        {"an integer of nine bytes", info("41700000", "0000000000000f4240"), " -1 ms"},
        {"no duration", info("00000000", "0f4240"), " -1 ms"},
        {"infinity", info("7f800000", "0f4240"), " -1 ms"},
        {"not a number", info("7fc00000", "0f4240"), " -1 ms"},
        {"2^100", info("71800000", "0f4240"), " -1 ms"},
        {"2^-100", info("0d800000", "0f4240"), " -1 ms"},
        {"7199025, short after rounding", info("4adbb262", "0f4240"), " 7199024 ms"},
        {"too large", info("4f000000", "ffffffffffffffff"), " 9223372036854775807 ms"},
        {"video first", Element(kTracks, track("01", frame) + track("02", "")), "frame 40000000,"},
        {"video second", Element(kTracks, track("02", "") + track("01", frame)), "frame -1,"},
        {"a type of two bytes", Element(kTracks, track("0001", frame)), "frame -1,"},
        {"no channels", audio(5, sampling), "audio -1  0"},
        {"no frequency", audio(5, channels), "audio -1  0"},
        {"a long name", audio(257, sampling + channels), "audio -1  0"},
        {"output frequency preferred", audio(256, sampling + channels + output),
         "audio 48000 " + std::string(256, 'A') + " 6 ,"},
        {"a frequency of 2^31",
         audio(5, channels + Element(kOutputSamplingFrequency, Hex("4f000000"))),
         "audio 2147483647 AAAAA 6 ,"},
        {"TrueType", font("application/x-truetype-font"), "font 0 a.ttf 616263,"},
        {"another attachment", font("font/ttf"), "font -1  ,"},
    };
    for (const auto& row : rows)
        EXPECT_THAT(Ask(Element(kSegment, row.segment)), HasSubstr(row.answer)) << row.what;
}

TEST(StreamHeader, ElementHeaderOutOfAnyTree) {
    uint64_t id = 0, total = 0;
    const Bytes whole = Hex("1c53bb6b01ffffffffffffff00000000");
    EXPECT_EQ(StreamHeaderParser::ReadElementHeader(ExactBytes(whole).data(), id, total), OPAL_OK);
    EXPECT_EQ(id, kCues);
    EXPECT_EQ(total, 0xFFFFFFFFFFFFFFull + 12);
    EXPECT_EQ(StreamHeaderParser::ReadElementHeader(nullptr, id, total),
              OPAL_ERROR_INVALID_ARGUMENT);
    for (size_t size = 1; size < 12; ++size) {
        const ExactBytes cut(whole.substr(0, size));
        EXPECT_EQ(StreamHeaderParser::ReadElementHeader(cut.data(), cut.Size(), id, total),
                  OPAL_OK);
        EXPECT_EQ(total, size < 4 ? 0u : 4u) << size;
    }
}

}  // namespace
}  // namespace opal::test
