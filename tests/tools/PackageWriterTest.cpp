#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "PackageSupport.h"
#include "opal-package/MatroskaWriter.h"

namespace opal::package {
namespace {

using test::LibraryView;
using test::SeenBlock;

std::vector<uint8_t> Payload(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(size);
    for (uint8_t& byte : bytes) {
        byte = static_cast<uint8_t>(random());
    }
    return bytes;
}

TrackDescription Video() {
    TrackDescription track;
    track.codecId = "V_MPEG4/ISO/AVC";
    track.codecPrivate = {1, 100, 0, 30, 0xFF, 0xE1, 0, 1, 0x67, 1, 0, 1, 0x68};
    track.defaultDurationNs = 40000000;
    track.width = 640;
    track.height = 360;
    return track;
}

/// Three clusters of a key frame, a B frame's reference ahead of it, and a B frame.
std::vector<Cluster> VideoClusters() {
    std::vector<Cluster> clusters;
    for (int64_t time : {0, 2000, 4000}) {
        const auto seed = static_cast<unsigned>(time);
        clusters.push_back({time,
                            {{time, 0, true, Payload(300, seed)},
                             {time + 80, 0, false, Payload(120, seed + 1)},
                             {time + 40, 0, false, Payload(5, seed + 2)}}});
    }
    return clusters;
}

std::vector<SeenBlock> Expected(const std::vector<Cluster>& clusters) {
    std::vector<SeenBlock> blocks;
    for (const Cluster& cluster : clusters) {
        for (const Block& block : cluster.blocks) {
            blocks.push_back({block.timeMs, block.key, block.durationMs, block.data});
        }
    }
    return blocks;
}

TEST(MatroskaWriter, TheLibraryReadsBackWhatWasWritten) {
    const auto clusters = VideoClusters();
    const BuiltFile file = BuildFile(Video(), clusters, 6000);
    LibraryView view(file.bytes, file.layout.headerSize);

    EXPECT_EQ(view.Blocks(), Expected(clusters));
    int64_t duration = 0;
    EXPECT_EQ(view.header.GetDurationMs(duration), OPAL_OK);
    EXPECT_EQ(duration, 6000);
    EXPECT_EQ(view.header.GetDefaultDuration(duration), OPAL_OK);
    EXPECT_EQ(duration, 40000000);
    EXPECT_TRUE(view.endsWithCues);
    EXPECT_EQ(file.bytes.size(), file.layout.fileSize);

    ASSERT_EQ(view.index->GetCount(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        const ClusterLayout& layout = file.layout.clusters[i];
        EXPECT_EQ(view.index->GetTime(i), layout.timeMs);
        EXPECT_EQ(static_cast<uint64_t>(view.index->GetOffset(i)), layout.offset);
        EXPECT_EQ(static_cast<uint64_t>(view.index->GetSize(i)), layout.size);
        EXPECT_EQ(view.index->GetFrameCount(i), 0u) << "frame lists are for trick tracks";
    }
    EXPECT_EQ(file.layout.clusters[0].offset, file.layout.headerSize);
}

TEST(MatroskaWriter, AudioHeaderAndSubtitleFont) {
    TrackDescription audio;
    audio.kind = TrackKind::Audio;
    audio.codecId = "A_AAC";
    audio.codecPrivate = {0x12, 0x10};
    audio.samplingFrequency = 44100;
    audio.channels = 2;
    const std::vector<Cluster> one = {{0, {{0, 23, true, {1, 2, 3}}}}};
    const BuiltFile sound = BuildFile(audio, one, 2000);
    AudioStreamInfo info;
    LibraryView soundView(sound.bytes, sound.layout.headerSize);
    ASSERT_EQ(soundView.header.GetAudioInfo(info), OPAL_OK);
    EXPECT_EQ(info.codecID, "A_AAC");
    EXPECT_EQ(info.samplingFrequency, 44100);
    EXPECT_EQ(info.channels, 2u);
    ASSERT_EQ(info.codecPrivate.GetSize(), 2u);
    EXPECT_EQ(info.codecPrivate.GetData()[1], 0x10);

    TrackDescription text;
    text.kind = TrackKind::Subtitle;
    text.codecId = "S_TEXT/UTF8";
    text.attachment = Attachment{"font.ttf", "application/x-truetype-font", Payload(70000, 5)};
    const BuiltFile subtitle = BuildFile(text, one, 2000);
    LibraryView textView(subtitle.bytes, subtitle.layout.headerSize);
    qutl::MemoryBuffer<unsigned char> font;
    std::string name;
    ASSERT_EQ(textView.header.GetFontData(font), OPAL_OK);
    EXPECT_EQ(std::vector<uint8_t>(font.GetData(), font.GetData() + font.GetSize()),
              text.attachment->data);
    ASSERT_EQ(textView.header.GetFontName(name), OPAL_OK);
    EXPECT_EQ(name, "font.ttf");
    EXPECT_EQ(textView.header.GetAudioInfo(info), OPAL_ERROR_GENERAL);
}

TEST(MatroskaWriter, FrameListsNameTheKeyFramesOnly) {
    TrackDescription track = Video();
    track.frameLists = true;
    auto clusters = VideoClusters();
    clusters[1].blocks[1].key = true;
    const BuiltFile file = BuildFile(track, clusters, 6000);
    LibraryView view(file.bytes, file.layout.headerSize);
    ASSERT_EQ(view.index->GetFrameCount(0), 1u);
    ASSERT_EQ(view.index->GetFrameCount(1), 2u);
    const ClusterLayout& layout = file.layout.clusters[1];
    EXPECT_EQ(view.index->GetHeaderSize(1), layout.frameOffsets[0] - layout.offset);
    for (size_t frame = 0; frame < 2; ++frame) {
        int64_t offset = 0;
        uint32_t size = 0;
        ASSERT_EQ(view.index->GetFrame(1, frame, offset, size), OPAL_OK);
        EXPECT_EQ(static_cast<uint64_t>(offset), layout.frameOffsets[frame]);
        EXPECT_EQ(file.bytes[static_cast<size_t>(offset)], 0xA0) << "begins with its BlockGroup";
        const uint64_t end = frame == 0 ? layout.frameOffsets[1] : layout.offset + layout.size;
        EXPECT_EQ(offset + size, end);
    }
}

// Lengths around those where the size field or a value grows by a byte, and where all bits of a
// size would be set, which would mean "unknown".
TEST(MatroskaWriter, SizesAndValuesAtTheirBorders) {
    std::vector<Cluster> clusters;
    int64_t time = 0;
    for (size_t size :
         {1u, 118u, 122u, 123u, 124u, 126u, 127u, 128u, 16376u, 16378u, 16379u, 16384u, 2097151u}) {
        clusters.push_back({time, {{time, 0, true, Payload(size, 1)}}});
        time += 2000;
    }
    for (int64_t duration : {1, 127, 128, 200, 255, 256, 32767, 32768, 65535, 8388608}) {
        clusters.push_back({time, {{time, duration, true, {7}}}});
        time += 2000;
    }
    const BuiltFile file = BuildFile(Video(), clusters, time);
    LibraryView view(file.bytes, file.layout.headerSize);
    const auto blocks = view.Blocks();
    const auto expected = Expected(clusters);
    ASSERT_EQ(blocks.size(), expected.size());
    for (size_t i = 0; i < blocks.size(); ++i) {
        EXPECT_EQ(blocks[i], expected[i]) << i;
        EXPECT_EQ(blocks[i].durationMs, expected[i].durationMs)
            << "a duration is read as a signed number and must stay positive";
    }
}

TEST(MatroskaWriter, TimesReachBothEndsOfTheirSixteenBits) {
    const std::vector<Cluster> clusters = {
        {40000, {{40000 + 32767, 0, true, {1}}, {40000 - 32768, 0, false, {2}}}}};
    const BuiltFile file = BuildFile(Video(), clusters, 80000);
    EXPECT_EQ(LibraryView(file.bytes, file.layout.headerSize).Blocks(), Expected(clusters));
}

TEST(MatroskaWriter, RefusesWhatTheFormatCannotHold) {
    const auto build = [](const std::vector<Cluster>& clusters) {
        return BuildFile(Video(), clusters, 1000);
    };
    EXPECT_THROW(build({{0, {{32768, 0, true, {1}}}}}), std::invalid_argument);
    EXPECT_THROW(build({{40000, {{7231, 0, true, {1}}}}}), std::invalid_argument);
    EXPECT_THROW(build({{0, {{0, 0, true, {}}}}}), std::invalid_argument);
    EXPECT_THROW(build({{-1, {{0, 0, true, {1}}}}}), std::invalid_argument);
    EXPECT_THROW(build({{2000, {}}, {2000, {}}}), std::invalid_argument);
}

TEST(MatroskaWriter, ClusterWithoutBlocksIsReadAsEmpty) {
    const BuiltFile file = BuildFile(Video(), {{0, {}}, {2000, {{2000, 0, true, {1}}}}}, 4000);
    LibraryView view(file.bytes, file.layout.headerSize);
    ASSERT_EQ(view.clusters.size(), 2u);
    EXPECT_TRUE(view.clusters[0].empty());
    EXPECT_EQ(view.clusters[1].size(), 1u);
}

/// Takes so many bytes and no more, as a full disk does.
class FullDisk : public std::stringbuf {
  public:
    explicit FullDisk(std::streamsize room) : m_room(room) {}

  protected:
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        const std::streamsize taken = std::min(size, m_room);
        m_room -= taken;
        return std::stringbuf::xsputn(data, taken);
    }

  private:
    std::streamsize m_room;
};

TEST(MatroskaWriter, EveryFullDiskIsReported) {
    const auto size =
        static_cast<std::streamsize>(BuildFile(Video(), VideoClusters(), 6000).bytes.size());
    for (std::streamsize room = 0; room < size; room += 7) {
        FullDisk disk(room);
        std::ostream out(&disk);
        const auto write = [&out] {
            MatroskaWriter writer(out, Video());
            for (const Cluster& cluster : VideoClusters()) {
                writer.WriteCluster(cluster);
            }
            writer.Finish(6000);
        };
        EXPECT_THROW(write(), std::runtime_error) << room;
    }
}

}  // namespace
}  // namespace opal::package
