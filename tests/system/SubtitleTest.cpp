// Subtitles from the server to the screen, as the television is told of them.

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <thread>

#include "Common/StreamingTuning.h"
#include "system/SessionFixture.h"

using namespace opal::test;
using opal::origin::Fault;

namespace {

struct Text {
    int64_t start;
    int64_t end;
    std::string text;
};
using Track = std::vector<Text>;

std::vector<uint8_t> ReadFont() {
    std::ifstream file("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", std::ios::binary);
    return std::vector<uint8_t>{std::istreambuf_iterator<char>(file), {}};
}

class SubtitleTest : public SessionFixture {
  protected:
    SubtitleTest() : m_font(ReadFont()) {
        StreamingTuning::OverrideTimeouts(2, 2);
        m_film.clusters = 15;
    }
    ~SubtitleTest() override { StreamingTuning::OverrideTimeouts(60, 60); }

    /// Serves the film with these tracks, and plays it. A cluster a text.
    void Play(const std::vector<Track>& tracks) {
        Serve(m_film);
        std::string streams = "<excl>";
        for (size_t i = 0; i < tracks.size(); ++i) {
            const std::string name = "text" + std::to_string(i);
            const auto file = Build(tracks[i]);
            m_firstCluster = file.layout.clusters[0].offset;
            m_origin.AddFile(name, std::string(file.bytes.begin(), file.bytes.end()));
            streams += "<textstream src=\"" + m_origin.Url(name) +
                       "\" xml:lang=\"eng\"><param name=\"header-request\" value=\"" +
                       std::to_string(file.layout.headerSize) + "\"/></textstream>";
        }
        std::string manifest = ManifestText(m_origin.Url(""));
        manifest.insert(manifest.find("</par>"), streams + "</excl>");
        m_origin.AddFile("film.smil", manifest);
        ASSERT_EQ(Initialize(), OPAL_OK);
        ASSERT_EQ(m_player->Play(), OPAL_OK);
        ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1"));
    }
    opal::package::BuiltFile Build(const Track& texts) const {
        opal::package::TrackDescription track;
        track.kind = opal::package::TrackKind::Subtitle;
        track.codecId = "S_TEXT/UTF8";
        if (!m_font.empty()) {
            track.attachment.emplace();
            track.attachment->fileName = "font.ttf";
            track.attachment->data = m_font;
        }
        std::vector<opal::package::Cluster> clusters;
        for (const Text& text : texts) {
            const std::vector<uint8_t> bytes(text.text.begin(), text.text.end());
            clusters.push_back({text.start, {{text.start, text.end - text.start, true, bytes}}});
        }
        return opal::package::BuildFile(track, clusters, m_film.clusters * 2000);
    }
    void Select(size_t track) {
        const std::string changed = "OnSubtitleTrackChanged " + std::to_string(track);
        const size_t before = m_listener.Count(changed);
        ASSERT_EQ(m_player->SetSubtitleTrack(track), OPAL_OK);
        ASSERT_TRUE(m_listener.WaitFor(changed, before + 1));
    }
    /// The checksum of the text on the screen, 0 without one.
    static uint32_t Screen() {
        uint32_t screen = 0;
        for (const auto& entry : tvset::control::Journal()) {
            if (entry.call == "subtitle")
                screen = entry.value ? entry.crc32 : 0;
        }
        return screen;
    }
    /// In real time: a second is ten of the film.
    static bool Shows(bool text, int ms) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        const auto shows = [text] { return (Screen() != 0) == text; };
        while (!shows() && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return shows();
    }
    /// What becomes of the session.
    std::string Outcome() {
        EXPECT_TRUE(Eventually(
            [this] { return m_listener.Count("OnEndOfStream") + m_listener.Count("OnStop") > 0; }));
        std::string outcome;
        for (const std::string& line : m_listener.Lines()) {
            if (line.find("OnError") == 0 || line == "OnEndOfStream")
                outcome += line + ";";
        }
        EXPECT_LT(FinalizeMs(), 3000);
        return outcome;
    }

    std::vector<uint8_t> m_font;
    Presentation m_film;
    uint64_t m_firstCluster = 0;
};

const Track kLong = {{0, 3600000, "an hour"}};

}  // namespace

