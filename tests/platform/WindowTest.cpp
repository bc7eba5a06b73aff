// The picture in a window, as the X server has it.

#include <arpa/inet.h>
#include <directfb.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "MSystem.h"
#include "PlayerFixture.h"

extern char** environ;

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

/// A virtual X server whose frame buffer is a file.
class XServer {
  public:
    explicit XServer(bool glx = false)
        : m_folder(testing::TempDir() + "opal_tvset_x" + std::to_string(::getpid())) {
        std::filesystem::create_directories(m_folder);
        int ends[2];
        if (::pipe(ends) != 0) {
            return;
        }
        const std::string fd = std::to_string(ends[1]);
        const std::vector<std::string> arguments = {"Xvfb",      glx ? "+extension" : "-extension",
                                                    "GLX",       "-displayfd",
                                                    fd,          "-screen",
                                                    "0",         "1280x720x24",
                                                    "-fbdir",    m_folder,
                                                    "-nolisten", "tcp",
                                                    "-noreset"};
        std::vector<char*> argv;
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        if (::posix_spawnp(&m_pid, "Xvfb", nullptr, nullptr, argv.data(), environ) != 0) {
            m_pid = -1;
        }
        ::close(ends[1]);
        pollfd waiting{ends[0], POLLIN, 0};
        char text[16] = {};
        if (m_pid > 0 && ::poll(&waiting, 1, 20000) == 1 &&
            ::read(ends[0], text, sizeof(text) - 1) > 0) {
            m_display = ":" + std::to_string(std::atoi(text));
        }
        ::close(ends[0]);
    }
    ~XServer() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            ::waitpid(m_pid, nullptr, 0);
        }
        std::filesystem::remove_all(m_folder);
    }
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    const std::string& Display() const { return m_display; }

    /// Red, green and blue of one pixel, as 0xRRGGBB.
    uint32_t Pixel(int x, int y) const {
        std::ifstream file(m_folder + "/Xvfb_screen0", std::ios::binary);
        uint32_t header[25] = {};
        file.read(reinterpret_cast<char*>(header), sizeof(header));
        const auto field = [&](int n) { return static_cast<std::streamoff>(ntohl(header[n])); };
        file.seekg(field(0) + field(19) * 12 + y * field(12) + x * 4);
        uint32_t pixel = 0;
        file.read(reinterpret_cast<char*>(&pixel), sizeof(pixel));
        return file ? pixel & 0xFFFFFF : 0xFFFFFFFF;
    }
    /// The pixel once it is `wanted` (each colour to within 3), or as it is after ten seconds.
    uint32_t PixelWhen(int x, int y, uint32_t wanted) const {
        uint32_t pixel = Pixel(x, y);
        for (int i = 0; i < 500 && !Alike(pixel, wanted); ++i) {
            ::poll(nullptr, 0, 20);
            pixel = Pixel(x, y);
        }
        return Alike(pixel, wanted) ? wanted : pixel;
    }

  private:
    static bool Alike(uint32_t a, uint32_t b) {
        for (int shift = 0; shift < 24; shift += 8) {
            if (std::abs(static_cast<int>(a >> shift & 255) - static_cast<int>(b >> shift & 255)) >
                3) {
                return false;
            }
        }
        return a <= 0xFFFFFF;
    }

    const std::string m_folder;
    pid_t m_pid = -1;
    std::string m_display;
};

TEST(XServer, IsLeftAloneWhereDirectFBWouldCrash) {
    const XServer server(true);
    ASSERT_FALSE(server.Display().empty()) << "no X server";
    ::setenv("DISPLAY", server.Display().c_str(), 1);
    ::unsetenv("DFBARGS");
    EXPECT_TRUE(MSystem::InitializeDFBLayer());
    EXPECT_EQ(std::string(std::getenv("DFBARGS")).rfind("system=dummy", 0), 0u);
    ::unsetenv("DFBARGS");
    ::unsetenv("DISPLAY");
}

/// A window as the subtitles have it: indexed, in the lowest class of layer 1, made after the
/// player's. Its upper half is opaque white. Kept until the process ends.
bool CoverUpperHalf() {
    IDirectFB* dfb = nullptr;
    IDirectFBDisplayLayer* layer = nullptr;
    IDirectFBWindow* window = nullptr;
    IDirectFBSurface* surface = nullptr;
    IDirectFBPalette* palette = nullptr;
    DFBWindowDescription description{};
    description.flags = static_cast<DFBWindowDescriptionFlags>(127);
    description.caps = DWCAPS_ALPHACHANNEL;
    description.pixelformat = DSPF_LUT8;
    description.surface_caps = DSCAPS_VIDEOONLY;
    description.width = kWidth;
    description.height = kHeight;
    if (DirectFBCreate(&dfb) != DFB_OK || dfb->GetDisplayLayer(dfb, 1, &layer) != DFB_OK ||
        layer->CreateWindow(layer, &description, &window) != DFB_OK ||
        window->SetStackingClass(window, DWSC_LOWER) != DFB_OK ||
        window->GetSurface(window, &surface) != DFB_OK ||
        surface->GetPalette(surface, &palette) != DFB_OK ||
        window->SetOptions(window, DWOP_ALPHACHANNEL) != DFB_OK) {
        return false;
    }
    const DFBColor colours[2] = {{0, 255, 255, 255}, {255, 255, 255, 255}};
    void* pixels = nullptr;
    int pitch = 0;
    if (palette->SetEntries(palette, colours, 2, 0) != DFB_OK ||
        surface->Lock(surface, DSLF_WRITE, &pixels, &pitch) != DFB_OK) {
        return false;
    }
    std::memset(pixels, 0, static_cast<size_t>(pitch) * kHeight);
    std::memset(pixels, 1, static_cast<size_t>(pitch) * (kHeight / 2));
    surface->Unlock(surface);
    return surface->Flip(surface, nullptr, DSFLIP_NONE) == DFB_OK &&
           window->SetOpacity(window, 255) == DFB_OK;
}

