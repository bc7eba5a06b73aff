// What is on the screen when the television really decodes.

#include <png.h>

#include <cstdlib>
#include <random>

#include "PlayerFixture.h"
#include "TvSubtitles.h"
#include "support/TemporaryDirectory.h"

namespace {

class Decoding : public PlayerFixture {
  protected:
    void SetUp() override { Open(tvset::Options()); }

    /// The screen's pixels, 24 bit RGB, and that it is of this size.
    static std::vector<uint8_t> Screen(int width, int height) {
        const opal::test::TemporaryDirectory folder;
        const std::string path = folder.File("screen.png");
        std::string error;
        EXPECT_TRUE(tvset::WriteSnapshot(path, &error)) << error;
        png_image png{};
        png.version = PNG_IMAGE_VERSION;
        EXPECT_NE(png_image_begin_read_from_file(&png, path.c_str()), 0);
        EXPECT_EQ(png.format, static_cast<png_uint_32>(PNG_FORMAT_RGB));
        EXPECT_EQ(png.width, static_cast<png_uint_32>(width));
        EXPECT_EQ(png.height, static_cast<png_uint_32>(height));
        std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(png));
        EXPECT_NE(png_image_finish_read(&png, nullptr, rgb.data(), 0, nullptr), 0);
        return rgb;
    }
    /// That the screen is plain grey, of this size.
    static void ExpectScreen(int grey, int width = film::kWidth, int height = film::kHeight) {
        const std::vector<uint8_t> rgb = Screen(width, height);
        const auto [darkest, brightest] = std::minmax_element(rgb.begin(), rgb.end());
        EXPECT_NEAR(*darkest, grey, 1);
        EXPECT_NEAR(*brightest, grey, 1);
    }
    static void ExpectPicture(int n) { ExpectScreen(film::GreyOf(n)); }
};

TEST_F(Decoding, TheSnapshotIsThePictureOfItsTimeAlsoOfAKeyPictureAlone) {
    StartPlaying();
    ExpectScreen(0, 1280, 720);
    PushFilm(0, 1);
    Run(180);
    EXPECT_EQ(Shown(), Values());
    Run(40);
    EXPECT_EQ(Shown(), Values{0}) << "held back although nothing follows";
    ExpectPicture(0);
    PushFilm(1, 75);
    for (const int n : {4, 8, 30, 60, 72}) {
        while (Position() < static_cast<uint32_t>(n * film::kFrameMs))
            Run(20);
        SCOPED_TRACE(n);
        ExpectPicture(n);
    }
    EXPECT_EQ(tvset::GetStatistics().decodeErrors, 0u);
    ASSERT_EQ(m_player->MM_SetVideoBlackScreen(1), 0);
    ExpectScreen(0);
    ASSERT_EQ(m_player->MM_SetVideoBlackScreen(0), 0);
    ExpectPicture(72);

    std::string error;
    EXPECT_FALSE(tvset::WriteSnapshot("/nowhere/at/all.png", &error));
    EXPECT_THAT(error, testing::HasSubstr("/nowhere/at/all.png"));
    m_player.reset();
    EXPECT_FALSE(tvset::WriteSnapshot(testing::TempDir() + "off.png", &error));
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
    PushFilm(0, 25);
    for (const film::AccessUnit& unit : film::Video(640, 272)) {
        ASSERT_EQ(PushVideo(unit.bytes, unit.pts + 1000), 0);
    }
    Run(500);
    EXPECT_EQ(tvset::GetStatistics().pictureWidth, 320);
    Run(1000);
    EXPECT_EQ(tvset::GetStatistics().pictureWidth, 640);
    EXPECT_EQ(tvset::GetStatistics().framesDropped, 0u);
}

TEST_F(Decoding, GarbageIsCountedAndForgottenWithAFlush) {
    std::mt19937 random(20240607);
    const auto garbage = [&](size_t size) {
        std::vector<uint8_t> bytes(size);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
        return bytes;
    };
    StartPlaying();
    const film::Stream& sound = film::Audio(400);
    for (uint32_t i = 0; i < 60; ++i) {
        std::vector<uint8_t> bytes = film::Video()[i].bytes;
        if (i % 3 == 0) {
            bytes.resize(bytes.size() / 2);
        } else if (i % 3 == 1) {
            bytes = garbage(5 + random() % 3000);
            static constexpr uint8_t start[5] = {0, 0, 0, 1, 0x67};
            std::copy(std::begin(start), std::end(start), bytes.begin());
        }
        ASSERT_EQ(PushVideo(bytes, i * 40), 0);
        ASSERT_EQ(PushAudio(i % 2 == 0 ? garbage(1 + random() % 900) : sound[i % 10].bytes, i * 23),
                  0);
    }
    Run(3000);
    EXPECT_GT(tvset::GetStatistics().decodeErrors, 0u);
    ASSERT_EQ(Flush(), 0);
    PushFilm(50, 75, 9000);
    Settle();
    EXPECT_EQ(Position(), 11000u);
    ExpectPicture(50);
}

