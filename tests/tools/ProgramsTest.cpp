// The programs as they are called: a small film is made, served over loopback and played. What they
// print, and how they end.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <png.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "OriginClient.h"
#include "opal-origin/Origin.h"
#include "support/TemporaryDirectory.h"

namespace opal::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string TextOf(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

/// White pixels of a snapshot where subtitles stand, above the test film's own stripe.
int WhiteLetters(const std::string& file) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_file(&png, file.c_str()), 0) << file;
    std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(png));
    EXPECT_NE(png_image_finish_read(&png, nullptr, rgb.data(), 0, nullptr), 0) << file;
    int count = 0;
    for (size_t i = png.height * 640 / 720 * png.width; i < png.height * 652 / 720 * png.width; ++i)
        count += std::min({rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]}) > 250;
    return count;
}

/// A program in a process of its own; standard output is a pipe unless it shall be a terminal.
class Program {
  public:
    explicit Program(std::vector<std::string> words, bool onTerminal = false) {
        int ends[2] = {-1, -1};
        // Without them nothing would ever come: better an end at once than one by time-outs.
        if (onTerminal && openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) != 0)
            throw std::runtime_error("no pseudo-terminals here: is /dev/pts mounted?");
        if (!onTerminal) {
            EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        }
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const std::string errors = m_folder.Write("errors", "");
        m_pid = fork();
        if (m_pid == 0) {
            dup2(onTerminal ? ends[1] : open("/dev/null", O_RDONLY), STDIN_FILENO);
            dup2(ends[1], STDOUT_FILENO);
            dup2(open(errors.c_str(), O_WRONLY), STDERR_FILENO);
            if (onTerminal)
                login_tty(ends[1]);
            execv(argv[0], argv.data());
            _exit(127);
        }
        m_output = ends[0];
        close(ends[1]);
    }
    ~Program() {
        Signal(SIGKILL);
        Wait();
        close(m_output);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void Signal(int number) const {
        if (m_pid > 0)
            kill(m_pid, number);
    }

    /// What is printed up to the text; all that is printed if it does not come.
    std::string ReadTo(const std::string& text) {
        std::string read;
        pollfd ready{m_output, POLLIN, 0};
        for (char byte = 0; read.find(text) == std::string::npos; read += byte) {
            if (poll(&ready, 1, 60000) == 0)
                Signal(SIGKILL);
            if (::read(m_output, &byte, 1) != 1)
                break;
        }
        return read;
    }

    /// The exit code, or what ended it instead as a negative number. Everything is read before.
    int Wait() {
        if (m_pid > 0) {
            out += ReadTo(std::string(1, '\0'));
            waitpid(m_pid, &m_status, 0);
            m_pid = -1;
            err = TextOf(m_folder.File("errors"));
        }
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -WTERMSIG(m_status);
    }

    int Terminal() const { return m_output; }

    std::string out;  ///< behind what was read before
    std::string err;

  private:
    TemporaryDirectory m_folder;
    pid_t m_pid = -1;
    int m_output = -1;
    int m_status = 0;
};

class ProgramsTest : public testing::Test {
  protected:
    static constexpr int64_t kFilmMs = 8000;
    static constexpr const char* kFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf";

    static void SetUpTestSuite() {
        s_folder = std::make_unique<TemporaryDirectory>();
        Program make({OPAL_PACKAGE, "-o", s_folder->File("film"), "--duration", "8", "--audio",
                      "eng", "--levels", "100k:160x90,300k:320x180", "--preset", "ultrafast",
                      "--golden", "--font", kFont});
        ASSERT_EQ(0, make.Wait()) << make.err;
        const std::string texts = TextOf(s_folder->File("film/text0-eng.mks"));
        EXPECT_NE(std::string::npos, texts.find(TextOf(kFont)));
        EXPECT_EQ("", make.err);
        EXPECT_THAT(make.out, HasSubstr("100 %\n")) << "a pipe gets plain lines";
        origin::OriginOptions served;
        served.folder = s_folder->File("film");
        s_origin = std::make_unique<origin::Origin>(served);
        ASSERT_TRUE(s_origin->Start());
        Program point({OPAL_PACKAGE, "--manifest", served.folder, "--base-url", s_origin->Url("")});
        ASSERT_EQ(0, point.Wait()) << point.err;
    }
    static void TearDownTestSuite() {
        s_origin.reset();
        s_folder.reset();
    }
    void TearDown() override { s_origin->ClearFaults(); }

