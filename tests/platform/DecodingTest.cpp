// What is on the screen when the set really decodes.

#include <png.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "PlayerFixture.h"

namespace {

struct Image {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;
    int At(int x, int y, int channel) const {
        return rgb[(static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) *
                       3 +
                   static_cast<size_t>(channel)];
    }
};

class Decoding : public PlayerFixture {
  protected:
    void SetUp() override { Open(tvset::Options()); }

    static Image Snapshot() {
        const std::string path =
            testing::TempDir() + "opal_tvset_" + std::to_string(::getpid()) + ".png";
        std::string error;
        EXPECT_TRUE(tvset::WriteSnapshot(path, &error)) << error;
        Image image;
        png_image png{};
        png.version = PNG_IMAGE_VERSION;
        EXPECT_NE(png_image_begin_read_from_file(&png, path.c_str()), 0);
        EXPECT_EQ(png.format, static_cast<png_uint_32>(PNG_FORMAT_RGB));
        image.width = static_cast<int>(png.width);
        image.height = static_cast<int>(png.height);
        image.rgb.resize(PNG_IMAGE_SIZE(png));
        EXPECT_NE(png_image_finish_read(&png, nullptr, image.rgb.data(), 0, nullptr), 0);
        std::filesystem::remove(path);
        return image;
    }

