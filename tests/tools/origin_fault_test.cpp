// Each fault as a client sees it, and their live control.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "OriginClient.h"
#include "opal-origin/Origin.h"

namespace {

using namespace opal::origin;
using opal::test::ClientReply;
using opal::test::OriginClient;
using End = ClientReply::End;

class OriginFaultTest : public testing::Test {
  protected:
    void SetUp() override {
        m_origin.AddFile("/a.mkv", "0123456789");
        m_origin.AddFile("/b.mkv", "abc");
        m_origin.AddGeneratedFile("/big.mkv", 30000000);
        ASSERT_TRUE(m_origin.Start());
    }

    // A GET over a connection of its own.
    ClientReply Get(const std::string& target, const std::string& ranges = std::string(),
                    int timeoutMs = 10000) {
        OriginClient client(m_origin.Port(), timeoutMs);
        return client.Get(target, ranges);
    }

    int HeadStatus(const std::string& target) {
        OriginClient client(m_origin.Port());
        return client.Head(target).status;
    }

    Origin m_origin;
};

TEST_F(OriginFaultTest, RepliesInsteadOfTheFiles) {
    struct Case {
        Fault fault;
        int status;
        std::string body;
        std::string header;
        std::string value;
    };
    const Case cases[] = {
        {Fault::Status(404), 404, "Not Found", "Content-Length", "9"},
        {Fault::Status(404, ""), 404, "", "Content-Length", "0"},
        {Fault::Status(503), 503, "Service Unavailable", "Connection", "keep-alive"},
        {Fault::Status(206, "xy"), 206, "xy", "Content-Range", ""},
        {Fault::Redirect("/b.mkv"), 302, "Found", "Location", "/b.mkv"},
        {Fault::Redirect("/b.mkv", 307), 307, "Temporary Redirect", "Location", "/b.mkv"},
        {Fault::IgnoreRange(), 200, "0123456789", "Content-Range", ""},
        {Fault::Header("content-range", "bytes 0-0/1"), 206, "234", "content-range", "bytes 0-0/1"},
        {Fault::Header("Content-Length", "2"), 206, "23", "Content-Length", "2"},
        {Fault::Header("Content-Length", "0"), 206, "", "Content-Length", "0"},
        {Fault::WithoutHeader("content-length"), 206, "234", "Content-Length", ""},
        {Fault::Delay(20), 206, "234", "Content-Length", "3"},
        {Fault(), 206, "234", "Content-Range", "bytes 2-4/10"},
    };
    for (const Case& c : cases) {
        const uint64_t id = m_origin.AddFault(c.fault.On("a.mkv"));
        const ClientReply reply = Get("/a.mkv", "2-4");
        EXPECT_EQ(c.status, reply.status) << id;
        EXPECT_EQ(c.body, reply.body) << id;
        EXPECT_EQ(c.value, reply.Header(c.header)) << id;
        EXPECT_EQ("abc", Get("/b.mkv").body) << id;
        EXPECT_EQ(id, m_origin.Log("a.mkv").back().faultId);
        m_origin.Release(id);
        EXPECT_EQ("234", Get("/a.mkv", "2-4").body) << id;
    }
}

TEST_F(OriginFaultTest, HeadsWithoutOrWithWrongLength) {
    m_origin.AddFault(Fault::WithoutHeader("Content-Length").Head().Nth(1));
    m_origin.AddFault(Fault::Header("Content-Length", "4294967296").Head());
    OriginClient client(m_origin.Port());
    EXPECT_EQ("", client.Head("/a.mkv").Header("Content-Length"));
    EXPECT_EQ("4294967296", client.Head("/a.mkv").Header("Content-Length"));
    EXPECT_EQ("0123456789", client.Get("/a.mkv").body);
    EXPECT_EQ(1U, m_origin.ConnectionsAccepted());
}

TEST_F(OriginFaultTest, BodiesThatEndElsewhere) {
    End end = End::Complete;
    m_origin.AddFault(Fault::CloseAt(4).Nth(1));
    m_origin.AddFault(Fault::ResetAt(4).Nth(1));
    m_origin.AddFault(Fault::CloseAt(kBeforeHead).Nth(1));
    m_origin.AddFault(Fault::ResetAt(kBeforeHead).Nth(1));
    m_origin.AddFault(Fault::CloseAt(0).Nth(1));
    Fault longer = Fault::ExtraBytes(5).Nth(1);
    longer.closeAfter = true;
    m_origin.AddFault(longer);

    ClientReply reply = Get("/a.mkv");
    EXPECT_EQ("0123", reply.body);
    EXPECT_EQ("10", reply.Header("Content-Length"));
    EXPECT_EQ(End::Closed, reply.end);
    reply = Get("/a.mkv");
    EXPECT_EQ("0123", reply.body) << "a reset must not overtake the bytes before it";
    EXPECT_EQ(End::Reset, reply.end);
    reply = Get("/a.mkv");
    EXPECT_EQ(0, reply.status);
    EXPECT_EQ(End::Closed, reply.end);
    reply = Get("/a.mkv");
    EXPECT_EQ(0, reply.status);
    EXPECT_EQ(End::Reset, reply.end);
    reply = Get("/a.mkv");
    EXPECT_EQ(200, reply.status);
    EXPECT_EQ("", reply.body);
    EXPECT_EQ(End::Closed, reply.end);

    OriginClient client(m_origin.Port());
    EXPECT_EQ("0123456789", client.Get("/a.mkv").body);
    EXPECT_EQ(5U, client.ReadRest(&end).size());
    EXPECT_EQ(End::Closed, end);

    // Far inside of a body that does not fit into the sockets' buffers.
    m_origin.AddFault(Fault::ResetAt(20000001).On("big.mkv"));
    reply = Get("/big.mkv");
    EXPECT_EQ(20000001U, reply.body.size());
    EXPECT_EQ(End::Reset, reply.end);
    ASSERT_TRUE(m_origin.WaitForFinished("big.mkv", 1, 5000));
    EXPECT_EQ(20000001, m_origin.Log("big.mkv")[0].bodyBytesSent);
    EXPECT_FALSE(m_origin.Log("big.mkv")[0].complete);
}

TEST_F(OriginFaultTest, StallsForATimeOrUntilReleased) {
    m_origin.AddFault(Fault::StallAt(4, 150).Nth(1));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ("0123456789", Get("/a.mkv").body);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));

    const uint64_t stall = m_origin.AddFault(Fault::StallAt(1000000).On("big.mkv"));
    OriginClient client(m_origin.Port(), 200);
    const ClientReply reply = client.Get("/big.mkv", "0-1999999");
    EXPECT_EQ(1000000U, reply.body.size());
    EXPECT_EQ(End::TimedOut, reply.end);
    ASSERT_TRUE(m_origin.WaitForHeld(stall, 1, 5000));
    EXPECT_EQ(1000000, m_origin.Log("big.mkv")[0].bodyBytesSent);
    EXPECT_FALSE(m_origin.Log("big.mkv")[0].finished);
    m_origin.Resume(stall);
    ASSERT_TRUE(m_origin.WaitForFinished("big.mkv", 1, 5000));
    EXPECT_TRUE(m_origin.Log("big.mkv")[0].complete);

    // A stall and a close at one position: the stall is first.
    m_origin.ClearFaults();
    Fault both = Fault::StallAt(2);
    both.closeAt = 2;
    const uint64_t id = m_origin.AddFault(both);
    OriginClient third(m_origin.Port());
    third.SendRequest("GET", "/b.mkv");
    ASSERT_TRUE(m_origin.WaitForHeld(id, 1, 5000));
    m_origin.Release(id);
    const ClientReply cut = third.Read();
    EXPECT_EQ("ab", cut.body);
    EXPECT_EQ(End::Closed, cut.end);
}

