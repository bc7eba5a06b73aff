// The report of a session whose every figure is known, as rows, as a page in a browser, and live.
#include <gmock/gmock.h>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "OriginClient.h"
#include "opal-report/LiveServer.h"
#include "opal-report/Page.h"
#include "opal-report/SessionReport.h"
#include "recording/SessionReader.h"
#include "support/CorpusReplay.h"
#include "support/TemporaryDirectory.h"

extern "C" FuzzTarget FuzzRecording;

namespace opal::test {
namespace {

using nlohmann::json;
using report::SessionReport;
using report::ToCsv;
using report::ToJson;
using testing::HasSubstr;
using testing::Not;

const char* const kMarkup = "</script><img src=x onerror=alert(1)>&=cmd";

/// Three switches, of which one is down, one stall of 1.5 s, a pause, a seek, trick play; two of
/// five requests do not complete. Three texts try to become markup.
std::string KnownRecording() {
    const std::string text = json(kMarkup).dump();
    std::string lines =
        R"({"event":"recording","t_us":0,"version":1,"tool":"test","library":"1","start_us":1700000000000000,"source":)" +
        text + R"(,"settings":)" + text + R"(}
{"event":"state","t_us":100000,"state":"opening","text":"http://x"}
{"event":"call","t_us":110000,"kind":"set-levels","levels":[{"uri":"0","bitrate_bps":500000},{"uri":"1","bitrate_bps":1500000},{"uri":"2","bitrate_bps":3000000}]}
{"event":"link","t_us":120000,"bps":4000000}
{"event":"state","t_us":300000,"state":"opened","value_ms":30000,"to":0}
{"event":"state","t_us":400000,"state":"paused"}
{"event":"request","t_us":700000,"purpose":"cluster","stream":"video","index":0,"cluster":0,"url":"u","ranges":[[5,6],[7,8]],"wait_us":20000,"transfer_us":200000,"bytes":100000,"status":206,"end":"complete"}
{"event":"decision","t_us":700100,"rule":"bandwidth-up","from":0,"to":1,"bandwidth_bps":4000000,"buffered_ms":2000}
{"event":"state","t_us":700200,"state":"level","from":0,"to":1}
{"event":"buffers","t_us":800000,"position_ms":0,"video_ms":2000,"audio_ms":1500,"underflow_ms":500,"required_video_ms":4000,"max_video_ms":20000,"bandwidth_bps":4000000,"level":1}
{"event":"request","t_us":1000000,"purpose":"cluster","stream":"video","index":1,"cluster":1,"url":)" +
        text + R"(,"wait_us":0,"transfer_us":100,"bytes":300000,"status":206,"end":"complete"}
{"event":"request","t_us":1100000,"purpose":"cluster","stream":"audio","index":0,"wait_us":1000,"transfer_us":1000,"bytes":9000,"status":206,"end":"complete"}
{"event":"state","t_us":1300000,"state":"playing","position_ms":0,"to":1,"rate":"1x"}
{"event":"decision","t_us":4000000,"rule":"bandwidth-up","from":1,"to":2}
{"event":"state","t_us":4000100,"state":"level","from":1,"to":2}
{"event":"state","t_us":6000000,"state":"subtitle","position_ms":4700,"value_ms":3000,"end_ms":4500,"text":)" +
        text + R"(}
{"event":"request","t_us":7000000,"purpose":"cluster","stream":"video","index":2,"cluster":2,"wait_us":500000,"transfer_us":2000000,"bytes":50000,"status":206,"end":"slow-transfer"}
{"event":"decision","t_us":7000000,"rule":"slow-transfer","from":2,"to":0}
{"event":"state","t_us":7000100,"state":"level","from":2,"to":0}
{"event":"state","t_us":8000000,"state":"underflow","position_ms":6700}
{"event":"request","t_us":8500000,"purpose":"cluster","stream":"trick","index":0,"wait_us":500,"bytes":0,"result":-6,"end":"failed"}
{"event":"state","t_us":9500000,"state":"playing","position_ms":6700,"to":0,"rate":"1x"}
{"event":"state","t_us":12000000,"state":"paused","position_ms":9200}
{"event":"state","t_us":13000000,"state":"playing","position_ms":9200,"to":0,"rate":"1x"}
{"event":"state","t_us":14000000,"state":"seek","position_ms":10200,"value_ms":5000}
{"event":"state","t_us":14500000,"state":"playing","position_ms":5000,"to":0,"rate":"1x"}
{"event":"state","t_us":15000000,"state":"rate","rate":"-4x","position_ms":5500}
{"event":"buffers","t_us":16000000,"position_ms":1500,"video_ms":9000,"audio_ms":9500,"level":0}
{"event":"player","t_us":17000000,"shown":100,"dropped":1}
{"event":"player","t_us":18000000,"shown":125,"dropped":4}
{"event":"sink","t_us":18000000,"stream":"video","blocks":5,"bytes":1000,"refused":3}
{"event":"dropped","t_us":19000000,"total":2}
{"event":"state","t_us":20000000,"state":"end-of-stream"}
)";
    return lines;
}

std::unique_ptr<SessionReport> ReportOf(const std::string& text) {
    std::istringstream in(text);
    recording::Session session;
    std::string error;
    auto report = std::make_unique<SessionReport>();
    if (recording::SessionReader::Read(in, &session, &error)) {
        report->SetHeader(session.header);
        for (const recording::Record& record : session.records)
            report->Take(record);
        report->Finish();
    }
    return report;
}

json Rows(const SessionReport& report, report::TableId id) {
    return ToJson(report.Get(id))["rows"];
}

TEST(SessionReportTest, HeadlineAndRowsOfAKnownSession) {
    const auto report = ReportOf(KnownRecording());
    json headline = report->Summary()["headline"];
    EXPECT_EQ(headline, json::parse(R"({"startup_s":1.2,"stalls":1,"stalled_s":1.5,
        "mean_bitrate_bps":1000000.0,"switches":3,"switches_up":2,"switches_down":1,"requests":5,
        "requests_failed":1,"requests_cancelled":1,"bytes_fetched":459000,"bytes_discarded":50000,
        "duration_s":20.0,"played_s":10.7,"events_lost":2,"rows_left_out":0})"));
    const json switches = Rows(*report, report::kSwitches);
    EXPECT_EQ(switches[0][1], "bandwidth-up");
    EXPECT_EQ(json({switches[2][0], switches[2][1], switches[2][2], switches[2][3]}),
              json({7.0001, "slow-transfer", 2, 0}));
    EXPECT_EQ(Rows(*report, report::kStalls), json::parse("[[8.0,9.5,1.5,6.7]]"));
    const json requests = Rows(*report, report::kRequests);
    EXPECT_EQ(requests[0][0], 0.48) << "its begin";
    EXPECT_EQ(requests[0][8], 4000000);
    EXPECT_EQ(requests[1][8], nullptr) << "too short to measure anything";
    EXPECT_EQ(requests[0][12], "5+6 7+8");
    std::string phases;
    for (const json& row : Rows(*report, report::kPhases))
        phases += row[2].get<std::string>() + (row[3].is_null() ? ";" : " -4x;");
    EXPECT_EQ(phases,
              "starting;playing;stalled;playing;paused;playing;seeking;playing;trick play -4x;");
    EXPECT_EQ(Rows(*report, report::kSubtitles)[0], json({4.5, 6.0, 3.0, 4.5, kMarkup}))
        << "shown until the next position was reached";
    EXPECT_EQ(Rows(*report, report::kPlayer)[1][8], 25.0);
    EXPECT_EQ(Rows(*report, report::kPlayer)[1][9], 3);
}

TEST(SessionReportTest, TrueRateOfAnotherRecordingIsMergedByTheClock) {
    auto report = ReportOf(KnownRecording());
    const int64_t start = report->GetHeader().startUs;
    std::vector<recording::Record> links;
    for (const auto& [atUs, rate] : {std::pair(-9, 1), {-5, 2}, {4'000'000, 3}, {99'000'000, 4}}) {
        recording::LinkEvent link;
        link.timeUs = start + atUs;
        link.bitsPerSecond = rate;
        links.emplace_back(link);
    }
    report->TakeLink(links);
    EXPECT_EQ(Rows(*report, report::kLink), json::parse("[[0.0,2],[0.12,4000000],[4.0,3]]"));
}

TEST(SessionReportTest, RowsAsCsvAreQuotedAndNoFormulas) {
    EXPECT_EQ(ToCsv(report::Cell("=1,\"a\"\n")), "\"'=1,\"\"a\"\"\n\"");
    const auto report = ReportOf(KnownRecording());
    std::istringstream csv(ToCsv({report.get(), report.get()}));
    std::string line;
    std::getline(csv, line);
    const auto columns = std::count(line.begin(), line.end(), ',');
    size_t rows = 0;
    for (; std::getline(csv, line); ++rows)
        EXPECT_EQ(std::count(line.begin(), line.end(), ','), columns) << line;
    size_t expected = 0;
    for (const report::Table& table : report->Tables())
        expected += 2 * table.rows.size();
    EXPECT_EQ(rows, expected);
}

TEST(SessionReportTest, WhateverIsReadIsWrittenAlike) {
    ReplayCorpora({{"recording", &FuzzRecording}}, 50);
}

TEST(SessionReportTest, ARecordingCutAnywhereIsReported) {
    const std::string whole = KnownRecording();
    for (size_t length = 0; length < whole.size(); length += 61) {
        const auto report = ReportOf(whole.substr(0, length));
        EXPECT_LE(report->GetHeadline().stalls, 1);
        EXPECT_THAT(report::MakePage(ToJson({report.get()})), Not(HasSubstr("<img")));
    }
}

std::string Browser() {
    for (const char* name : {"chromium", "chromium-browser", "google-chrome"}) {
        std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
        for (std::string folder; std::getline(path, folder, ':');) {
            if (std::filesystem::exists(folder + "/" + name))
                return folder + "/" + name;
        }
    }
    return "";
}

std::string OutputOf(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    char part[4096];
    for (size_t n = 0; pipe && (n = fread(part, 1, sizeof part, pipe)) > 0;)
        output.append(part, n);
    if (pipe)
        pclose(pipe);
    return output;
}

/// What a browser without a window makes of the page.
std::string DomOf(const std::string& url, const std::string& options = "") {
    const TemporaryDirectory home;
    return OutputOf("HOME=" + home.Path() + " timeout 120 " + Browser() +
                    " --headless=new --no-sandbox --disable-gpu --virtual-time-budget=3000 "
                    "--user-data-dir=" +
                    home.Path() + " --dump-dom " + options + " " + url + " 2>" +
                    home.File("errors"));
}

/// Opens the page with the test's script as its last.
json SeenInBrowser(const json& data, const std::string& options) {
    std::ostringstream script;
    script << std::ifstream(REPORT_PAGE_TEST).rdbuf();
    std::string page = report::MakePage(data);
    const std::string tag = page.substr(page.rfind("<script nonce"), 50);
    const std::string open = tag.substr(0, tag.find('>') + 1);
    page.insert(page.rfind("</body>"), open + script.str() + "</script>");
    page.insert(page.find("</head>"), open + R"(const testErrors = [];
        addEventListener("error", (event) => testErrors.push(String(event.message)));
        addEventListener("securitypolicyviolation", (event) => testErrors.push(event.violatedDirective));
        </script>)");
    const TemporaryDirectory folder;
    const std::string seen = DomOf("file://" + folder.Write("page.html", page), options);
    const size_t begin = seen.rfind("OUTCOME");
    const size_t end = seen.rfind("EMOCTUO");
    if (begin == std::string::npos || end == std::string::npos)
        return {{"errors", {"no outcome: " + seen.substr(0, 500)}}};
    return json::parse(seen.substr(begin + 7, end - begin - 7), nullptr, false);
}

TEST(ReportPageTest, DrawsZoomsAndTellsInABrowser) {
    if (Browser().empty())
        GTEST_SKIP() << "skipped: no chromium";
    const auto report = ReportOf(KnownRecording());
    json light = SeenInBrowser(ToJson({report.get()}),
                               "--window-size=800,900 --blink-settings=preferredColorScheme=1");
    EXPECT_EQ(light["errors"], json::array());
    EXPECT_EQ(json({light["switches"], light["stalls"], light["unfinished"], light["tableRows"]}),
              json({3, 1, 2, 3}));
    EXPECT_EQ(light["headline"],
              json({"1.20 s", "1", "1.00 Mb/s", "3", "459 kB", "50.0 kB", "0:10.7"}));
    EXPECT_EQ(light["plots"], json({"level", "buffer", "link", "requests", "position", "subtitles",
                                    "pictures", "sinks"}));
    EXPECT_THAT(light["tooltip"].get<std::string>(), HasSubstr("slow-transfer"));
    for (const char* held : {"zoomed", "shared", "panned", "reset", "hiddenPlots"})
        EXPECT_EQ(light[held], true) << held;
    EXPECT_EQ(light["chosen"], json({1, 2})) << "by dragging on the strip";
    EXPECT_EQ(light["wide"], false) << "nothing scrolls sideways at 800 pixels";
    EXPECT_EQ(light["images"], 0);
    const json two =
        SeenInBrowser(ToJson({report.get(), report.get()}),
                      "--window-size=1280,900 --blink-settings=preferredColorScheme=0");
    EXPECT_EQ(two["errors"], json::array());
    EXPECT_EQ(json({two["sessions"], two["switches"], two["shared"], two["wide"]}),
              json({2, 6, true, false}));
    EXPECT_NE(two["back"], light["back"]) << "dark";
}

class LiveServerTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(server.Start(0, &error)) << error;
        port = static_cast<uint16_t>(std::stoi(server.Url().substr(17)));
    }

    ClientReply Ask(const std::string& target, const std::string& host = "",
                    const std::string& method = "GET") {
        OriginClient client(port);
        client.Send(method + " " + target + " HTTP/1.1\r\nHost: " +
                    (host.empty() ? "127.0.0.1:" + std::to_string(port) : host) + "\r\n\r\n");
        return client.Read();
    }

    report::LiveServer server;
    uint16_t port = 0;
};

