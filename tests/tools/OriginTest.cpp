// The origin over real sockets: files, ranges, connections, rate, and each fault as a client sees
// it.
#include "opal-origin/Origin.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <thread>

#include "OriginClient.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace opal::origin;
using opal::test::ClientReply;
using opal::test::OriginClient;

class OriginTest : public testing::Test {
  protected:
    OriginTest() {
        m_origin.AddFile("/a.mkv", "0123456789");
        m_origin.AddFile("/b.mkv", "abc");
        m_origin.AddGeneratedFile("/big.mkv", 5000000000);
        EXPECT_TRUE(m_origin.Start());
    }

    OriginClient Connect() const { return OriginClient(m_origin.Port()); }

    Origin m_origin;
};

TEST_F(OriginTest, AnswersGetHeadAndRangesAndRefusesWhatIsNone) {
    const std::string last(1, static_cast<char>(Origin::GeneratedByte(4999999999)));
    const std::string whole = "0123456789";
    using Row = std::tuple<std::string, std::string, std::string, int, std::string, std::string>;
    const Row rows[] = {
        {"GET", "/a.mkv?x=1", "", 200, whole, ""},
        {"HEAD", "/a.mkv", "2-4", 200, "", ""},
        {"GET", "/a.mkv", "2-4", 206, "234", "bytes 2-4/10"},
        {"GET", "/a.mkv", " 8-99999999999999999999", 206, "89", "bytes 8-9/10"},
        {"GET", "/a.mkv", "-3", 206, "789", "bytes 7-9/10"},
        {"GET", "/a.mkv", "20-,0-1", 206, "01", "bytes 0-1/10"},
        {"GET", "/a.mkv", "5-2", 200, whole, ""},
        {"GET", "/a.mkv", "1--2", 200, whole, ""},
        {"GET", "/a.mkv", "1-2,x", 200, whole, ""},
        {"GET", "/a.mkv", "-0", 416, "Range Not Satisfiable", "bytes */10"},
        {"GET", "/a.mkv", "99999999999999999999-", 416, "Range Not Satisfiable", "bytes */10"},
        {"GET", "/none", "", 404, "Not Found", ""},
        {"HEAD", "/none", "", 404, "", ""},
        {"POST", "/a.mkv", "", 405, "Method Not Allowed", ""},
        {"GET", "/big.mkv", "4999999999-", 206, last, "bytes 4999999999-4999999999/5000000000"},
    };
    OriginClient client = Connect();  // all of them on one connection
    for (const auto& [method, target, ranges, status, body, contentRange] : rows) {
        SCOPED_TRACE(method + " " + target + " " + ranges);
        const ClientReply reply = client.Ask(method, target, ranges);
        EXPECT_EQ(status, reply.status);
        EXPECT_EQ(body, reply.body);
        EXPECT_EQ(contentRange, reply.Header("Content-Range"));
    }
    EXPECT_EQ("5000000000", client.Ask("HEAD", "/big.mkv").Header("Content-Length"));
    EXPECT_EQ(1U, m_origin.ConnectionsAccepted());
    const std::string longLine = "GET / HTTP/1.1\r\nX: " + std::string(70000, 'x') + "\r\n\r\n";
    for (const std::string& wrong : {std::string("\x16\x03\x01 hello\r\n\r\n"), longLine}) {
        OriginClient stranger = Connect();
        stranger.Send(wrong);
        EXPECT_EQ(400, stranger.Read().status);
        EXPECT_EQ("closed", stranger.Read().end);
    }
}

