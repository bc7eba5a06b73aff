// The subtitle sink on a television without layer 1: texts come and go by the decoder's clock, and
// what the television is told of them is all there is to see.

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "PlatformAdapter/Common/IPlatformSubtitleNotify.h"
#include "PlatformAdapter/Common/PlatformSubtitle.h"
#include "PlatformAdapter/Mstar/KMTPlayer.h"
#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlayerFixture.h"
#include "TextRenderer/FreeTypeRenderer.h"

namespace opal::test {
namespace {

Bytes ReadFont() {
    std::ifstream file("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", std::ios::binary);
    return Bytes{std::istreambuf_iterator<char>(file), {}};
}

class Listener : public IPlatformSubtitleNotify {
  public:
    void OnSubtitle(int64_t msStart, int64_t msEnd, const std::string& text) override {
        told.push_back(std::to_string(msStart) + "-" + std::to_string(msEnd) + " " + text);
        toldAt = now();
    }
    std::function<int64_t()> now;
    std::vector<std::string> told;
    int64_t toldAt = -1;
};

class SubtitleTest : public PlayerTest {
  protected:
    SubtitleTest() {
        ::setenv("DFBARGS", "system=dummy,no-sighandler,quiet", 0);
        m_session = std::make_unique<Session>();
        m_sink = std::make_unique<PlatformSubtitle>(m_session->arch, m_session->timer);
        EXPECT_EQ(OPAL_OK, m_sink->Initialize());
        m_listener.now = [this] { return m_session->Position(); };
        m_sink->SetNotify(&m_listener);
    }
    ~SubtitleTest() override {
        m_sink.reset();
        m_session.reset();
    }

    OPALError Configure(const Bytes& font) {
        return m_sink->Configure(SUBTITLECODECID_UTF8, 100, 100, font.data(), font.size());
    }
    /// Ready to show texts, the picture of time 0 on the screen, more up to 3 s on their way.
    void Start() {
        EXPECT_EQ(OPAL_OK, Configure(ReadFont()));
        m_session->QueueAll({0});
        Settle();
        m_session->QueueAll({990, 1000, 2000, 3000});
        Settle();
    }
    void AdvanceTo(int64_t position) {
        for (int i = 0; i < 1000 && m_session->Position() < position; ++i)
            Advance(10);
        EXPECT_EQ(position, m_session->Position());
    }
    OPALError Queue(int64_t start, int64_t duration, std::string text = "text") {
        return m_sink->Queue(text.data(), text.size(), start, duration);
    }
    /// One character a text that came up (+) or went (-).
    static std::string Shown() {
        std::string shown;
        for (const auto& entry : Entries("subtitle"))
            shown += entry.value ? '+' : '-';
        return shown;
    }
    /// Done each time that the library sleeps, by the thread that does.
    void SleepMs(int64_t ms) override {
        PlayerTest::SleepMs(ms);
        Settle();
        if (m_whileAsleep)
            m_whileAsleep();
    }

    Listener m_listener;
    std::unique_ptr<Session> m_session;
    std::unique_ptr<PlatformSubtitle> m_sink;
    std::function<void()> m_whileAsleep;
};

TEST_F(SubtitleTest, ATextShowsFromItsTimeToItsEnd) {
    Start();
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Queue(1000, 2000));
    AdvanceTo(990);
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Queue(1000, 2000));
    AdvanceTo(1000);
    EXPECT_EQ("", Shown());
    EXPECT_EQ(OPAL_OK, Queue(1000, 2000, "A text\nof two lines"));
    EXPECT_EQ("+-", Shown());
    EXPECT_THAT(m_listener.told, ElementsAre("1000-3000 A text\nof two lines"));
    EXPECT_EQ(3000, m_listener.toldAt);
    const auto entries = Entries("subtitle");
    EXPECT_NEAR(2000, static_cast<double>(entries[1].timeMs - entries[0].timeMs), 20);
    EXPECT_THAT(TakePrinted(), HasSubstr("MSrv_Kmtplayer_Subtitle::DrawImage Lock failed"))
        << "there is no layer 1 here";

    // Where it stands, and how large.
    const Bytes font = ReadFont();
    FreeTypeRenderer renderer;
    ASSERT_EQ(OPAL_OK, renderer.InitializeFromMemory(font.data(), font.size(), 30));
    Bytes canvas(1280 * 720);
    (void)renderer.Render("A text\nof two lines", 1280, 720, {64, 540, 1216, 684}, 9, 1,
                          canvas.data());
    CrcTable table;
    FillCrcTable(table);
    EXPECT_EQ(CalculateCrc(table, canvas.data(), canvas.size()), entries[0].crc32);
}

TEST_F(SubtitleTest, ALateTextIsTriedOnceMoreAndDropped) {
    Start();
    const int64_t before = m_sleptMs;
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Queue(0, 0));
    EXPECT_EQ(100, m_sleptMs - before);
    EXPECT_EQ(OPAL_OK, Queue(0, 0));
    EXPECT_EQ(OPAL_OK, Queue(0, 0)) << "only the first is tried again";
    EXPECT_EQ(100, m_sleptMs - before);
    EXPECT_EQ("", Shown());
    EXPECT_EQ(2u, m_listener.told.size());
    m_whileAsleep = [this] { (void)m_sink->SetPaused(true); };
    EXPECT_EQ(OPAL_OK, Queue(0, 9000, "stays"));
    EXPECT_EQ(OPAL_OK, Queue(0, 0));
    EXPECT_EQ("+-", Shown()) << "what a dropped text finds on the screen goes";
    EXPECT_EQ(OPAL_OK, m_sink->Flush());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Queue(0, 0)) << "a flush gives one more try";
}