TEST_F(LiveServerTest, TellsTheRowsThatHaveComeSince) {
    EXPECT_THAT(Ask("/").body, HasSubstr("\"live\":true"));
    std::istringstream lines(KnownRecording());
    std::string line;
    for (int i = 0; i < 9 && std::getline(lines, line); ++i)
        server.Append(line);
    json first = json::parse(Ask("/rows.json?from=").body);
    EXPECT_EQ(first["headline"]["switches"], 1);
    EXPECT_EQ(first["phase"]["phase"], "starting");
    EXPECT_EQ(first["over"], false);
    std::string counts;
    for (const json& table : first["tables"])
        counts += std::to_string(table["rows"].size()) + ",";
    while (std::getline(lines, line))
        server.Append(line);
    server.Append("garbage");
    server.End();
    json second = json::parse(Ask("/rows.json?from=" + counts).body);
    EXPECT_EQ(second["headline"]["switches"], 3);
    EXPECT_EQ(second["over"], true);
    EXPECT_EQ(second["tables"][report::kSwitches]["rows"].size(), 2U);
    for (const char* counts_ : {"99999999999999999999999,-1,x", ",,,", "1"})
        EXPECT_EQ(Ask(std::string("/rows.json?from=") + counts_).status, 200);
    if (Browser().empty())
        GTEST_SKIP() << "skipped: no chromium";
    const std::string dom = DomOf(server.Url());
    EXPECT_THAT(dom, HasSubstr("class=\"live over\""));
    size_t switches = 0;
    for (size_t at = 0; (at = dom.find("class=\"switch ", at)) != std::string::npos; ++at)
        ++switches;
    EXPECT_EQ(switches, 3U) << "drawn of what came after the page";
}

TEST_F(LiveServerTest, AnswersThisMachineAloneAndLetsGoOfAll) {
    EXPECT_EQ(Ask("/", "evil.example:" + std::to_string(port)).status, 421);
    EXPECT_EQ(Ask("/", "127.0.0.1").status, 421);
    EXPECT_EQ(Ask("/", "localhost:" + std::to_string(port)).status, 200);
    EXPECT_EQ(Ask("/", "", "POST").status, 405);
    EXPECT_EQ(Ask("/other").status, 404);
    std::vector<std::unique_ptr<OriginClient>> idle;
    for (int i = 0; i < 40; ++i)
        idle.push_back(std::make_unique<OriginClient>(port));
    EXPECT_EQ(Ask("/").status, 0) << "more connections than it serves";
    idle.clear();
    const std::string url = server.Url();
    server.Stop();
    EXPECT_EQ(Ask("/").status, 0);
    std::string error;
    EXPECT_TRUE(server.Start(port, &error)) << error;
    EXPECT_EQ(server.Url(), url);
}

}  // namespace
}  // namespace opal::test