/// Talks to the test through two pipes, a letter at a time.
class Window : public PlayerFixture {
  protected:
    void Script(int from, int to, const std::string& display) {
        ::alarm(60);
        ::setenv("DISPLAY", display.c_str(), 1);
        ::unsetenv("DFBARGS");
        tvset::Options options;
        options.video = tvset::VideoOutput::Window;
        Open(options);
        StartPlaying();
        char letter = 0;
        while (::read(from, &letter, 1) == 1) {
            bool good = true;
            switch (letter) {
                case 'p':
                    PushFilm(0, 75);
                    break;
                case 't':
                    Run(1000);
                    break;
                case 'b':
                    good = m_player->MM_SetVideoBlackScreen(1) == 0;
                    break;
                case 'v':
                    good = m_player->MM_SetVideoBlackScreen(0) == 0;
                    break;
                case 'r':
                    good =
                        m_player->MM_SetDisplayRectangle(m_item, ST_RECT{640, 360, 640, 360}) == 0;
                    break;
                case 's':
                    good = CoverUpperHalf();
                    break;
                case 'x':
                    m_player.reset();
                    break;
                default:
                    good = false;
            }
            letter = good && !HasFailure() ? '+' : '-';
            if (::write(to, &letter, 1) != 1 || letter == '-') {
                return;
            }
        }
    }
};

TEST_F(Window, ShowsThePictureBelowASubtitleWindow) {
    const XServer server;
    ASSERT_FALSE(server.Display().empty()) << "no X server";
    int there[2];
    int back[2];
    ASSERT_EQ(::pipe(there), 0);
    ASSERT_EQ(::pipe(back), 0);
    (void)film::Video();  // encoded here, not again in the child
    std::fflush(nullptr);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(there[1]);
        Script(there[0], back[1], server.Display());
        ::_exit(HasFailure() ? 1 : 0);
    }
    ::close(there[0]);
    ::close(back[1]);
    const auto order = [&](char letter) {
        if (::write(there[1], &letter, 1) != 1) {
            return '!';
        }
        char answer = '?';
        pollfd waiting{back[0], POLLIN, 0};
        if (::poll(&waiting, 1, 50000) == 1 && ::read(back[0], &answer, 1) != 1) {
            answer = '!';
        }
        return answer;
    };
    const auto grey = [](int n) { return static_cast<uint32_t>(film::GreyOf(n)) * 0x10101u; };

    ASSERT_EQ(order('p'), '+');
    EXPECT_EQ(server.PixelWhen(640, 360, grey(0)), grey(0));
    ASSERT_EQ(order('t'), '+');
    EXPECT_EQ(server.PixelWhen(640, 360, grey(25)), grey(25));
    EXPECT_EQ(server.PixelWhen(2, 2, grey(25)), grey(25)) << "fills the window";
    ASSERT_EQ(order('s'), '+');
    EXPECT_EQ(server.PixelWhen(640, 100, 0xFFFFFF), 0xFFFFFFu) << "the subtitle lies above";
    EXPECT_EQ(server.PixelWhen(640, 600, grey(25)), grey(25)) << "and lets the picture through";
    ASSERT_EQ(order('t'), '+');
    EXPECT_EQ(server.PixelWhen(640, 600, grey(50)), grey(50));
    EXPECT_EQ(server.PixelWhen(640, 100, 0xFFFFFF), 0xFFFFFFu);
    ASSERT_EQ(order('b'), '+');
    EXPECT_EQ(server.PixelWhen(640, 600, 0), 0u);
    ASSERT_EQ(order('v'), '+');
    EXPECT_EQ(server.PixelWhen(640, 600, grey(50)), grey(50));
    ASSERT_EQ(order('r'), '+');
    EXPECT_EQ(server.PixelWhen(300, 600, 0), 0u);
    EXPECT_EQ(server.PixelWhen(960, 600, grey(50)), grey(50));
    EXPECT_EQ(order('x'), '+');

    ::close(there[1]);
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    ::close(back[0]);
}

}  // namespace