TEST_F(OriginTest, ServesRegularFilesBelowTheFolderOnly) {
    const opal::test::TemporaryDirectory root;
    root.Write("secret", "secret");
    root.Write("served/sub/a b.smil", "<smil/>");
    std::filesystem::create_symlink(root.File("secret"), root.File("served/link"));
    std::filesystem::create_directory_symlink(root.Path(), root.File("served/up"));
    ASSERT_EQ(0, mkfifo(root.File("served/fifo").c_str(), 0600));
    OriginOptions options;
    options.folder = root.File("served");
    Origin origin(options);
    ASSERT_TRUE(origin.Start());
    OriginClient client(origin.Port());
    EXPECT_EQ("<smil/>", client.Ask("GET", "http://host:1/sub/a%20b.smil?x=/../y").body);
    for (const char* target :
         {"/", "/sub/", "/link", "/up/secret", "/fifo", "/sub/a%20b.smil/x", "//secret",
          "/sub//../../secret", "/sub%2f..%2f..%2fsecret", "/%zz", "/%4", "/sub/a%20b.smil%00"})
        EXPECT_THAT(client.Ask("GET", target).status, testing::AnyOf(400, 404)) << target;
}

TEST_F(OriginTest, RateAndLatencyAreKeptWithoutBurningTime) {
    m_origin.SetRate(1000000);
    m_origin.SetLatency(120);
    const std::clock_t before = std::clock();
    EXPECT_EQ(125000U, Connect().Ask("GET", "/big.mkv", "0-124999").body.size());
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2) << "both ends";
    ASSERT_TRUE(m_origin.WaitForFinished("big.mkv", 1, 5000));
    EXPECT_THAT(m_origin.Log()[0].durationMs, testing::AllOf(testing::Ge(1110), testing::Lt(5000)));
    m_origin.SetRate(0);
    OriginClient client = Connect();
    client.SendRequest("GET", "/a.mkv");
    EXPECT_FALSE(m_origin.WaitForFinished("/a.mkv", 1, 200)) << "answered over a cut link";
    m_origin.SetRate(kUnlimited);
    EXPECT_EQ("0123456789", client.Read().body);
}

TEST_F(OriginTest, FaultsAsAClientSeesThem) {
    const std::string length = "Content-Length";
    using Text = std::string;
    const std::tuple<Fault, Text, int, Text, Text, Text, Text> rows[] = {
        {Fault::Status(404), "GET", 404, "Not Found", "complete", length, "9"},
        {Fault::Status(206, "xy"), "GET", 206, "xy", "complete", "Content-Range", ""},
        {Fault::Redirect("/b.mkv"), "GET", 302, "Found", "complete", "Location", "/b.mkv"},
        {Fault::IgnoreRange(), "GET", 200, "0123456789", "complete", "Content-Range", ""},
        {Fault::Header(length, "2"), "GET", 206, "23", "complete", length, "2"},
        {Fault::Header(length, "4294967296"), "HEAD", 200, "", "complete", length, "4294967296"},
        {Fault::WithoutHeader("content-length"), "GET", 206, "234", "closed", length, ""},
        {Fault::CloseAt(2), "GET", 206, "23", "closed", length, "3"},
        {Fault::ResetAt(2), "GET", 206, "23", "reset", length, "3"},
        {Fault::CloseAt(kBeforeHead), "GET", 0, "", "closed", "", ""},
        {Fault::ResetAt(kBeforeHead), "GET", 0, "", "reset", "", ""},
    };
    for (const auto& [fault, method, status, body, end, header, value] : rows) {
        const uint64_t id = m_origin.AddFault(fault.On("a.mkv"));
        SCOPED_TRACE("fault " + std::to_string(id));
        const ClientReply reply = Connect().Ask(method, "/a.mkv", "2-4");
        EXPECT_EQ(status, reply.status);
        EXPECT_EQ(body, reply.body);
        EXPECT_EQ(end, reply.end);
        EXPECT_EQ(value, reply.Header(header));
        m_origin.Release(id);
        EXPECT_EQ("234", Connect().Ask("GET", "/a.mkv", "2-4").body);
    }
    m_origin.AddFault(Fault::Status(503).On("?.mkv").Covering(7).Nth(2));
    for (const auto& [range, status] : {std::pair("2-4", 206), std::pair("6-8", 206),
                                        std::pair("0-1,7-7", 503), std::pair("6-8", 206)})
        EXPECT_EQ(status, Connect().Ask("GET", "/a.mkv", range).status) << range;
    Fault longer = Fault::ExtraBytes(5);
    longer.closeAfter = true;
    m_origin.AddFault(longer.On("a.mkv"));
    OriginClient client = Connect();
    EXPECT_EQ("0123456789", client.Ask("GET", "/a.mkv").body);
    EXPECT_EQ(5U, client.Read().body.size());
    // A reset must not overtake the bytes before it, which do not fit into the sockets' buffers.
    m_origin.AddFault(Fault::ResetAt(20000001).On("big.mkv"));
    EXPECT_EQ(20000001U, Connect().Ask("GET", "/big.mkv").body.size());
}

