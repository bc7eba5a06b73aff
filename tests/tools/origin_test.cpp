// The origin over real sockets: files, ranges, connections, rate, log.
#include "opal-origin/Origin.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "OriginClient.h"
#include "opal-origin/ScriptedServer.h"

namespace {

using namespace opal::origin;
using opal::test::ClientReply;
using opal::test::OriginClient;
using End = ClientReply::End;

std::string Generated(int64_t offset, int64_t length) {
    std::string bytes;
    for (int64_t i = 0; i < length; ++i) {
        bytes.push_back(static_cast<char>(Origin::GeneratedByte(offset + i)));
    }
    return bytes;
}

double SecondsOf(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A loaded machine makes things late now and then, so one of several tries must be in time; none
// may be early.
void ExpectDuration(double seconds, double tolerance, const std::function<void()>& action) {
    double last = 0;
    for (int i = 0; i < 6; ++i) {
        last = SecondsOf(action);
        ASSERT_GT(last, seconds - tolerance) << "too early";
        if (last < seconds + tolerance) {
            return;
        }
    }
    ADD_FAILURE() << last << " s instead of " << seconds << " in the last of six tries";
}

class OriginTest : public testing::Test {
  protected:
    void SetUp() override {
        m_origin.AddFile("/a.mkv", "0123456789");
        m_origin.AddGeneratedFile("/big.mkv", 5000000000);
        std::string error;
        ASSERT_TRUE(m_origin.Start(&error)) << error;
    }

    Origin m_origin;
};

TEST_F(OriginTest, AnswersGetHeadAndRanges) {
    struct Case {
        const char* method;
        const char* target;
        const char* ranges;
        int status;
        const char* body;
        const char* contentRange;
        const char* contentLength;
        const char* contentType;
    };
    const Case cases[] = {
        {"GET", "/a.mkv", "", 200, "0123456789", "", "10", "video/x-matroska"},
        {"GET", "/a.mkv?x=1", "", 200, "0123456789", "", "10", "video/x-matroska"},
        {"HEAD", "/a.mkv", "", 200, "", "", "10", "video/x-matroska"},
        {"HEAD", "/a.mkv", "2-4", 200, "", "", "10", "video/x-matroska"},
        {"GET", "/a.mkv", "2-4", 206, "234", "bytes 2-4/10", "3", "video/x-matroska"},
        {"GET", "/a.mkv", "8-99", 206, "89", "bytes 8-9/10", "2", "video/x-matroska"},
        {"GET", "/a.mkv", "-3", 206, "789", "bytes 7-9/10", "3", "video/x-matroska"},
        {"GET", "/a.mkv", "20-,0-1", 206, "01", "bytes 0-1/10", "2", "video/x-matroska"},
        {"GET", "/a.mkv", "5-2", 200, "0123456789", "", "10", "video/x-matroska"},
        {"GET", "/a.mkv", "10-", 416, "Range Not Satisfiable", "bytes */10", "21", "text/plain"},
        {"GET", "/none", "", 404, "Not Found", "", "9", "text/plain"},
        {"HEAD", "/none", "", 404, "", "", "9", "text/plain"},
        {"POST", "/a.mkv", "", 405, "Method Not Allowed", "", "18", "text/plain"},
        {"GET", "/big.mkv", "4999999998-", 206, nullptr, "bytes 4999999998-4999999999/5000000000",
         "2", "video/x-matroska"},
        {"HEAD", "/big.mkv", "", 200, "", "", "5000000000", "video/x-matroska"},
        {"GET", "/../a.mkv", "", 400, "Bad Request", "", "11", "text/plain"},
    };
    OriginClient client(m_origin.Port());  // all of them on one connection
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.method) + " " + c.target + " " + c.ranges);
        client.SendRequest(c.method, c.target, c.ranges);
        const ClientReply reply = client.Read(std::string(c.method) != "HEAD");
        EXPECT_EQ(c.status, reply.status);
        EXPECT_EQ(c.body == nullptr ? Generated(4999999998, 2) : c.body, reply.body);
        EXPECT_EQ(c.contentRange, reply.Header("Content-Range"));
        EXPECT_EQ(c.contentLength, reply.Header("Content-Length"));
        EXPECT_EQ(c.contentType, reply.Header("Content-Type"));
    }
    EXPECT_EQ(1U, m_origin.ConnectionsAccepted());
}