TEST_F(SubtitleTest, ComesGoesAndStaysInAPause) {
    Play({{{2000, 8000, "first"}, {12000, 13000, "second"}, {14000, 15000, "third"}}});
    Select(0);
    ASSERT_TRUE(Shows(true, 5000));
    ASSERT_EQ(m_player->Pause(), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPause", 2));  // the selection had one
    EXPECT_TRUE(m_listener.WaitFor("OnSubtitle 2000 8000 first"));
    EXPECT_FALSE(Shows(false, 1000)) << "a pause takes the text down";
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    EXPECT_TRUE(Shows(false, 5000));
    const uint32_t gone = tvset::GetStatistics().shownPts;
    EXPECT_GE(gone, 7500u);
    EXPECT_LT(gone, 12000u);
    EXPECT_TRUE(m_listener.WaitFor("OnSubtitle 12000 13000 second"));
    EXPECT_TRUE(m_listener.WaitFor("OnSubtitle 14000 15000 third"));
    EXPECT_TRUE(Shows(false, 100));
    EXPECT_LT(FinalizeMs(), 3000);
}

TEST_F(SubtitleTest, ASeekTakesTheTextDownAndTheNextComesWithinACluster) {
    Play({{{0, 20000, "first"}, {22000, 22500, "between"}, {24500, 26000, "second"}}});
    Select(0);
    ASSERT_TRUE(Shows(true, 5000));
    const uint32_t first = Screen();
    int64_t target = 24000;
    ASSERT_EQ(m_player->Seek(target), OPAL_OK);
    EXPECT_TRUE(Shows(false, 300));
    EXPECT_TRUE(Shows(true, 5000));
    EXPECT_NE(Screen(), first);
    EXPECT_LT(tvset::GetStatistics().shownPts, 26000u);
    EXPECT_TRUE(m_listener.WaitFor("OnSubtitle 24500 26000 second"));
    EXPECT_LT(FinalizeMs(), 3000);
}

TEST_F(SubtitleTest, OffAnotherTrackTrickPlayAndFinalizeTakeTheTextDownAtOnce) {
    m_film.trick = true;
    Play({kLong, {{0, 3600000, "the other track"}}});
    Select(0);
    ASSERT_TRUE(Shows(true, 5000));
    const uint32_t first = Screen();
    ASSERT_EQ(m_player->SetSubtitleTrack(static_cast<size_t>(-1)), OPAL_OK);
    EXPECT_TRUE(Shows(false, 300)) << "off";
    Select(0);
    ASSERT_TRUE(Shows(true, 5000));
    const uint64_t hold = m_origin.Hold("text1");
    ASSERT_EQ(m_player->SetSubtitleTrack(1), OPAL_OK);
    EXPECT_TRUE(Shows(false, 300)) << "another track, before it comes";
    m_origin.Release(hold);
    EXPECT_TRUE(Eventually([first] { return Screen() != 0 && Screen() != first; })) << "other";
    ASSERT_EQ(m_player->SetPlayRate(OPAL_PLAYRATE_FOURXFF), OPAL_OK);
    EXPECT_TRUE(Shows(false, 1000)) << "trick play";
    ASSERT_EQ(m_player->SetPlayRate(OPAL_PLAYRATE_ONEX), OPAL_OK);
    EXPECT_TRUE(Shows(true, 5000));
    EXPECT_LT(FinalizeMs(), 3000);
    EXPECT_EQ(Screen(), 0u) << "Finalize";

    m_film.clusters = 3;
    for (const bool off : {true, false}) {  // no more video comes
        m_listener.Clear();
        Play({kLong});
        Select(0);
        ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream"));
        EXPECT_TRUE(Shows(true, 0));
        EXPECT_EQ(off ? m_player->SetSubtitleTrack(static_cast<size_t>(-1)) : OPAL_OK, OPAL_OK);
        EXPECT_TRUE(!off || Shows(false, 300)) << "off at the end";
        EXPECT_LT(FinalizeMs(), 3000);
        EXPECT_EQ(Screen(), 0u) << "Finalize at the end";
    }
}

TEST_F(SubtitleTest, AFontThatCannotBeUsed) {
    for (const size_t size : {size_t{0}, size_t{5000}}) {
        m_font.assign(size, 'x');
        m_listener.Clear();
        Play({kLong});
        ASSERT_EQ(m_player->SetSubtitleTrack(0), OPAL_OK);
        // The television cannot be made ready for the track: that is no failure of the stream.
        EXPECT_TRUE(m_listener.WaitFor("OnStop")) << size;
        const auto lines = m_listener.Lines();
        EXPECT_EQ(std::count_if(
                      lines.begin(), lines.end(),
                      [](const std::string& line) { return line.rfind("OnError -1 ", 0) == 0; }),
                  1);
        EXPECT_EQ(m_listener.Count("OnEndOfStream"), 0u);
        (void)m_player->Finalize();  // a sink that was never made ready cannot be flushed
    }
}

TEST_F(SubtitleTest, AServerThatStallsOrDies) {
    const Track track = {{0, 4000, "first"}, {4000, 5000, "second"}, {9000, 20000, "third"}};
    for (const Fault& fault :
         {Fault::StallAt(10), Fault::ResetAt(10), Fault::Status(503), Fault::Status(404)}) {
        m_listener.Clear();
        m_origin.ClearFaults();
        Play({track});
        Fault strike = fault.On("text0");
        strike.rangeStart = static_cast<int64_t>(Build(track).layout.clusters[1].offset);
        const bool stalls = strike.stallAt != opal::origin::kNever;
        strike.stallAt = stalls ? strike.stallAt : opal::origin::kBeforeHead;
        const uint64_t id = m_origin.AddFault(strike);
        Select(0);
        EXPECT_TRUE(Shows(true, 5000)) << "until then texts are shown";
        if (!stalls)
            m_origin.Resume(id);
        EXPECT_EQ(Outcome(), "OnEndOfStream;");
        EXPECT_EQ(m_listener.Count("OnSubtitle 9000 20000 third"), 0u);
    }
    m_listener.Clear();
    m_origin.ClearFaults();
    Play({track});
    m_origin.AddFault(Fault::StallAt(10).On("text0"));
    ASSERT_EQ(m_player->SetSubtitleTrack(0), OPAL_OK);
    EXPECT_TRUE(m_origin.WaitForRequest("text0", 1, 5000));
    // Where the sink is there and not configured yet, its flush answers -1, and so does Finalize.
    EXPECT_LT(FinalizeMs({OPAL_OK, OPAL_ERROR_GENERAL}), 3000) << "while the header stalls";
}
