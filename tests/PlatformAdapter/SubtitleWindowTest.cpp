// The subtitle window on a screen.

#include <gmock/gmock.h>

#include <algorithm>
#include <thread>

#include "PlatformAdapter/Mstar/src/MSrv_Kmtplayer_Subtitle.h"
#include "support/XServer.h"

namespace opal::test {
namespace {

using Bytes = std::vector<uint8_t>;

class SubtitleWindowTest : public testing::Test {
  protected:
    static constexpr size_t kSize = 1280 * 720;

    /// What the window holds.
    Bytes Content(uint8_t id = MSrv_Kmtplayer_Subtitle::kOnScreen) {
        const uint8_t* pixels = nullptr;
        if (!m_window.Lock(id, GRAPHIC_LOCK_READ, &pixels))
            return {};
        const Bytes content(pixels, pixels + kSize);
        m_window.UnLock(id);
        return content;
    }

    void DrawAndClear(const XServer& server) {
        Bytes image(kSize);
        for (size_t y = 600; y < 640; ++y) {
            std::fill_n(&image[y * 1280 + 600], 40, uint8_t{255});
            std::fill_n(&image[y * 1280 + 700], 40, uint8_t{128});
        }
        const Bytes empty(kSize);
        EXPECT_FALSE(m_window.Close());
        for (int cycle = 0; cycle < 2; ++cycle) {
            ASSERT_TRUE(m_window.Open());
            EXPECT_FALSE(m_window.Open());
            EXPECT_FALSE(m_window.CreateWindow(2, nullptr, true));
            m_window.DrawImage(image.data());
            EXPECT_TRUE(Content() == image);
            EXPECT_TRUE(server.Shows(620, 620, 255));
            EXPECT_TRUE(server.Shows(720, 620, 128)) << "a coloured or opaque edge";
            m_window.Clear();
            EXPECT_TRUE(Content() == empty);
            if (cycle == 0) {
                EXPECT_TRUE(m_window.Close());
            }
        }
        SBT_Rect info = {};
        uint16_t pitch = 0;
        EXPECT_TRUE(m_window.GetWindowInfo(MSrv_Kmtplayer_Subtitle::kOnScreen, &info, &pitch));
        EXPECT_EQ(std::make_tuple(1280, 720, 1280, 2u),
                  std::make_tuple(info.width, info.height, pitch, info.format));

        // A clear is never lost, whoever draws meanwhile.
        testing::internal::CaptureStdout();
        std::thread drawing([&] {
            for (int i = 0; i < 100; ++i)
                m_window.DrawImage(image.data());
        });
        for (int i = 0; i < 100; ++i)
            m_window.Clear();
        drawing.join();
        m_window.Clear();
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    testing::Not(testing::HasSubstr("fail")));
        EXPECT_TRUE(Content() == empty);

        EXPECT_FALSE(m_window.GetWindowInfo(MSrv_Kmtplayer_Subtitle::kOffScreen, &info, &pitch));
        m_window.CreateOffScreenWindow();
        m_window.ClearWindowByIndex(MSrv_Kmtplayer_Subtitle::kOffScreen, nullptr, 7);
        EXPECT_TRUE(Content(MSrv_Kmtplayer_Subtitle::kOffScreen) == Bytes(kSize, 7));
        EXPECT_TRUE(m_window.DestroyWindow(MSrv_Kmtplayer_Subtitle::kOffScreen));
        EXPECT_FALSE(m_window.DestroyWindow(MSrv_Kmtplayer_Subtitle::kOffScreen));
        EXPECT_TRUE(m_window.Close());
    }

    MSrv_Kmtplayer_Subtitle& m_window = *NewWindow();

  private:
    /// DirectFB reads its environment here, once, and starts when the window is opened.
    static MSrv_Kmtplayer_Subtitle* NewWindow() {
        ::setenv("DFBARGS", "system=x11,mode=1280x720,no-cursor,no-sighandler,quiet", 1);
        static auto* window = new MSrv_Kmtplayer_Subtitle;
        return window;
    }
};

TEST_F(SubtitleWindowTest, IsDrawnSmoothAndClearedWhole) {
    const XServer server("-extension");
    RunInChild([&] { DrawAndClear(server); });
}

}  // namespace
}  // namespace opal::test