TEST_F(OriginFaultTest, HeldRequestsWaitForResumeReleaseOrTheirClient) {
    const uint64_t hold = m_origin.Hold("a.mkv");
    OriginClient first(m_origin.Port());
    first.SendRequest("GET", "/a.mkv");
    OriginClient second(m_origin.Port());
    second.SendRequest("GET", "/a.mkv");
    EXPECT_EQ("abc", Get("/b.mkv").body);
    ASSERT_TRUE(m_origin.WaitForHeld(hold, 2, 5000));
    EXPECT_FALSE(m_origin.WaitForHeld(hold, 3, 10));
    EXPECT_EQ(0, m_origin.Log("a.mkv")[0].status);

    second.Close();  // noticed although nothing is written
    ASSERT_TRUE(m_origin.WaitForFinished("a.mkv", 1, 5000));
    EXPECT_FALSE(m_origin.WaitForHeld(hold, 2, 10));
    m_origin.Resume(hold);
    EXPECT_EQ("0123456789", first.Read().body);

    first.SendRequest("GET", "/a.mkv");  // the rule has stayed
    ASSERT_TRUE(m_origin.WaitForHeld(hold, 1, 5000));
    m_origin.Release(hold);
    EXPECT_EQ("0123456789", first.Read().body);
    EXPECT_EQ("0123456789", first.Get("/a.mkv").body);

    // Released while the request still waits out its latency: it is not held for ever.
    m_origin.SetLatency(100);
    const uint64_t late = m_origin.Hold("b.mkv");
    first.SendRequest("GET", "/b.mkv");
    ASSERT_TRUE(m_origin.WaitForRequest("b.mkv", 2, 5000));
    m_origin.Release(late);
    EXPECT_EQ("abc", first.Read().body);
}