    static std::vector<std::string> Play(std::vector<std::string> words, bool film = true) {
        words.insert(words.begin(), {OPAL_PLAY, "--headless", "--time-limit", "60"});
        if (film)
            words.push_back(s_origin->Url("presentation.smil"));
        return words;
    }

    /// A copy of the film in which the last cluster of every video file is none.
    static std::string DamagedFilm() {
        namespace fs = std::filesystem;
        const std::string copy = s_folder->File("damaged");
        fs::copy(s_folder->File("film"), copy);
        for (const fs::directory_entry& entry : fs::directory_iterator(copy)) {
            if (entry.path().extension() != ".mkv")
                continue;
            std::string bytes = TextOf(entry.path());
            const size_t cluster = bytes.rfind("\x1F\x43\xB6\x75");
            EXPECT_NE(std::string::npos, cluster);
            bytes.replace(cluster, 4, 4, '\0');
            std::ofstream(entry.path(), std::ios::binary) << bytes;
        }
        Program point({OPAL_PACKAGE, "--manifest", copy, "--base-url", "file://" + copy});
        EXPECT_EQ(0, point.Wait()) << point.err;
        return "file://" + copy + "/presentation.smil";
    }

    /// Has the file served with a byte of a block turned over, at that place or soon behind it, by
    /// default about 3 s into the film. The block's time.
    static std::string Flip(const std::string& name, size_t at = 0) {
        const std::string file = s_folder->File("film/" + name);
        std::string bytes = TextOf(file);
        at = at == 0 ? bytes.size() * 3 / 8 : at;
        bytes.at(at) = static_cast<char>(bytes.at(at) ^ 1);
        s_origin->AddFile(name, bytes);
        Program flipped({OPAL_PACKAGE, "--dump", s_folder->Write("flipped", bytes)});
        Program golden({OPAL_PACKAGE, "--dump", file + ".golden"});
        EXPECT_EQ(0, golden.Wait());
        std::istringstream lines(flipped.Wait() == 0 ? golden.out : "");
        for (std::string line; std::getline(lines, line);) {
            const size_t size = line.find(", ");
            if (line.find("  block ") == 0 &&
                flipped.out.find(line.substr(size)) == std::string::npos)
                return line.substr(8, size - 8);
        }
        return Flip(name, at + 16);  // that was none of a block
    }

    static inline std::unique_ptr<TemporaryDirectory> s_folder;
    static inline std::unique_ptr<origin::Origin> s_origin;
};

TEST_F(ProgramsTest, PlaysToTheEndAndTellsHowItWas) {
    const std::string pictures = s_folder->File("pictures");
    Program play(
        Play({"--json", "--snapshots", pictures, "--snapshot-at", "1,4", "--subtitles", "eng",
              "--output", s_folder->File("log"), "--log", s_folder->File("events")}));
    ASSERT_EQ(0, play.Wait()) << play.err << play.out;
    const auto json = nlohmann::json::parse(play.out);  // nothing else is printed
    EXPECT_EQ("end of stream", json["outcome"]);
    EXPECT_EQ(kFilmMs, json["durationMs"]);
    EXPECT_GT(json["framesShown"], kFilmMs / 40 / 2);
    EXPECT_GE(json["audioPlayedMs"], kFilmMs / 2);
    EXPECT_EQ(3u * kFilmMs / 2000, json["clusters"]);
    EXPECT_GE(json["realMs"], kFilmMs);
    EXPECT_EQ("", play.err);
    EXPECT_LT(50, WhiteLetters(pictures + "/at-1s.png")) << "a text shows from 0.5 to 3.5 s";
    EXPECT_EQ(0, WhiteLetters(pictures + "/at-4s.png"));
    EXPECT_THAT(TextOf(s_folder->File("log")), HasSubstr("KMT Version: "));
    const std::string events = TextOf(s_folder->File("events"));
    EXPECT_THAT(events, StartsWith("<device-event><action><ts>0</ts>"));
    for (const char* event :
         {"<init>", "<play>", "<quality-level-change>", "<algo-trace>", "<eos>"})
        EXPECT_THAT(events, HasSubstr(event));
}

