#include "Common/network/BandwidthProbe.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "Common/ObjectFactory.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"
#include "support/AssertionTrap.h"
#include "support/FakeHTTPFile.h"
#include "support/VirtualClock.h"

namespace {

using opal::test::FakeRule;
using Texts = std::vector<std::string>;

constexpr int64_t kFails = INT64_MIN;

/// A file of any size whose reads take scripted times and bring no bytes.
struct Link {
    int64_t fileSize = 0;
    OPALError sizeResult = OPAL_OK;
    OPALError openResult = OPAL_OK;
    std::vector<int64_t> takesMs;     ///< one a read, or kFails; below 0 the clock is set back
    OPALError fetchResult = OPAL_OK;  ///< of every GetCompletedRequest
    opal::test::VirtualClock clock;
    Texts reads;
};

class TimedFile : public IHTTPFile {
  public:
    explicit TimedFile(Link& link) : m_link(link) {}
    OPALError Open(const std::string&) override { return m_link.openResult; }
    OPALError GetSize(int64_t& size) override {
        size = m_link.fileSize;
        return m_link.sizeResult;
    }
    OPALError RequestRange(int64_t offset, int64_t length, HTTPRequestNotify*) override {
        const int64_t takes = m_link.takesMs.at(m_link.reads.size());
        m_link.reads.push_back(std::to_string(offset) + "-" + std::to_string(offset + length - 1));
        if (takes == kFails)
            return OPAL_ERROR_TIMEOUT;
        m_link.clock.Advance(takes);
        return OPAL_OK;
    }
    OPALError RequestRanges(const std::vector<ByteRange>&, HTTPRequestNotify*) override {
        return OPAL_ERROR_GENERAL;
    }
    OPALError GetCompletedRequest(HTTPRequest&, bool) override { return m_link.fetchResult; }
    OPALError CancelRequests(bool, bool) override { return OPAL_OK; }
    OPALError GetBytesInFlight(int&) override { return OPAL_OK; }
    OPALError Close() override { return OPAL_OK; }
    void Abort() override {}

  private:
    Link& m_link;
};

class TimedFileObject : public HTTPFileObject {
  public:
    explicit TimedFileObject(Link& link) : m_link(link) {}
    bool Accepts(int) const override { return true; }
    IHTTPFile* Create(bool threaded) override { return threaded ? nullptr : new TimedFile(m_link); }

  private:
    Link& m_link;
};

struct Result : BandwidthProbeNotify {
    void OnProbe(int kind, int64_t size, int64_t duration) override {
        texts.push_back(std::to_string(kind) + ": " + std::to_string(size) + ", " +
                        std::to_string(duration));
    }
    Texts texts;
};

class BandwidthProbeTest : public testing::Test {
  protected:
    ~BandwidthProbeTest() override { ObjectFactory::Instance().Reset(); }

    OPALError Probe(Link& link) {
        ObjectFactory::Instance().Reset();
        ObjectFactory::Instance().Register(
            boost::shared_ptr<HTTPFileObject>(new TimedFileObject(link)));
        result.texts.clear();
        return BandwidthProbe(&result, 76800, 1000).Probe("http://film");
    }

    Result result;
};

TEST_F(BandwidthProbeTest, ReadsGrowUntilOneTakesLongEnough) {
    const struct {
        int64_t fileSize;
        std::vector<int64_t> takesMs;
        Texts reads;
        const char* result;
    } kCases[] = {
        {500000, {50, 50, 50}, {"0-76799", "0-499999", "0-499999"}, "1: 500000, 50"},
        {1000000000,
         {50, 50, 50},
         {"0-76799", "1152000-2303999", "18432000-35711999"},
         "1: 259200000, 50"},
        {100000000,
         {400, 900, 1001},
         {"0-76799", "409600-819199", "1228800-2047999"},
         "1: 819200, 1001"},
        {100000000, {1001}, {"0-76799"}, "1: 76800, 1001"},
        {1000000000,
         {100, 1000, 1200},
         {"0-76799", "1152000-2303999", "3200000-5247999"},
         "1: 2048000, 1200"},
        {3000000, {0, 0, -9000}, {"0-76799", "1152000-2303999", "0-2999999"}, "1: 3000000, 0"},
        {0, {50, 50, 50}, {"0-76799", "0-76799", "0-76799"}, "1: 76800, 50"},
    };
    for (const auto& test : kCases) {
        Link link;
        link.fileSize = test.fileSize;
        link.takesMs = test.takesMs;
        EXPECT_EQ(OPAL_OK, Probe(link));
        EXPECT_EQ(test.reads, link.reads);
        EXPECT_EQ(Texts{test.result}, result.texts);
    }
}

TEST_F(BandwidthProbeTest, TheLastAttemptsErrorCounts) {
    Link link;
    link.fileSize = 1000000;
    link.takesMs = {kFails, 50, 1500};
    EXPECT_EQ(OPAL_OK, Probe(link));
    EXPECT_EQ((Texts{"0-76799", "0-76799", "0-999999"}), link.reads);
    EXPECT_EQ(Texts{"1: 1000000, 1500"}, result.texts);

    Link failing;
    failing.sizeResult = OPAL_ERROR_GENERAL;
    failing.takesMs = {50, 50, kFails};
    EXPECT_EQ(OPAL_ERROR_TIMEOUT, Probe(failing)) << "the missing size is forgotten";
    EXPECT_EQ(3u, failing.reads.size());
    Link unfetched;
    unfetched.fetchResult = OPAL_ERROR_OUT_OF_RANGE;
    unfetched.takesMs = {1200};
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, Probe(unfetched));
    EXPECT_EQ(1u, unfetched.reads.size()) << "the time was measured all the same";
    Link closed;
    closed.openResult = OPAL_ERROR_CONNECT;
    EXPECT_EQ(OPAL_ERROR_CONNECT, Probe(closed));
    EXPECT_TRUE(closed.reads.empty());
    EXPECT_TRUE(result.texts.empty());
}

TEST_F(BandwidthProbeTest, AbortEndsIt) {
    const auto server = std::make_shared<opal::test::FakeHTTPServer>();
    opal::test::RegisterFakeHTTP(server);
    server->AddFile("http://film", std::string(200000, 'x'));
    const uint64_t held = server->AddRule(FakeRule::Hold({}, FakeRule::Kind::Read));
    BandwidthProbe probe(&result, 76800, 1000);
    auto run = std::async(std::launch::async, [&] { return probe.Probe("http://film"); });
    ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
    probe.Abort();
    EXPECT_EQ(OPAL_ERROR_CANCELLED, run.get());
    EXPECT_EQ(OPAL_ERROR_CANCELLED, probe.Probe("http://film"));
    EXPECT_EQ(Texts{"0-76799"}, server->Reads());
    EXPECT_TRUE(result.texts.empty());
}

TEST_F(BandwidthProbeTest, ChecksItsArguments) {
    EXPECT_EQ("initSize > 0",
              opal::test::AssertionTextOf([&] { BandwidthProbe(&result, 0, 1000); }));
    EXPECT_EQ("!uri.empty()", opal::test::AssertionTextOf(
                                  [&] { (void)BandwidthProbe(&result, 1, 1000).Probe(""); }));
    EXPECT_EQ(OPAL_ERROR_GENERAL, BandwidthProbe(&result, 1, 1000).Probe("http://x"))
        << "nothing makes files";
}

}  // namespace