TEST_F(OriginTest, HeldAndStalledRequestsWaitForReleaseOrTheirClient) {
    const uint64_t hold = m_origin.Hold("a.mkv");
    OriginClient first = Connect();
    first.SendRequest("GET", "/a.mkv");
    {
        OriginClient second = Connect();
        second.SendRequest("GET", "/a.mkv");
        EXPECT_EQ("abc", Connect().Ask("GET", "/b.mkv").body);
        ASSERT_TRUE(m_origin.WaitForHeld(hold, 2, 5000));
    }
    ASSERT_TRUE(m_origin.WaitForFinished("a.mkv", 1, 5000)) << "a client that goes is noticed";
    m_origin.Resume(hold);
    EXPECT_EQ("0123456789", first.Read().body);
    first.SendRequest("GET", "/a.mkv");  // the rule has stayed
    ASSERT_TRUE(m_origin.WaitForHeld(hold, 1, 5000));
    m_origin.Release(hold);
    EXPECT_EQ("0123456789", first.Read().body);

    // Released while the request still waits out its latency: it is not held for ever.
    m_origin.SetLatency(100);
    const uint64_t late = m_origin.Hold("b.mkv");
    first.SendRequest("GET", "/b.mkv");
    ASSERT_TRUE(m_origin.WaitForRequest("b.mkv", 2, 5000));
    m_origin.Release(late);
    EXPECT_EQ("abc", first.Read().body);
    m_origin.SetLatency(0);

    // A stall for a time, and a close at the same position: the stall is first.
    Fault both = Fault::StallAt(2, 150);
    both.closeAt = 2;
    m_origin.AddFault(both);
    const ClientReply cut = Connect().Ask("GET", "/b.mkv");
    EXPECT_EQ("ab closed", cut.body + " " + cut.end);
    EXPECT_GE(m_origin.Log("b.mkv").back().durationMs, 150);
}

// Everything at once, for the sanitizers: clients, faults, rates, waits, and a stop in the middle.
TEST_F(OriginTest, LiveControlWhileManyClientsRead) {
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([this, i] {
            for (int n = 0; n < 25; ++n) {
                OriginClient client = Connect();
                const auto reply = client.Ask("GET", i == 0 ? "/a.mkv" : "/big.mkv", "0-299999");
                EXPECT_TRUE(reply.status == 206 || reply.end != "complete");
                client.SendRequest("GET", "/big.mkv");  // and goes away in its middle
            }
        });
    }
    for (int n = 0; n < 50; ++n) {
        const uint64_t hold = m_origin.Hold(n % 2 == 0 ? "a.mkv" : "big.mkv");
        m_origin.SetRate(n % 3 == 0 ? kUnlimited : 400000000);
        m_origin.SetLatency(n % 2);
        (void)m_origin.WaitForHeld(hold, 1, 5);
        if (n % 10 == 9)
            m_origin.DropConnections();
        if (n != 49)
            m_origin.Release(hold);
    }
    m_origin.Stop();
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(0U, m_origin.ConnectionsOpen());
    EXPECT_TRUE(m_origin.WaitForFinished("", m_origin.Log().size(), 0));
}

}  // namespace