TEST_F(ProgramsTest, VerifiesEveryBlockAndFindsAFlippedByte) {
    s_origin->SetRate(5000000);
    // Backwards to the start, where it goes on forwards by itself, and a text comes.
    Program jumps(Play({"--strict", "--verify", "--subtitles", "0", "--at", "1.5:seek=3", "--at",
                        "5:rate=-4x", "--at", "13:rate=2x", "--at", "15.5:rate=1x"}));
    EXPECT_EQ(0, jumps.Wait()) << jumps.err << jumps.out;
    s_origin->SetRate(origin::kUnlimited);
    for (const char* kind : {"video: [0-9][0-9]+", "audio: [0-9][0-9]+", "subtitle: [1-9]"})
        EXPECT_THAT(jumps.out, testing::ContainsRegex("verified " + std::string(kind) +
                                                      " blocks, 0 mismatches\n"));
    for (const char* line : {"level 1 to 2 of 2", "level 2 to 1 of 2", "back at the start"})
        EXPECT_THAT(jumps.out, HasSubstr(line));
    EXPECT_THAT(jumps.out + jumps.err, testing::Not(HasSubstr("no golden file")));

    // That place of the film comes from one of the two levels.
    const std::string video = Flip("level0-90p-100k.mkv") + "|" + Flip("level1-180p-300k.mkv");
    const std::string audio = Flip("audio0-eng.mka");
    const std::string texts = TextOf(s_folder->File("film/text0-eng.mks"));
    const std::string text = Flip("text0-eng.mks", texts.find("ngstr") - 1);
    const std::string one = " blocks, 1 mismatches at (";
    s_origin->AddFault(origin::Fault::Status(404).On("trick.mkv.golden"));
    Program flipped(Play({"--strict", "--verify", "--subtitles", "eng"}));
    EXPECT_EQ(3, flipped.Wait()) << flipped.err;
    for (const std::string& line :
         {"video: 200" + one + video + ");", "audio: [0-9]+" + one + audio + ");",
          "subtitle: 2" + one + text + ")\n"})
        EXPECT_THAT(flipped.out, testing::ContainsRegex("verified " + line));
    EXPECT_THAT(flipped.out, HasSubstr("no golden file for " + s_origin->Url("trick.mkv")));
    EXPECT_THAT(flipped.err, HasSubstr("1 audio blocks were not as their golden files say"));
    s_origin->ClearFaults();
    for (const char* file :
         {"level0-90p-100k.mkv", "level1-180p-300k.mkv", "audio0-eng.mka", "text0-eng.mks"})
        s_origin->RemoveFile(file);

    const std::string trick = Flip("trick.mkv");
    Program jump(Play({"--strict", "--verify", "--at", "0.5:rate=2x", "--at", "4:rate=1x"}));
    EXPECT_EQ(3, jump.Wait()) << jump.err;
    s_origin->RemoveFile("trick.mkv");
    for (const std::string& line :
         {"video: [0-9]+" + one + trick + "); [0-9]+ flushes failed: number 2 after the block of ",
          std::string("audio: [0-9]+ blocks, 0 mismatches\n"), std::string("\nfailed flush at "),
          std::string("rate 1x ends with a flush that failed\n")})
        EXPECT_THAT(jump.out, testing::ContainsRegex(line));
}

TEST_F(ProgramsTest, AStoppedPackagerLeavesNothingBehind) {
    for (const int signal : {SIGINT, SIGTERM}) {
        const std::string folder = s_folder->File("stopped");
        Program make({OPAL_PACKAGE, "-o", folder, "--duration", "3600", "--preset", "ultrafast"});
        make.ReadTo("level 4");
        make.Signal(signal);
        EXPECT_EQ(128 + signal, make.Wait()) << make.err;
        for (const char* ending : {"", ".part"})
            EXPECT_NE(0, access((folder + ending).c_str(), F_OK));
    }
}