TEST_F(Decoding, SoundOfAnyRateAndLayoutGoesToADeviceWhereThereIsOne) {
    tvset::Options options;
    options.audio = tvset::AudioOutput::Device;
    // Rate and channels, the rate that the television is told, the driver, and what is played after
    // 500 ms: a device is handed it 100 ms ahead.
    const std::tuple<int, int, uint32_t, const char*, double> rows[] = {
        {44100, 2, 44100, "dummy", 600},          {48000, 2, 0, "no-such-driver", 500},
        {48000, 6, 48000, "dummy", 600},          {48000, 4, 48000, "no-such-driver", 500},
        {22050, 1, 22050, "no-such-driver", 500},
    };
    for (const auto& [rate, channels, told, driver, played] : rows) {
        SCOPED_TRACE(std::to_string(rate) + '/' + std::to_string(channels));
        ::setenv("SDL_AUDIODRIVER", driver, 1);
        Open(options);
        StartPlaying(told);
        ASSERT_EQ(m_player->MM_SetAudioVolume(50), 0);
        PushFilm(0, 50);
        PushSound(film::Audio(1000, rate, channels));
        Run(500);
        EXPECT_NEAR(AudioPlayedMs(), played, 60);
        Run(700);
        EXPECT_NEAR(AudioPlayedMs(), 1000, 100);
        EXPECT_EQ(tvset::GetStatistics().decodeErrors, 0u);
        ASSERT_EQ(SetPaused(true), 0);
        ASSERT_EQ(Flush(), 0);
    }
    ::unsetenv("SDL_AUDIODRIVER");
}

// The panel of 1280 by 720 with the picture in it, letters white above, their edges mixed.
TEST_F(Decoding, TheSnapshotHasTheSubtitleAlsoWithoutALayerForIt) {
    std::vector<uint8_t> image(size_t{1280} * 720);
    const size_t middle = 600 * 1280 + 640;
    image[middle] = 255;
    image[middle + 1] = 128;
    StartPlaying();
    PushFilm(0, 25);
    while (Position() < 400)
        Run(20);
    const int grey = film::GreyOf(10);
    TvSubtitles_Show(image.data(), 1280, 720);
    const std::vector<uint8_t> rgb = Screen(1280, 720);
    const auto pixel = [&](size_t at) {
        EXPECT_EQ(rgb[at * 3], rgb[at * 3 + 1]) << "coloured";
        EXPECT_EQ(rgb[at * 3], rgb[at * 3 + 2]) << "coloured";
        return static_cast<int>(rgb[at * 3]);
    };
    EXPECT_EQ(pixel(middle), 255);
    EXPECT_NEAR(pixel(middle + 1), (grey * 127 + 255 * 128) / 255, 3);
    EXPECT_NEAR(pixel(middle + 2), grey, 3) << "a box around the letters";
    EXPECT_NEAR(pixel(0), grey, 3);
    TvSubtitles_Hide();
    ExpectPicture(10);
    EXPECT_EQ(Done("subtitle"), (Values{1, 0}));
    TvSubtitles_Show(image.data(), 1280, 720);
    Open(tvset::Options());
    StartPlaying();
    ExpectScreen(0, 1280, 720);
}

TEST_F(Decoding, ColoursAndProportionsAreThoseOfTheBitstream) {
    const std::tuple<int, const char*, const char*> rows[] = {{180, "bt709", "unknown"},
                                                              {180, "bt709", "bt709"},
                                                              {720, "bt601", "smpte170m"},
                                                              {180, "bt2020", "bt2020nc"}};
    for (const auto& [height, matrix, told] : rows) {
        SCOPED_TRACE(std::string(told) + ' ' + std::to_string(height));
        Open(tvset::Options());
        StartPlaying();
        for (const film::AccessUnit& unit : film::Green(height, matrix, told)) {
            ASSERT_EQ(PushVideo(unit.bytes, unit.pts), 0);
        }
        Run(400);
        const std::vector<uint8_t> rgb = Screen(height * 2, height);
        EXPECT_NEAR(rgb[0], 0, 4);
        EXPECT_NEAR(rgb[1], 255, 4);
        EXPECT_NEAR(rgb[2], 0, 4);
    }
    Open(tvset::Options());
    StartPlaying();
    for (const film::AccessUnit& unit : film::Video(180, 144, "16/11")) {
        ASSERT_EQ(PushVideo(unit.bytes, unit.pts), 0);
    }
    Run(400);
    EXPECT_EQ(Screen(261, 144).size(), 261u * 144 * 3);
}

// A film ends, and it has gaps, while the decoder holds pictures back for their order.
TEST_F(Decoding, WhatTheDecoderHoldsBackIsShownWhenItsTimeComes) {
    StartPlaying();
    PushSound(film::Audio(3000));
    PushFilm(0, 38);  // ends within a group, so that what follows refers to what was drained
    Run(3000);
    EXPECT_EQ(Shown(), Pictures(0, 38));
    EXPECT_NEAR(AudioPlayedMs(), 1590, 40) << "sound goes on a little behind the last picture";
    PushFilm(38, 75);
    Run(3000);
    EXPECT_EQ(Shown(), Pictures(0, 75));
    EXPECT_EQ(tvset::GetStatistics().decodeErrors, 0u);
    Open(tvset::Options());
    StartPlaying();
    PushFilm(0, 75);
    Run(3000);
    EXPECT_EQ(Shown().back(), 2960u);
    EXPECT_EQ(tvset::GetStatistics().framesDecoded, 75u) << "decoded again for nothing";
}

}  // namespace