TEST_F(SubtitleTest, APauseLeavesTheTextUntilALaterOneFindsItsEndPassed) {
    Start();
    AdvanceTo(1000);
    m_whileAsleep = [this] {
        if (m_session->Position() == 2000) {
            EXPECT_EQ(OPAL_OK, m_session->video->SetPaused(true));
            m_whileAsleep = nullptr;
        }
    };
    EXPECT_EQ(OPAL_OK, Queue(1000, 2000));
    EXPECT_EQ("+", Shown());
    EXPECT_EQ(2000, m_listener.toldAt);
    EXPECT_EQ(OPAL_OK, m_session->video->SetPaused(false));
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Queue(9000, 100));
    EXPECT_EQ("+", Shown());
    AdvanceTo(3000);
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Queue(9000, 100));
    EXPECT_EQ("+-", Shown());
}

TEST_F(SubtitleTest, TheSessionsEndAPauseOfTheSinkAndAFlushTakeItDown) {
    Start();
    AdvanceTo(1000);
    m_whileAsleep = [this] { EXPECT_EQ(OPAL_OK, m_sink->SetPaused(true)); };
    int64_t before = m_sleptMs;
    // A time below 0 would be the longest of all.
    EXPECT_EQ(OPAL_OK, Queue(1000, -1));
    EXPECT_EQ(10, m_sleptMs - before);
    EXPECT_EQ("+", Shown());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Queue(9000, 100)) << "its end is far off";
    EXPECT_EQ("+", Shown());
    EXPECT_EQ(OPAL_OK, m_sink->Flush());
    EXPECT_EQ("+-", Shown());
    EXPECT_EQ(OPAL_OK, m_sink->Start());

    m_whileAsleep = [this] { m_session->stop.Raise(); };
    before = m_sleptMs;
    EXPECT_EQ(OPAL_OK, Queue(1000, 3600000));
    EXPECT_EQ(10, m_sleptMs - before);
    EXPECT_EQ("+-+-", Shown());
    // Nothing is laid out any more, however long a text is.
    EXPECT_EQ(OPAL_OK, Queue(1000, 3600000));
    EXPECT_NE(Entries("subtitle")[2].crc32, Entries("subtitle")[4].crc32);
}

TEST_F(SubtitleTest, TheFontIsCopiedAndMustBeOne) {
    int64_t ms = 77;
    EXPECT_EQ(OPAL_ERROR_GENERAL, Queue(0, 10));
    EXPECT_EQ(OPAL_ERROR_GENERAL, m_sink->Flush());
    EXPECT_EQ(OPAL_ERROR_GENERAL, Configure({}));
    EXPECT_EQ(OPAL_ERROR_GENERAL, Configure(Bytes(5000, 'x')));
    EXPECT_EQ(OPAL_ERROR_GENERAL, Queue(0, 10));
    EXPECT_EQ(OPAL_OK, m_sink->GetBufferedDuration(ms));
    EXPECT_EQ(77, ms);
    EXPECT_EQ(OPAL_OK, m_sink->GetPosition(ms));
    EXPECT_EQ(1, ms);

    Bytes font = ReadFont();
    for (const bool wiped : {false, true}) {
        EXPECT_EQ(OPAL_OK, Configure(font));
        if (wiped)
            font.assign(font.size(), 0);
        m_whileAsleep = [this] { (void)m_sink->SetPaused(true); };
        EXPECT_EQ(OPAL_OK, Queue(0, 1000));
    }
    EXPECT_EQ("++", Shown());
    EXPECT_EQ(Entries("subtitle")[0].crc32, Entries("subtitle")[1].crc32);
    // A font that cannot be used leaves no old one behind.
    EXPECT_EQ(OPAL_ERROR_GENERAL, Configure(font));
    EXPECT_EQ(OPAL_ERROR_GENERAL, Queue(0, 1000));
    EXPECT_EQ(OPAL_OK, m_sink->Finalize());
    EXPECT_EQ("++-", Shown());
    EXPECT_EQ(OPAL_OK, m_sink->Finalize());
    EXPECT_EQ(OPAL_ERROR_GENERAL, Queue(0, 10));
}

TEST_F(SubtitleTest, TheWindowIsMadeOnceAndMissedQuietly) {
    const Bytes canvas(1280 * 720);
    EXPECT_EQ(0, KMTPlayer_Subtitle_Clear());
    EXPECT_EQ(0, KMTPlayer_Subtitle_DrawImage(canvas.data()));
    EXPECT_EQ(0, KMTPlayer_Subtitle_Finalize());
    for (int cycle = 0; cycle < 3; ++cycle) {
        std::thread([&] {
            EXPECT_EQ(1, KMTPlayer_Subtitle_Initialize());
            EXPECT_EQ(0, KMTPlayer_Subtitle_Initialize());
            EXPECT_EQ(1, KMTPlayer_Subtitle_DrawImage(canvas.data()));
            EXPECT_EQ(1, KMTPlayer_Subtitle_DrawText("text", 4));
            EXPECT_EQ(1, KMTPlayer_Subtitle_Finalize());
        }).join();
    }
    EXPECT_EQ("+-+-+-", Shown());
    EXPECT_THAT(TakePrinted(), HasSubstr("pFont is NULL"));
}

}  // namespace
}  // namespace opal::test
