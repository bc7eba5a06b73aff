// The picture in a window, as the X server has it.

#include <directfb.h>

#include <cstdlib>

#include "MSystem.h"
#include "PlayerFixture.h"
#include "TvSubtitles.h"
#include "support/XServer.h"

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
using opal::test::RunInChild;
using opal::test::XServer;

TEST(XServer, IsLeftAloneWhereDirectFBWouldCrash) {
    const XServer server("+extension");
    tvset::Options options;
    options.video = tvset::VideoOutput::Window;
    ASSERT_TRUE(tvset::Configure(options));
    EXPECT_TRUE(MSystem::InitializeDFBLayer());
    EXPECT_TRUE(tvset::Configure(tvset::Options()));
    EXPECT_THAT(std::getenv("DFBARGS"), testing::StartsWith("system=dummy"));
}

/// A window as the subtitles have it: indexed, in the lowest class of layer 1, made after the
/// player's. Its upper half is letters, their edge of 128 below them. Kept until the process ends.
bool CoverUpperHalf() {
    IDirectFB* dfb = nullptr;
    IDirectFBDisplayLayer* layer = nullptr;
    IDirectFBWindow* window = nullptr;
    IDirectFBSurface* surface = nullptr;
    DFBWindowDescription description{};
    description.flags = static_cast<DFBWindowDescriptionFlags>(127);
    description.caps = DWCAPS_ALPHACHANNEL;
    description.pixelformat = DSPF_LUT8;
    description.surface_caps = DSCAPS_VIDEOONLY;
    description.width = kWidth;
    description.height = kHeight;
    void* pixels = nullptr;
    int pitch = 0;
    if (DirectFBInit(nullptr, nullptr) != DFB_OK || DirectFBCreate(&dfb) != DFB_OK ||
        dfb->GetDisplayLayer(dfb, 1, &layer) != DFB_OK ||
        layer->CreateWindow(layer, &description, &window) != DFB_OK ||
        window->SetOpacity(window, 255) != DFB_OK ||
        window->SetStackingClass(window, DWSC_LOWER) != DFB_OK ||
        window->GetSurface(window, &surface) != DFB_OK ||
        TvSubtitles_Prepare(window, surface) == 0 ||
        surface->Lock(surface, DSLF_WRITE, &pixels, &pitch) != DFB_OK)
        return false;
    std::memset(pixels, 0, static_cast<size_t>(pitch) * kHeight);
    std::memset(pixels, 255, static_cast<size_t>(pitch) * (kHeight / 2 - 40));
    std::memset(static_cast<char*>(pixels) + pitch * (kHeight / 2 - 40), 128,
                static_cast<size_t>(pitch) * 40);
    surface->Unlock(surface);
    return surface->Flip(surface, nullptr, DSFLIP_NONE) == DFB_OK;
}

class Window : public PlayerFixture {
  protected:
    void PlayBelowASubtitle(const XServer& server) {
        const auto shows = [&](int x, int y, int n) { return server.Shows(x, y, film::GreyOf(n)); };
        tvset::Options options;
        options.video = tvset::VideoOutput::Window;
        for (int session = 0; session < 2; ++session) {
            Open(options);
            StartPlaying();
            PushFilm(0, 75);
            EXPECT_TRUE(shows(640, 360, 0)) << session;
        }
        Run(1000);
        EXPECT_TRUE(shows(640, 360, 25));
        EXPECT_TRUE(shows(2, 2, 25)) << "does not fill the window";
        ASSERT_TRUE(CoverUpperHalf());
        EXPECT_TRUE(server.Shows(640, 100, 255)) << "the subtitle is hidden";
        EXPECT_TRUE(server.Shows(640, 340, (film::GreyOf(25) + 255) / 2)) << "a coloured edge";
        Run(1000);
        EXPECT_TRUE(shows(640, 600, 50)) << "the subtitle hides the picture";
        EXPECT_TRUE(server.Shows(640, 100, 255));
        EXPECT_EQ(m_player->MM_SetVideoBlackScreen(1), 0);
        EXPECT_TRUE(server.Shows(640, 600, 0));
        EXPECT_EQ(m_player->MM_SetVideoBlackScreen(0), 0);
        EXPECT_TRUE(shows(640, 600, 50));
        EXPECT_EQ(m_player->MM_SetDisplayRectangle(m_item, ST_RECT{640, 360, 640, 360}), 0);
        EXPECT_TRUE(server.Shows(300, 600, 0));
        EXPECT_TRUE(shows(960, 600, 50));
        ASSERT_EQ(m_player->MM_SetDisplayRectangle(m_item, ST_RECT{}), 0);
        PushOdd();
        EXPECT_TRUE(server.Shows(2, 600, film::GreyOf(10)));
        for (int y = 420; y < kHeight; y += 60) {
            EXPECT_TRUE(server.Shows(0, y, 0)) << "spilt over the picture's edge";
            EXPECT_TRUE(server.Shows(kWidth - 1, y, 0)) << "spilt over the picture's edge";
        }
        m_player.reset();
    }
    /// A film that leaves a column of the window free at either side.
    void PushOdd() {
        ASSERT_EQ(Flush(), 0);
        for (const film::AccessUnit& unit : film::Video(426, 240)) {
            ASSERT_EQ(PushVideo(unit.bytes, unit.pts), 0);
        }
        Run(400);
    }
};

TEST_F(Window, ShowsThePictureBelowASubtitleWindow) {
    const XServer server("-extension");
    (void)film::Video();  // made here, not again in the child
    (void)film::Video(426, 240);
    RunInChild([&] { PlayBelowASubtitle(server); });
}

}  // namespace