TEST_F(OriginTest, SeveralRangesAreOneMultipartReplyInTheOrderAskedFor) {
    OriginClient client(m_origin.Port());
    const ClientReply reply = client.Get("/a.mkv", "6-8,0-1,50-60,0-4");
    ASSERT_EQ(206, reply.status);
    const std::string type = reply.Header("Content-Type");
    const std::string prefix = "multipart/byteranges; boundary=";
    ASSERT_EQ(prefix, type.substr(0, prefix.size()));
    const std::string line = "\r\n--" + type.substr(prefix.size());
    const std::string head = line + "\r\nContent-Type: video/x-matroska\r\nContent-Range: bytes ";
    EXPECT_EQ(head + "6-8/10\r\n\r\n678" + head + "0-1/10\r\n\r\n01" + head +
                  "0-4/10\r\n\r\n01234" + line + "--\r\n",
              reply.body);
    EXPECT_EQ(End::Complete, reply.end);
    EXPECT_NE(type, client.Get("/a.mkv", "6-8,0-1").Header("Content-Type"));
}

TEST_F(OriginTest, KeepsPipelinesAndClosesConnectionsAsAsked) {
    OriginClient client(m_origin.Port());
    client.Send(
        "GET /a.mkv HTTP/1.1\r\nHost: x\r\n\r\nHEAD /a.mkv HTTP/1.1\r\nHost: x\r\n\r\n"
        "GET /none HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(200, client.Read().status);
    EXPECT_EQ(200, client.Read(false).status);
    EXPECT_EQ(404, client.Read().status);
    End end = End::Complete;
    EXPECT_EQ("", client.ReadRest(&end));
    EXPECT_EQ(End::Closed, end);

    OriginClient old(m_origin.Port());
    old.Send("GET /a.mkv HTTP/1.0\r\n\r\n");
    EXPECT_EQ("0123456789", old.Read().body);
    old.ReadRest(&end);
    EXPECT_EQ(End::Closed, end);

    for (const std::string& garbage :
         {std::string("\x16\x03\x01 hello\r\n\r\n"), std::string("GET /\r\n\r\n"),
          "GET / HTTP/1.1\r\nX: " + std::string(70000, 'x') + "\r\n\r\n"}) {
        OriginClient bad(m_origin.Port());
        bad.Send(garbage);
        EXPECT_EQ(400, bad.Read().status) << garbage.substr(0, 20);
        bad.ReadRest(&end);
        EXPECT_EQ(End::Closed, end);
    }
}

TEST(OriginFolderTest, ServesRegularFilesBelowTheFolderOnly) {
    namespace fs = std::filesystem;
    const fs::path root = fs::path(testing::TempDir()) / ("origin" + std::to_string(getpid()));
    fs::create_directories(root / "served/sub");
    std::ofstream(root / "secret") << "secret";
    std::ofstream(root / "served/sub/film.smil") << "<smil/>";
    std::ofstream(root / "served/long.mkv") << std::string(200000, 'x');
    fs::create_symlink(root / "secret", root / "served/link");
    fs::create_directory_symlink(root, root / "served/up");
    ASSERT_EQ(0, mkfifo((root / "served/fifo").c_str(), 0600));

    OriginOptions options;
    options.folder = root / "served";
    Origin origin(options);
    origin.AddFile("added", "memory");
    ASSERT_TRUE(origin.Start());
    {
        OriginClient client(origin.Port());
        const ClientReply reply = client.Get("/sub/film.smil");
        EXPECT_EQ("<smil/>", reply.body);
        EXPECT_EQ("application/smil+xml", reply.Header("Content-Type"));
        EXPECT_EQ("memory", client.Get("/added").body);
        for (const char* target : {"/", "/sub", "/sub/", "/link", "/up/secret", "/fifo",
                                   "/sub/film.smil/x", "//secret", "/sub//../../secret"}) {
            const int status = client.Get(target).status;
            EXPECT_TRUE(status == 404 || status == 400) << target << " " << status;
        }

        // A file that shrinks under the reply cuts it, and nothing else.
        const uint64_t stall = origin.AddFault(Fault::StallAt(100000));
        client.SendRequest("GET", "/long.mkv");
        ASSERT_TRUE(origin.WaitForHeld(stall, 1, 5000));
        fs::resize_file(root / "served/long.mkv", 1000);
        origin.Release(stall);
        const ClientReply cut = client.Read();
        EXPECT_EQ(200, cut.status);
        EXPECT_EQ(End::Reset, cut.end);
        ASSERT_TRUE(origin.WaitForFinished("/long.mkv", 1, 5000));
        EXPECT_FALSE(origin.Log("/long.mkv")[0].complete);
    }
    options.folder = root / "none";
    std::string error;
    EXPECT_FALSE(Origin(options).Start(&error));
    EXPECT_NE(std::string::npos, error.find("none: No such file")) << error;
    fs::remove_all(root);
}

size_t Append(char* pData, size_t size, size_t count, void* pString) {
    static_cast<std::string*>(pString)->append(pData, size * count);
    return size * count;
}

TEST_F(OriginTest, LibcurlReadsManyRangesOverOneConnection) {
    CURL* curl = curl_easy_init();
    ASSERT_NE(nullptr, curl);
    std::string body;
    curl_easy_setopt(curl, CURLOPT_URL, m_origin.Url("big.mkv").c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
    for (int64_t i = 0; i < 120; ++i) {
        const int64_t first = i * 40000000;
        const int64_t length = 1 + i * 1000;
        body.clear();
        curl_easy_setopt(
            curl, CURLOPT_RANGE,
            (std::to_string(first) + "-" + std::to_string(first + length - 1)).c_str());
        ASSERT_EQ(CURLE_OK, curl_easy_perform(curl)) << i;
        ASSERT_TRUE(Generated(first, length) == body) << i;
    }
    curl_easy_cleanup(curl);
    EXPECT_EQ(1U, m_origin.ConnectionsAccepted());
    EXPECT_EQ(120U, m_origin.Log("/big.mkv").size());
}

void Download(const Origin& origin, int64_t bytes) {
    OriginClient client(origin.Port(), 60000);
    client.SendRequest("GET", "/big.mkv", "0-" + std::to_string(bytes - 1));
    EXPECT_EQ(206, client.Read(false).status);
    EXPECT_EQ(static_cast<size_t>(bytes), client.Skip(static_cast<size_t>(bytes)));
}

double CpuSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

TEST_F(OriginTest, TheRateIsKeptWithoutBurningTime) {
    constexpr double head = 230;
    for (const int64_t rate : {100000, 1000000, 8000000, 50000000}) {
        m_origin.SetRate(rate);
        const int64_t bytes = rate / 8;  // one second's
        const double expected = (static_cast<double>(bytes) + head) * 8 / static_cast<double>(rate);
        ExpectDuration(expected, expected * 0.05, [&] {
            const double before = CpuSeconds();
            Download(m_origin, bytes);
            EXPECT_LT(CpuSeconds() - before, 0.5) << rate;  // both ends, sanitizers included
        });
    }
}

TEST_F(OriginTest, ConnectionsShareTheLink) {
    m_origin.SetRate(8000000);
    ExpectDuration(0.8, 0.06, [&] {
        double other = 0;
        std::thread thread([&] { other = SecondsOf([&] { Download(m_origin, 400000); }); });
        Download(m_origin, 400000);
        thread.join();
        EXPECT_GT(other, 0.6);  // alone it would have taken 0.4
    });
}

TEST_F(OriginTest, ScriptsAndLiveChangesOfTheRateTakeEffect) {
    RateScript script;
    std::string error;
    ASSERT_TRUE(RateScript::FromText("0 8M, 0.3 0, 0.7 80M", &script, &error));
    ExpectDuration(0.72, 0.06, [&] {  // 300 kB, nothing, the rest in 20 ms
        m_origin.SetRateScript(script);
        Download(m_origin, 500000);
    });

    m_origin.SetRate(0);
    OriginClient client(m_origin.Port());
    client.SendRequest("GET", "/a.mkv");
    ASSERT_TRUE(m_origin.WaitForRequest("/a.mkv", 1, 5000));
    EXPECT_FALSE(m_origin.WaitForFinished("/a.mkv", 1, 100)) << "answered over a cut link";
    m_origin.SetRate(kUnlimited);
    EXPECT_EQ("0123456789", client.Read().body);

    m_origin.SetLatency(120);
    ExpectDuration(0.12, 0.01, [&] { EXPECT_EQ(200, client.Head("/a.mkv").status); });
}

TEST_F(OriginTest, TheLogTellsWhatWasAskedAndSent) {
    OriginClient first(m_origin.Port());
    std::vector<std::string> lines;
    m_origin.SetObserver(
        [&lines](const RequestRecord& record) { lines.push_back(FormatRecord(record)); });
    first.Get("/a.mkv?x", "2-4");
    OriginClient second(m_origin.Port());
    second.Head("/none");
    first.Get("/a.mkv", "0-1,-3,4-");
    ASSERT_TRUE(m_origin.WaitForFinished("", 3, 5000));
    m_origin.Stop();  // the observer's last call is over

    const std::vector<RequestRecord> log = m_origin.Log();
    ASSERT_EQ(3U, log.size());
    EXPECT_EQ("/a.mkv?x", log[0].target);
    EXPECT_EQ("/a.mkv", log[0].path);
    EXPECT_EQ((std::vector<ByteRange>{{2, 4}}), log[0].ranges);
    EXPECT_EQ(206, log[0].status);
    EXPECT_EQ(3, log[0].bodyBytesSent);
    EXPECT_TRUE(log[0].finished && log[0].complete);
    EXPECT_EQ("HEAD", log[1].method);
    EXPECT_EQ(404, log[1].status);
    EXPECT_EQ(0, log[1].bodyBytesSent);
    EXPECT_TRUE(log[1].ranges.empty());
    EXPECT_EQ("0-1,-3,4-", log[2].rangeText);
    EXPECT_EQ((std::vector<ByteRange>{{0, 1}, {-1, 3}, {4, -1}}), log[2].ranges);
    EXPECT_EQ(log[0].connection, log[2].connection);
    EXPECT_NE(log[0].connection, log[1].connection);
    EXPECT_LE(log[0].timeMs, log[1].timeMs);
    EXPECT_EQ(2U, m_origin.Log("a.mkv").size());

    ASSERT_EQ(3U, lines.size());
    RequestRecord record = log[0];
    record.timeMs = 12345;
    record.durationMs = 7;
    EXPECT_EQ("12.345 #1 GET /a.mkv?x 2-4 206 3 0.007 ok", FormatRecord(record));
    m_origin.ClearLog();
    EXPECT_TRUE(m_origin.Log().empty());
}

TEST_F(OriginTest, OldRecordsMakeRoom) {
    OriginOptions options;
    options.maxLogRecords = 3;
    Origin origin(options);
    ASSERT_TRUE(origin.Start());
    OriginClient client(origin.Port());
    for (int i = 0; i < 10; ++i) {
        client.Head("/" + std::to_string(i));
    }
    ASSERT_EQ(3U, origin.Log().size());
    EXPECT_EQ("/7", origin.Log()[0].path);
    EXPECT_EQ(8U, origin.Log()[0].number);
}

TEST_F(OriginTest, StopsAtOnceAndComesBackAtTheSamePort) {
    const uint64_t hold = m_origin.Hold("/a.mkv");
    OriginClient held(m_origin.Port());
    held.SendRequest("GET", "/a.mkv");
    m_origin.SetRate(8000);
    OriginClient slow(m_origin.Port());
    slow.SendRequest("GET", "/big.mkv");
    OriginClient idle(m_origin.Port());
    ASSERT_EQ(404, idle.Head("/none").status);
    ASSERT_TRUE(m_origin.WaitForHeld(hold, 1, 5000));
    ASSERT_TRUE(m_origin.WaitForRequest("/big.mkv", 1, 5000));
    EXPECT_EQ(3U, m_origin.ConnectionsOpen());

    const uint16_t port = m_origin.Port();
    EXPECT_LT(SecondsOf([&] { m_origin.Stop(); }), 2.0);
    EXPECT_EQ(0U, m_origin.ConnectionsOpen());
    EXPECT_EQ(End::Reset, held.Read().end);
    EXPECT_EQ(End::Reset, slow.Read().end);
    EXPECT_FALSE(OriginClient(port).Connected());
    for (const RequestRecord& record : m_origin.Log("/a.mkv")) {
        EXPECT_TRUE(record.finished && !record.complete);
    }

    m_origin.ClearFaults();
    m_origin.SetRate(kUnlimited);
    ASSERT_TRUE(m_origin.Start());
    EXPECT_EQ(port, m_origin.Port());
    OriginClient again(port);
    EXPECT_EQ("0123456789", again.Get("/a.mkv").body);
    OriginOptions taken;
    taken.port = port;
    std::string error;
    EXPECT_FALSE(Origin(taken).Start(&error));
    EXPECT_NE(std::string::npos, error.find(std::to_string(port))) << error;
}

TEST(ScriptedServerTest, SendsItsBytesAndEndsAsTold) {
    using After = ScriptedReply::After;
    ScriptedServer server({{"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nab", 3, After::Keep},
                           {"garbage\r\n\r\n", 0, After::Close},
                           {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", 0, After::Reset},
                           {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", 0, After::Silence}});
    OriginClient first(server.Port());
    EXPECT_EQ("ab", first.Get("/one").body);
    EXPECT_EQ("garbage\r\n\r\n", first.Get("/two").head);
    End end = End::Complete;
    first.ReadRest(&end);
    EXPECT_EQ(End::Closed, end);
    OriginClient second(server.Port());
    EXPECT_EQ(End::Reset, second.Get("/three").end);
    for (int i = 0; i < 2; ++i) {  // the last one repeats
        OriginClient silent(server.Port(), 100);
        const ClientReply reply = silent.Get("/four", "0-1");
        EXPECT_EQ("abc", reply.body);
        EXPECT_EQ(End::TimedOut, reply.end);
    }
    ASSERT_TRUE(server.WaitForRequests(5, 5000));
    EXPECT_FALSE(server.WaitForRequests(6, 10));
    EXPECT_EQ("GET /four HTTP/1.1\r\nHost: test\r\nRange: bytes=0-1\r\n\r\n", server.Requests()[4]);
    EXPECT_EQ(4U, server.ConnectionsAccepted());
}

}  // namespace