TEST_F(OriginFaultTest, RulesStrikeTheRequestsTheyName) {
    m_origin.AddFault(Fault::Status(501).On("a.mkv").Head().Nth(2));
    m_origin.AddFault(Fault::Status(502).On("/a.mkv").Get().RangeStart(4));
    m_origin.AddFault(Fault::Status(503).On("a.*").Covering(7).Times(2));
    m_origin.AddFault(Fault::Status(504).On("none"));
    EXPECT_EQ(200, HeadStatus("/a.mkv"));
    EXPECT_EQ(501, HeadStatus("/a.mkv"));
    EXPECT_EQ(200, HeadStatus("/a.mkv"));
    EXPECT_EQ(504, HeadStatus("/x/none"));
    const std::vector<std::pair<std::string, int>> gets{
        {"", 200},   {"4-5", 502}, {"5-6", 206},     {"0-1,4-5", 206},
        {"5-", 503}, {"-3", 206},  {"0-1,7-7", 503}, {"7-7", 206}};
    for (const auto& [ranges, status] : gets) {
        EXPECT_EQ(status, Get("/a.mkv", ranges).status) << ranges;
    }
    m_origin.ClearFaults();
    EXPECT_EQ(206, Get("/a.mkv", "4-5").status);
}

TEST_F(OriginFaultTest, DropConnectionsResetsIdleAndBusyOnes) {
    const uint64_t hold = m_origin.Hold("b.mkv");
    OriginClient idle(m_origin.Port());
    EXPECT_EQ(200, idle.Head("/a.mkv").status);
    OriginClient busy(m_origin.Port());
    busy.SendRequest("GET", "/b.mkv");
    ASSERT_TRUE(m_origin.WaitForHeld(hold, 1, 5000));
    m_origin.DropConnections();
    EXPECT_EQ(End::Reset, idle.Read().end);
    EXPECT_EQ(End::Reset, busy.Read().end);
    EXPECT_EQ(200, HeadStatus("/a.mkv"));
    OriginOptions options;
    options.idleTimeoutMs = 50;
    Origin impatient(options);
    ASSERT_TRUE(impatient.Start());
    OriginClient silent(impatient.Port());
    silent.Send("GET / HT");
    EXPECT_EQ(End::Reset, silent.Read().end);
}

// Everything at once, for the sanitizers: clients, faults, rates and waits on many threads.
TEST_F(OriginFaultTest, LiveControlWhileManyClientsRead) {
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) {
        clients.emplace_back([this, i] {
            for (int n = 0; n < 25; ++n) {
                OriginClient client(m_origin.Port());
                const ClientReply reply =
                    client.Get(i % 2 == 0 ? "/a.mkv" : "/big.mkv", "0-299999");
                EXPECT_TRUE(reply.status == 206 || reply.end != End::Complete);
                if (n % 5 == 0) {
                    client.SendRequest("GET", "/big.mkv");  // and goes away in its middle
                }
            }
        });
    }
    for (int n = 0; n < 50; ++n) {
        const uint64_t hold = m_origin.Hold(n % 2 == 0 ? "a.mkv" : "big.mkv");
        m_origin.SetRate(n % 3 == 0 ? kUnlimited : 400000000);
        m_origin.SetLatency(n % 2);
        (void)m_origin.WaitForHeld(hold, 1, 5);
        if (n % 10 == 9) {
            m_origin.DropConnections();
        }
        m_origin.Resume(hold);
        m_origin.Release(hold);
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_TRUE(m_origin.WaitForFinished("", m_origin.Log().size(), 10000));
    m_origin.Stop();
    EXPECT_EQ(0U, m_origin.ConnectionsOpen());
}

}  // namespace