TEST_F(ProgramsTest, TellHowTheyEndedAndWithWhichCode) {
    const std::string film = s_folder->File("film");
    const std::string noise = s_folder->Write("noise.mp4", std::string(5000, 'x'));
    const std::string script = s_folder->Write("bad.json", R"({"faults": [{"urk": 1}]})");
    const std::string missing = s_origin->Url("nothing.smil");
    const std::string bad = s_folder->File("bad");
    const std::string blocks = s_folder->File("blocks");
    std::string gone = TextOf(film + "/presentation.smil");
    gone.replace(gone.find("/level0"), 7, "/gone00");
    s_folder->Write("film/gone.smil", gone);
    using Row = std::tuple<std::vector<std::string>, int, std::string, std::string>;
    const Row rows[] = {
        {{OPAL_PACKAGE, "--help"}, 0, "Exit codes", ""},
        {{OPAL_PACKAGE}, 2, "", "-o"},
        {{OPAL_PACKAGE, "-o", bad, "--duration", "90000"}, 2, "", "--duration"},
        {{OPAL_PACKAGE, "-o", bad, "none.mp4"}, 1, "", "none.mp4"},
        {{OPAL_PACKAGE, "-o", bad, noise}, 3, "", "noise.mp4"},
        {{OPAL_PACKAGE, "-o", bad, "--subtitles", "x.srt"}, 2, "", "x.srt"},
        {{OPAL_PACKAGE, "-o", bad, "--subtitles", "x.srt:eng", "none.mp4"}, 1, "", "none.mp4"},
        {{"/bin/sh", "-c", OPAL_PACKAGE " --dump " + noise + " >/dev/full"}, 1, "", "output"},
        {{"/bin/sh", "-c", OPAL_PACKAGE " --help >/dev/full"}, 1, "", "output"},
        {{"/bin/sh", "-c", OPAL_PLAY " --version >/dev/full"}, 1, "", "output"},
        {{OPAL_PACKAGE, "-o", bad, "--base-url", "foo", "none.mp4"}, 2, "", "'foo'"},
        {{OPAL_PACKAGE, "-o", bad, "--trick-interval", "700"}, 2, "", "--trick-interval"},
        {{OPAL_PACKAGE, "-o", bad, "--preset", "warp"}, 1, "", "warp"},
        {{OPAL_PACKAGE, "-o", noise + "/x"}, 1, "", "noise.mp4/x"},
        {{OPAL_PACKAGE, "--dump", film + "/audio0-eng.mka"}, 0, "CodecID: A_AAC", ""},
        {{OPAL_PACKAGE, "--dump", noise}, 4, "damaged", ""},
        {{OPAL_PACKAGE, "--dump", film}, 1, "", "is a folder"},
        {{OPAL_SIMULATE}, 2, "", "--film"},
        {{OPAL_SIMULATE, "--slice", "3/2", "--json-lines"}, 2, "", "3/2"},
        {{OPAL_SIMULATE, "--set", "nothing=1"}, 2, "", "nothing=1"},
        {{OPAL_SIMULATE, "--film", "none.json", "--trace", "none"}, 3, "", "none.json"},
        {{OPAL_SIMULATE, "--replay", OPAL_TEST_RECORDINGS}, 0, " 0 differ", ""},
        {{"/bin/sh", "-c", OPAL_SIMULATE " --replay " OPAL_TEST_RECORDINGS " >/dev/full"},
         3,
         "",
         "written"},
        {{OPAL_REPORT, noise}, 1, "", "noise.mp4: no recording"},
        {{OPAL_REPORT, "none.jsonl"}, 1, "", "none.jsonl"},
        {{OPAL_REPORT, "a", "b", "c"}, 2, "", "c"},
        {{OPAL_ORIGIN, film, "--port", "70000"}, 2, "", "--port"},
        {{OPAL_ORIGIN, film, "--rate", "1k", "--rates", "0 1k"}, 2, "", "at most 1"},
        {{OPAL_ORIGIN, film, "--trace", "none.json"}, 2, "", "none.json"},
        {{OPAL_ORIGIN, film, "--script", script}, 2, "", "urk"},
        {{OPAL_ORIGIN, film, "--bind", "not-an-address"}, 1, "", "not-an-address"},
        {{OPAL_ORIGIN, film, "--latency", "-4"}, 2, "", "--latency"},
        {{"/bin/sh", "-c", OPAL_ORIGIN " --quiet " + film + " >/dev/full"}, 1, "", "output"},
        {Play({"--fly"}), 2, "", "--fly"},
        {Play({"--frames", "-5"}), 2, "", "--frames"},
        {Play({"--verify", "--ticket", "x"}, false), 2, "", "--verify needs the URL"},
        {Play({"--subtitles", "xx", "--frames", "1"}), 1, "audio: 0 eng; subtitles: ", "'xx'"},
        {{"/bin/sh", "-c",
          OPAL_PLAY " --headless --frames 1 " + s_origin->Url("presentation.smil") + " >/dev/full"},
         1,
         "",
         "output"},
        {Play({missing}, false), 1, "", missing + ": the server refuses (status 4xx); check"},
        {Play({"--verify", missing}, false), 1, "no golden file is known", ""},
        {Play({"--json", missing + "\xff"}, false), 1, "nothing.smil\xEF\xBF\xBD\"", ""},
        {Play({s_origin->Url("gone.smil")}, false), 1, "", ".mkv: the server refuses"},
        {Play({"--log", "/dev/full", "--frames", "1"}), 1, "", "/dev/full cannot be written"},
        {Play({"--strict", "--frames", "1"}), 3, "", "the end of the stream was not reached"},
        {Play({"--snapshots", "/proc/x"}), 1, "", "folder /proc/x cannot be made"},
        {Play({"--start", "1", "--at", "0.5:seek=2", "--at", "1:rate=-4x", "--at", "5.5:pause",
               "--at", "6:quit", "--pass-through"}),
         0, "back at the start", ""},
        {Play({"--pull", "--blocks", blocks, "--json", "--pass-through"}), 0,
         "\"pulledVideoBlocks\": 200,", ""},
        {Play({"--pull", "--pass-through", DamagedFilm()}, false), 1, "", "(-"},
    };
    for (const auto& [words, code, out, err] : rows) {
        SCOPED_TRACE(testing::PrintToString(words));
        Program program(words);
        EXPECT_EQ(code, program.Wait());
        EXPECT_THAT(program.out, HasSubstr(out));
        EXPECT_THAT(program.err, HasSubstr(err));
    }
    EXPECT_THAT(TextOf(blocks), StartsWith("video 0 40 "));
}

