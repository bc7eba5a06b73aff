#include <gtest/gtest.h>

#include <limits>

#include "StreamingDemux/EBML/EBMLIDs.h"
#include "StreamingDemux/EBML/StreamHeaderParser.h"
#include "StreamingDemux/EbmlBytes.h"

namespace opal::test {
namespace {

using namespace opal::ebml;

/// An audio file's header: two hours of AAC.
const char* const kAudioHeader =
    "1a45dfa3874282847765626d185380670100000000"
    "0f4240114d9b74904dbb8d53ab841c53bb6b53ac830186781549a9668e2ad7b1830f4240"
    "4489844adbba001654ae6b9cae9a8381028685415f41414363a2821210e189b584"
    "472c44009f8102";

Bytes Segment(const std::vector<Bytes>& children) {
    return Element(kSegment, children);
}

Bytes Track(uint8_t type, const std::vector<Bytes>& more) {
    std::vector<Bytes> children = {Element(kTrackType, {{type}})};
    children.insert(children.end(), more.begin(), more.end());
    return Element(kTrackEntry, children);
}

Bytes Font(const std::string& mimeType) {
    return Element(kAttachments, {Element(kAttachedFile, {Element(kFileMimeType, {Text(mimeType)}),
                                                          Element(kFileName, {Text("a.ttf")}),
                                                          Element(kFileData, {{1, 2, 3}})})});
}

/// A parser together with the bytes it reads from.
struct Header {
    explicit Header(const Bytes& content) : Header(content, content.size()) {}
    Header(const Bytes& content, size_t size) : bytes(content, size) {
        result = parser.Parse(bytes.data(), bytes.size());
    }

