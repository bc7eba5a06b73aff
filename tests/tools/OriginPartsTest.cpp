// The origin's parts that need no socket: the link in virtual time, and everything that is parsed.
#include <gmock/gmock.h>

#include "opal-origin/Origin.h"
#include "opal-origin/Script.h"
#include "opal-origin/src/Link.h"

namespace {

using namespace opal::origin;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Time = Link::Time;

// Clients that always have more to send, stepped from one due time to the next.
class LinkTest : public testing::Test {
  protected:
    void Ask(uint64_t connection, bool continuing) {
        m_asked[connection] = m_link.Quantum(m_now);
        m_link.Ask(connection, m_asked[connection], continuing, m_now);
    }

    // Runs until the time; each grant is noticed this much too late.
    void RunUntil(Time end, Time lateness = Time(0)) {
        uint64_t connection = 0;
        while (m_link.Due() != Link::kNoTime && m_link.Due() + lateness <= end) {
            m_now = std::max(m_now, m_link.Due() + lateness);
            ASSERT_TRUE(m_link.Take(m_now, &connection));
            m_sent[connection] += static_cast<double>(m_asked[connection]);
            Ask(connection, true);
        }
        m_now = end;
    }

    Link m_link;
    Time m_now = seconds(1000);
    std::map<uint64_t, int64_t> m_asked;
    std::map<uint64_t, double> m_sent;
};

TEST_F(LinkTest, DeliversTheRateInTurnsAlsoWhenTimersAreLate) {
    for (const int64_t rate : {100000, 6000000, 2000000000}) {
        for (const Time lateness : {milliseconds(0), milliseconds(1), milliseconds(3)}) {
            m_link = Link();
            m_sent.clear();
            m_link.SetScript(RateScript::Constant(rate), m_now);
            Ask(1, false);
            Ask(2, false);
            RunUntil(m_now + seconds(20), lateness);
            const double expected = static_cast<double>(rate) / 8 * 10;
            // A packet takes long at 100 kbit/s, and the last one may not be through.
            for (const auto& [connection, sent] : m_sent) {
                EXPECT_NEAR(sent, expected, expected * 0.01 + 1460)
                    << connection << " of " << rate << " bit/s, late by " << lateness.count();
            }
        }
    }
}

TEST_F(LinkTest, IdleTimeIsNotSavedUpAndASlowClientLosesIt) {
    m_link.SetScript(RateScript::Constant(8000000), m_now);  // 1000 bytes a millisecond
    uint64_t connection = 0;
    for (int reply = 0; reply < 2; ++reply) {
        m_link.Ask(1, 5000, false, m_now);
        EXPECT_EQ(m_now + milliseconds(5), m_link.Due()) << "a new reply found credit";
        m_now += milliseconds(5);
        ASSERT_TRUE(m_link.Take(m_now, &connection));
        m_now += milliseconds(40);
    }
    m_now += seconds(10);  // the client did not read; only what a late timer explains is made good
    m_link.Ask(1, 500000, true, m_now);
    EXPECT_EQ(m_now + milliseconds(400), m_link.Due());
}

TEST_F(LinkTest, TracesLoopFromTheFirstRequestOn) {
    RateScript trace;
    std::string error;
    ASSERT_TRUE(RateScript::FromTrace(R"([
        {"duration_ms": 1000, "bandwidth_kbps": 800, "latency_ms": 20},
        {"duration_ms": 0, "bandwidth_kbps": 99999},
        {"duration_ms": 500, "bandwidth_kbps": 0, "latency_ms": 300.4},
        {"duration_ms": 500, "bandwidth_kbps": 1600.0}])",
                                      &trace, &error))
        << error;
    m_link.SetScript(trace, m_now);
    m_now += seconds(100);
    const Time start = m_now;
    m_link.OnRequest(start);
    m_link.OnRequest(start + milliseconds(1));  // the second one moves nothing
    EXPECT_EQ(20, m_link.LatencyMs(start + milliseconds(2999)));
    EXPECT_EQ(300, m_link.LatencyMs(start + milliseconds(3000)));
    Ask(1, false);
    for (const auto& [ms, sent] : {std::pair{1000, 1e5}, {1500, 1e5}, {2000, 2e5}, {20000, 2e6}}) {
        RunUntil(start + milliseconds(ms));
        EXPECT_NEAR(sent, m_sent[1], 8000) << ms;
    }

    RateScript never;
    never.steps = {{0, 0, 0}, {1, 0, 0}};
    never.loopMs = 2;
    m_link.SetScript(never, m_now);
    m_link.OnRequest(m_now);
    EXPECT_EQ(Link::kNoTime, m_link.Due()) << "looked for the end in all loops to come";
}

TEST(OriginScriptTest, MistakesAreNamed) {
    const std::pair<std::string, std::string> rows[] = {
        {std::string(100000, '['), "parse error"},
        {R"({"speed": 1})", "\"speed\""},
        {R"({"rate": "nan"})", "nan"},
        {R"({"rate": "2000G"})", "2000G"},
        {R"({"rate": " 6k"})", " 6k"},
        {R"({"rate": "1k", "rates": "0 1k"})", "beside another"},
        {R"({"rates": "0 6000k,"})", "rates"},
        {R"({"rates": "0 1k, 5 2k, 5 3k"})", "5 3k"},
        {R"({"rates": "1e300 6k"})", "1e300"},
        {R"({"trace": [{"duration_ms": 0, "bandwidth_kbps": 1}]})", "no time"},
        {R"({"trace": [{"duration_ms": -1, "bandwidth_kbps": 1}]})", "trace"},
        {R"({"trace": [{"duration_ms": 1e18, "bandwidth_kbps": 1}]})", "trace"},
        {R"({"faults": {}})", "array"},
        {R"({"faults": [{}, {"urk": "x"}]})", "fault 2: has an unknown key \"urk\""},
        {R"({"faults": [{"status": 42}]})", "fault 1: key \"status\""},
        {R"({"faults": [{"extra_bytes": 18446744073709551615}]})", "18446744073709551615"},
        {R"({"faults": [{"headers": {"A": 1}}]})", "key \"headers\""},
    };
    for (const auto& [text, expected] : rows) {
        Script script;
        std::string error;
        EXPECT_FALSE(Script::FromJson(text, &script, &error)) << text.substr(0, 100);
        EXPECT_THAT(error, testing::HasSubstr(expected));
    }
}

}  // namespace