TEST_F(ProgramsTest, TheOriginPrintsItsAddressServesLogsAndStops) {
    s_folder->Write("served/a.mkv", "0123456789");
    const std::string script = s_folder->Write("script.json", R"({"rates": "0 8M", "faults": [
        {"url": "a.mkv", "method": "GET", "nth": 2, "hold": true, "headers": {"A": "b"}}]})");
    const std::string portFile = s_folder->File("port");
    Program program({OPAL_ORIGIN, s_folder->File("served"), "--script", script, "--port-file",
                     portFile, "--latency", "100", "--bind", "localhost", "--link-log",
                     s_folder->File("link")});
    const std::string line = program.ReadTo("\n");
    const std::string port = line.substr(line.find("localhost:") + 10);
    ASSERT_THAT(line, testing::MatchesRegex("Serving .* at http://localhost:[0-9]+/\n"));
    OriginClient client(static_cast<uint16_t>(std::stoul(port)));
    EXPECT_EQ("234", client.Ask("GET", "/a.mkv", "2-4").body);
    EXPECT_THAT(program.ReadTo("\n"), HasSubstr(" #1 GET /a.mkv 2-4 206 3 "));
    client.SendRequest("GET", "/a.mkv");  // held; a second connection shows that it has come
    EXPECT_EQ(404, OriginClient(static_cast<uint16_t>(std::stoul(port))).Ask("GET", "/x").status);
    EXPECT_THAT(program.ReadTo("\n"), HasSubstr(" #2 GET /x - 404 9 "));
    program.Signal(SIGUSR1);
    EXPECT_EQ("b", client.Read().Header("A"));
    program.Signal(SIGTERM);
    EXPECT_EQ(0, program.Wait());
    EXPECT_EQ(std::stoul(port), std::stoul("0" + TextOf(portFile)));
    const std::string link = TextOf(s_folder->File("link"));
    EXPECT_NE(link.find("8000000"), link.rfind("8000000")) << "before the script's start, and then";
}

TEST_F(ProgramsTest, TheReportOfASimulatedSessionAgreesWithTheSimulator) {
    const std::string trace = s_folder->Write("trace.json", R"([
        {"duration_ms": 9000, "bandwidth_kbps": 900, "latency_ms": 20}, {"duration_ms": 15000, "bandwidth_kbps": 60, "latency_ms": 20}])");
    const std::string recording = s_folder->File("simulated.jsonl");
    Program simulate({OPAL_SIMULATE, "--film", s_folder->File("film/presentation.json"), "--trace",
                      trace, "--loop", "10", "--json", "--record", recording});
    ASSERT_EQ(0, simulate.Wait()) << simulate.err;
    Program report({OPAL_REPORT, recording, "--json", "-"});
    ASSERT_EQ(0, report.Wait()) << report.err;
    EXPECT_THAT(TextOf(s_folder->File("simulated.html")), StartsWith("<!DOCTYPE html>"));
    const auto told = nlohmann::json::parse(simulate.out)["sessions"][0];
    const auto drawn = nlohmann::json::parse(report.out)["sessions"][0]["headline"];
    EXPECT_GT(told["stalls"], 0);
    EXPECT_GT(told["switches"], 2);
    EXPECT_EQ(told["stalls"], drawn["stalls"]);
    EXPECT_EQ(told["switches"], drawn["switches"]);
    EXPECT_NEAR(told["stall_s"].get<double>(), drawn["stalled_s"].get<double>(), 0.01);
    EXPECT_NEAR(told["startup_ms"].get<double>() / 1000, drawn["startup_s"].get<double>(), 0.01);
    EXPECT_NEAR(told["mean_kbps"].get<double>() * 1000, drawn["mean_bitrate_bps"].get<double>(), 1);
}