    ExactBytes bytes;
    StreamHeaderParser parser;
    OPALError result;
};

TEST(StreamHeader, AudioFile) {
    Header header(Hex(kAudioHeader));
    ASSERT_EQ(header.result, OPAL_OK);
    int64_t value = 0;
    EXPECT_EQ(header.parser.GetSegmentDataOffset(value), OPAL_OK);
    EXPECT_EQ(value, 24);
    EXPECT_EQ(header.parser.FindCuesPosition(value), OPAL_OK);
    EXPECT_EQ(value, 99984);
    EXPECT_EQ(header.parser.GetDurationMs(value), OPAL_OK);
    EXPECT_EQ(value, 7200000);
    EXPECT_EQ(header.parser.GetDefaultDuration(value), OPAL_ERROR_GENERAL);
    AudioStreamInfo info;
    ASSERT_EQ(header.parser.GetAudioInfo(info), OPAL_OK);
    EXPECT_EQ(info.codecID, "A_AAC");
    EXPECT_EQ(info.samplingFrequency, 44100);
    EXPECT_EQ(info.channels, 2u);
    EXPECT_EQ(ToHex(info.codecPrivate), "1210");
    std::string name;
    EXPECT_EQ(header.parser.GetFontName(name), OPAL_ERROR_GENERAL);

    header.parser.Reset();
    EXPECT_EQ(header.parser.GetSegmentDataOffset(value), OPAL_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(header.parser.FindCuesPosition(value), OPAL_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(header.parser.GetDurationMs(value), OPAL_ERROR_NOT_READY);
    EXPECT_EQ(header.parser.GetAudioInfo(info), OPAL_ERROR_GENERAL);
}

TEST(StreamHeader, CutAtEveryLengthIsRightOrAbsent) {
    const Bytes bytes = Hex(kAudioHeader);
    for (size_t size = 1; size < bytes.size(); ++size) {
        SCOPED_TRACE(size);
        Header header(bytes, size);
        // The Segment's header is 12 to 23; the EBML header alone is no stream.
        ASSERT_EQ(header.result, size < 24 ? OPAL_ERROR_GENERAL : OPAL_OK);
        int64_t value = 0;
        EXPECT_EQ(header.parser.GetSegmentDataOffset(value) == OPAL_OK, size >= 24);
        const OPALError cues = header.parser.FindCuesPosition(value);
        if (cues == OPAL_OK) {
            EXPECT_EQ(value, size >= 45 ? 99984 : 0);
        }
        EXPECT_EQ(header.parser.GetDurationMs(value) == OPAL_OK, size >= 64);
        AudioStreamInfo info;
        EXPECT_EQ(header.parser.GetAudioInfo(info), OPAL_ERROR_GENERAL) << "channels come last";
    }
}

TEST(StreamHeader, WhatIsNoHeader) {
    StreamHeaderParser parser;
    const Bytes bytes = Hex("a080");
    EXPECT_EQ(parser.Parse(nullptr, 5), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(parser.Parse(bytes.data(), 0), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(parser.Parse(bytes.data(), 2), OPAL_ERROR_GENERAL);
    EXPECT_EQ(Header(Hex("1a45dfa301ffffffffffffff1853806780")).result, OPAL_ERROR_GENERAL);
}

TEST(StreamHeader, SeekHead) {
    int64_t offset = 1;
    const Bytes cues = Element(kSeekID, {Hex("1c53bb6b")});
    EXPECT_EQ(Header(Segment({})).parser.FindCuesPosition(offset), OPAL_ERROR_END_OF_DATA);
    EXPECT_EQ(offset, 0);
    Header partial(Segment({Element(
        kSeekHead, {Element(kSeek, {cues}), Element(kSeek, {Element(kSeekPosition, {Hex("10")})}),
                    Element(kSeek, {Element(kSeekID, {Hex("1549a966")}),
                                    Element(kSeekPosition, {Hex("20")})})})}));
    EXPECT_EQ(partial.parser.FindCuesPosition(offset), OPAL_OK) << "listed nowhere";
    EXPECT_EQ(offset, 0);
    Header second(Segment(
        {Element(kSeekHead, {Element(kSeek, {cues}),
                             Element(kSeek, {Element(kSeekPosition, {Hex("30")}), cues})})}));
    EXPECT_EQ(second.parser.FindCuesPosition(offset), OPAL_OK);
    EXPECT_EQ(offset, 0x30 + 12) << "no EBML header: relative to the Segment's twelve bytes";
}

TEST(StreamHeader, Duration) {
    const auto duration = [](const char* ticks, const char* scale) {
        const Header header(Segment({Element(
            kInfo, {Element(kTimecodeScale, {Hex(scale)}), Element(kDuration, {Hex(ticks)})})}));
        int64_t ms = -1;
        return header.parser.GetDurationMs(ms) == OPAL_OK ? ms : -1;
    };
    EXPECT_EQ(duration("41700000", "0f4240"), 15);
    EXPECT_EQ(duration("402e000000000000", "0f4240"), -1) << "an eight-byte float";
    EXPECT_EQ(duration("41700000", "00"), -1);
    EXPECT_EQ(duration("00000000", "0f4240"), -1);
    // 7199025 ticks of 1 ms, one millisecond short after the product was rounded.
    EXPECT_EQ(duration("4adbb262", "0f4240"), 7199024);
    EXPECT_EQ(duration("4f000000", "ffffffffffffffff"), std::numeric_limits<int64_t>::max());
}

TEST(StreamHeader, OnlyTheFirstTrackCounts) {
    const Bytes audio = Track(2, {}),
                video = Track(1, {Element(kDefaultDuration, {Hex("02625a00")})});
    int64_t duration = 0;
    Header both(Segment({Element(kTracks, {audio, video})}));
    EXPECT_EQ(both.parser.GetDefaultDuration(duration), OPAL_ERROR_GENERAL);
    Header videoFirst(Segment({Element(kTracks, {video, audio})}));
    ASSERT_EQ(videoFirst.parser.GetDefaultDuration(duration), OPAL_OK);
    EXPECT_EQ(duration, 40000000);
    Header wide(Segment(
        {Element(kTracks, {Element(kTrackEntry, {Element(kTrackType, {Hex("0001")}),
                                                 Element(kDefaultDuration, {Hex("01")})})})}));
    EXPECT_EQ(wide.parser.GetDefaultDuration(duration), OPAL_ERROR_GENERAL) << "a two-byte type";
}

TEST(StreamHeader, AudioInfoNeedsItsElements) {
    const Bytes output = Element(kOutputSamplingFrequency, {Hex("473b8000")}),
                sampling = Element(kSamplingFrequency, {Hex("46bb8000")}),
                channels = Element(kChannels, {Hex("06")});
    const auto read = [](const std::string& codec, const std::vector<Bytes>& audio,
                         AudioStreamInfo& info) {
        Header header(Segment({Element(
            kTracks, {Track(2, {Element(kCodecID, {Text(codec)}), Element(kAudio, audio)})})}));
        return header.parser.GetAudioInfo(info);
    };
    AudioStreamInfo info;
    EXPECT_EQ(read("A_AAC", {sampling}, info), OPAL_ERROR_GENERAL);
    EXPECT_EQ(read("A_AAC", {channels}, info), OPAL_ERROR_GENERAL);
    EXPECT_EQ(read(std::string(257, 'A'), {sampling, channels}, info), OPAL_ERROR_GENERAL);
    EXPECT_EQ(info.codecID, "");
    EXPECT_EQ(read(std::string(256, 'A'), {sampling, channels, output}, info), OPAL_OK);
    EXPECT_EQ(info.samplingFrequency, 48000) << "the output frequency is preferred";
    EXPECT_EQ(info.channels, 6u);
    EXPECT_TRUE(info.codecPrivate.IsEmpty());
}

TEST(StreamHeader, Font) {
    std::string name;
    qutl::MemoryBuffer<unsigned char> data;
    Header truetype(Segment({Font("application/x-truetype-font")}));
    EXPECT_EQ(truetype.parser.GetFontName(name), OPAL_OK);
    EXPECT_EQ(name, "a.ttf");
    EXPECT_EQ(truetype.parser.GetFontData(data), OPAL_OK);
    EXPECT_EQ(ToHex(data), "010203");
    Header other(Segment({Font("font/ttf")}));
    EXPECT_EQ(other.parser.GetFontName(name), OPAL_ERROR_GENERAL);
    EXPECT_EQ(other.parser.GetFontData(data), OPAL_ERROR_GENERAL);
}

TEST(StreamHeader, ElementHeaderOutOfAnyTree) {
    uint64_t id = 0, total = 0;
    const ExactBytes whole(Hex("1c53bb6b01ffffffffffffff000000000000"));
    EXPECT_EQ(StreamHeaderParser::ReadElementHeader(whole.data(), id, total), OPAL_OK);
    EXPECT_EQ(id, kCues);
    EXPECT_EQ(total, 0xFFFFFFFFFFFFFFull + 12);
    EXPECT_EQ(StreamHeaderParser::ReadElementHeader(nullptr, id, total),
              OPAL_ERROR_INVALID_ARGUMENT);
    for (size_t size = 0; size < 12; ++size) {
        const ExactBytes cut(Hex("1c53bb6b01ffffffffffffff"), size);
        EXPECT_EQ(StreamHeaderParser::ReadElementHeader(cut.data(), cut.size(), id, total),
                  OPAL_OK);
        EXPECT_EQ(total, size < 4 ? 0u : 4u) << size;
    }
}

}  // namespace
}  // namespace opal::test