    /// That the screen is plain, of the grey of picture n.
    static void ExpectPicture(int n) {
        const Image image = Snapshot();
        ASSERT_EQ(image.width, film::kWidth);
        ASSERT_EQ(image.height, film::kHeight);
        for (const int x : {0, 150, film::kWidth - 1}) {
            for (const int y : {0, 90, film::kHeight - 1}) {
                for (int channel = 0; channel < 3; ++channel) {
                    ASSERT_NEAR(image.At(x, y, channel), film::GreyOf(n), 1) << x << ',' << y;
                }
            }
        }
    }
};

TEST_F(Decoding, TheSnapshotIsThePictureOfItsTime) {
    StartPlaying();
    const Image nothing = Snapshot();
    ASSERT_EQ(nothing.width, 1280);
    ASSERT_EQ(nothing.height, 720);
    EXPECT_EQ(*std::max_element(nothing.rgb.begin(), nothing.rgb.end()), 0);
    PushFilm(0, 75);
    for (int n = 0; n <= 70; n += 10) {
        Settle();
        SCOPED_TRACE(n);
        EXPECT_EQ(Position(), static_cast<uint32_t>(n * film::kFrameMs));
        ExpectPicture(n);
        Run(10 * film::kFrameMs);
    }
    ASSERT_EQ(m_player->MM_SetVideoBlackScreen(1), 0);
    const Image black = Snapshot();
    ASSERT_EQ(black.width, film::kWidth);
    EXPECT_EQ(*std::max_element(black.rgb.begin(), black.rgb.end()), 0);
    ASSERT_EQ(m_player->MM_SetVideoBlackScreen(0), 0);
    ExpectPicture(72);  // two pictures stay in the decoder at the end of a stream

    std::string error;
    EXPECT_FALSE(tvset::WriteSnapshot("/nowhere/at/all.png", &error));
    EXPECT_NE(error.find("/nowhere/at/all.png"), std::string::npos);
    m_player.reset();
    EXPECT_FALSE(tvset::WriteSnapshot(testing::TempDir() + "off.png", &error));
    EXPECT_FALSE(error.empty());
}

TEST_F(Decoding, AfterASeekThePictureIsTheOneSought) {
    StartPlaying();
    PushFilm(0, 25);
    Run(200);
    ASSERT_EQ(Flush(), 0);
    PushFilm(50, 75);
    Settle();
    EXPECT_EQ(Position(), 2000u);
    ExpectPicture(50);
    ASSERT_EQ(Flush(), 0);
    PushFilm(25, 50);
    Settle();
    EXPECT_EQ(Position(), 1000u);
    ExpectPicture(25);
    EXPECT_EQ(tvset::GetStatistics().decodeErrors, 0u);
}

TEST_F(Decoding, AKeyPictureAloneAppearsAndWhatFollowsLaterIsUndamaged) {
    StartPlaying();
    PushFilm(0, 1);
    Run(180);
    EXPECT_EQ(Shown(), Ptss());
    Run(40);
    EXPECT_EQ(Shown(), Ptss{0}) << "held back although nothing follows";
    ExpectPicture(0);
    PushFilm(1, 75);
    for (const int n : {4, 8, 30, 60}) {
        while (Position() < static_cast<uint32_t>(n * film::kFrameMs)) {
            Run(20);
        }
        SCOPED_TRACE(n);
        ExpectPicture(n);
    }
    Run(3000);
    EXPECT_EQ(Shown(), Pictures(0, 73));
    EXPECT_EQ(tvset::GetStatistics().decodeErrors, 0u);
}

TEST_F(Decoding, ADecoderThatFallsBehindLosesPicturesAndCatchesUp) {
    StartPlaying();
    PushFilm(0, 75);
    Settle();
    m_clock->Advance(1000);  // as if decoding a picture had taken a second
    Settle();
    const auto statistics = tvset::GetStatistics();
    EXPECT_GT(statistics.framesDropped, 10u);
    EXPECT_EQ(statistics.framesShown + statistics.framesDropped, 26u);
    EXPECT_EQ(Position(), 1000u);
    Run(400);
    EXPECT_EQ(Position(), 1400u);
    EXPECT_EQ(tvset::GetStatistics().framesDropped, statistics.framesDropped);
}

TEST_F(Decoding, TheSizeFollowsTheStream) {
    StartPlaying();
    const auto size = [&](EN_PLAYER_METADATA what) {
        uint16_t value = 0;
        EXPECT_EQ(m_player->MM_GetMetaData(m_item, what, reinterpret_cast<unsigned char*>(&value),
                                           sizeof(value)),
                  0);
        return value;
    };
    EXPECT_EQ(size(EN_PLAYER_METADATA_WIDTH), 0);
    PushFilm(0, 25);
    for (const film::AccessUnit& unit : film::SmallVideo(640, 272)) {
        ASSERT_EQ(PushVideo(unit.bytes, unit.pts + 1000), 0);
    }
    Run(500);
    EXPECT_EQ(size(EN_PLAYER_METADATA_WIDTH), 320);
    Run(1000);
    EXPECT_EQ(size(EN_PLAYER_METADATA_WIDTH), 640);
    EXPECT_EQ(size(EN_PLAYER_METADATA_HEIGHT), 272);
    EXPECT_EQ(tvset::GetStatistics().framesDropped, 0u);
    unsigned char one = 0;
    EXPECT_NE(m_player->MM_GetMetaData(m_item, EN_PLAYER_METADATA_WIDTH, &one, 1), 0);
}

TEST_F(Decoding, SoundOfAnyRateAndLayoutDecodesFromTheRateAlone) {
    struct Case {
        int rate;
        int channels;
        uint32_t told;
    };
    for (const Case& c :
         {Case{44100, 2, 44100}, {48000, 2, 0}, {48000, 6, 48000}, {22050, 1, 22050}}) {
        SCOPED_TRACE(std::to_string(c.rate) + '/' + std::to_string(c.channels));
        m_player.reset();
        Open(tvset::Options());
        StartPlaying(c.told);
        PushFilm(0, 50);
        PushSound(film::Audio(1000, c.rate, c.channels));
        Run(1200);
        const auto statistics = tvset::GetStatistics();
        EXPECT_EQ(statistics.decodeErrors, 0u);
        EXPECT_NEAR(static_cast<double>(statistics.audioPlayedMs), 1000, 100);
    }
}

TEST_F(Decoding, GarbageIsCountedAndForgotten) {
    std::mt19937 random(20240607);
    const auto garbage = [&](size_t size) {
        std::vector<uint8_t> bytes(size);
        for (uint8_t& byte : bytes) {
            byte = static_cast<uint8_t>(random());
        }
        return bytes;
    };
    StartPlaying();
    const film::Stream sound = film::Audio(400, 44100, 2);
    for (uint32_t i = 0; i < 60; ++i) {
        std::vector<uint8_t> bytes = film::Video()[i].bytes;
        if (i % 3 == 0) {
            bytes.resize(bytes.size() / 2);
        } else if (i % 3 == 1) {
            bytes = garbage(1 + random() % 3000);
            static constexpr uint8_t start[5] = {0, 0, 0, 1, 0x67};
            std::copy(start, start + std::min<size_t>(5, bytes.size()), bytes.begin());
        }
        ASSERT_EQ(PushVideo(bytes, i * 40), 0);
        ASSERT_EQ(PushAudio(i % 2 == 0 ? garbage(1 + random() % 900) : sound[i % 10].bytes, i * 23),
                  0);
    }
    Run(3000);
    EXPECT_GT(tvset::GetStatistics().decodeErrors, 0u);
    ASSERT_EQ(Flush(), 0);
    PushFilm(0, 25, 9000);
    Settle();
    EXPECT_EQ(Position(), 9000u);
    ExpectPicture(0);
}

TEST_F(Decoding, ADeviceTakesTheSoundWhereThereIsOne) {
    m_player.reset();
    ::setenv("SDL_AUDIODRIVER", "dummy", 1);
    tvset::Options options;
    options.audio = tvset::AudioOutput::Device;
    Open(options);
    StartPlaying();
    ASSERT_EQ(m_player->MM_SetAudioVolume(50), 0);
    PushFilm(0, 50);
    PushSound(film::Audio(1500, 44100, 6));
    Run(500);
    EXPECT_NEAR(static_cast<double>(tvset::GetStatistics().audioPlayedMs), 600, 60)
        << "handed over 100 ms ahead";
    ASSERT_EQ(SetPaused(true), 0);
    ASSERT_EQ(Flush(), 0);
    m_player.reset();
    ::setenv("SDL_AUDIODRIVER", "no-such-driver", 1);
    Open(options);
    StartPlaying();
    PushFilm(0, 50);
    PushSound(film::Audio(1500, 44100, 2));
    Run(500);
    EXPECT_NEAR(static_cast<double>(tvset::GetStatistics().audioPlayedMs), 500, 60);
    ::unsetenv("SDL_AUDIODRIVER");
}

}  // namespace