TEST_F(ProgramsTest, ASignalEndsThePlayerEvenWhileTheServerIsSilent) {
    const uint64_t hold = s_origin->Hold("*.smil");
    Program play(Play({}));
    ASSERT_TRUE(s_origin->WaitForHeld(hold, 1, 20000));
    play.Signal(SIGINT);
    EXPECT_EQ(4, play.Wait());
}

TEST_F(ProgramsTest, APauseWhilePlaybackStarvesHoldsAndAFailedClusterIsNamed) {
    s_origin->AddFault(origin::Fault::Delay(3000).On("level*").Nth(6));  // the second cluster
    Program play(Play({"--pass-through", "--json", "--at", "2:pause", "--at", "5:quit"}));
    ASSERT_EQ(0, play.Wait()) << play.err;
    const auto json = nlohmann::json::parse(play.out);
    EXPECT_EQ(1, json["underflows"]);
    EXPECT_LT(json["positionMs"], 2000);
    s_origin->ClearFaults();
    s_origin->AddFault(origin::Fault::Status(503).On("level*").Nth(6));
    Program failed(Play({"--pass-through"}));
    EXPECT_EQ(1, failed.Wait());
    EXPECT_THAT(failed.err, testing::ContainsRegex("level.*mkv: the server failed"));
}

TEST_F(ProgramsTest, ADamagedClusterIsNamedInBothModels) {
    std::string manifest = TextOf(s_folder->File("film") + "/presentation.smil");
    for (size_t at = 0; (at = manifest.find("/level", at)) != std::string::npos;) {
        const std::string name = manifest.substr(at + 1, manifest.find('"', at) - at - 1);
        std::string media = TextOf(s_folder->File("film") + "/" + name);
        const size_t cluster = media.find("\x1F\x43\xB6\x75");
        ASSERT_LT(cluster, media.size());
        media.replace(cluster + 12, 300, 300, '\xFF');
        s_folder->Write("film/hurt-" + name, media);
        manifest.insert(at + 1, "hurt-");
        at += name.size();
    }
    s_folder->Write("film/hurt.smil", manifest);
    for (const std::string model : {"--strict", "--pull"}) {
        Program play(Play({"--pass-through", model, s_origin->Url("hurt.smil")}, false));
        EXPECT_NE(0, play.Wait());
        EXPECT_THAT(play.err, testing::ContainsRegex("hurt-level.*mkv: its cluster 0 is damaged"));
    }
}

TEST_F(ProgramsTest, KeysOnATerminalWhichIsLeftAsItWas) {
    Program play(Play({"--pass-through"}), true);
    const auto mode = [&play] {
        termios settings = {};
        EXPECT_EQ(0, tcgetattr(play.Terminal(), &settings));
        return settings.c_lflag & static_cast<tcflag_t>(ICANON | ECHO);
    };
    const std::pair<std::string, std::string> rows[] = {
        {"", "playing "},
        {" ", "paused "},
        {" ", "playing "},
        {"s", "subtitle track 0"},
        {"", "playing "},
        {"s", "subtitles off"},
        {"\x1b[C", "buffering 0:08.0"},  // ten seconds on, at most the end
        {"q", "quit at "},
    };
    const tcflag_t before = mode();
    for (const auto& [keys, shown] : rows) {
        EXPECT_LE(0, write(play.Terminal(), keys.data(), keys.size()));
        EXPECT_THAT(play.ReadTo(shown), HasSubstr(shown));
        EXPECT_TRUE(keys == "q" || mode() == 0) << "keys come one by one and unseen";
    }
    EXPECT_EQ(0, play.Wait());
    EXPECT_EQ(before, mode());
}

}  // namespace
}  // namespace opal::test
