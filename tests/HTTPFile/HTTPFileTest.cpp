// The real file alone: header requests, broken replies, the worker, error mapping, local files.
#include "StreamingReader/HTTPFile/HTTPFile.h"

#include <sys/stat.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <opal-origin/Origin.h>
#include <opal-origin/ScriptedServer.h>

#include <chrono>
#include <future>
#include <string>

#include "Common/Clock.h"
#include "Common/network/NetworkInterface.h"
#include "support/TemporaryDirectory.h"

namespace {

using opal::origin::Fault;
using opal::origin::ScriptedReply;
using opal::origin::ScriptedServer;

constexpr int64_t kWaitMs = 10000;

// Of the one look-up of a name below ".test": that it began, and leave to fail.
std::promise<void> g_asked;
std::promise<void> g_answer;

}  // namespace

/// Stands in front of the C library's, for libcurl too.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** result) {
    const std::string host = name ? name : "";
    if (host.size() > 5 && host.compare(host.size() - 5, 5, ".test") == 0) {
        g_asked.set_value();
        (void)g_answer.get_future().wait_for(std::chrono::milliseconds(kWaitMs));
        return EAI_NONAME;
    }
    using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return real(name, service, hints, result);
}

namespace {

class HTTPFileTest : public testing::Test {
  protected:
    HTTPFileTest() {
        SetLink("1", "up");
        opal::NetworkSource source;
        source.sysfsRoot = sysfs.Path();
        opal::SetNetworkSource(source);
        EXPECT_TRUE(origin.Start());
        origin.AddGeneratedFile("/film.mkv", 5000000);
        url = origin.Url("/film.mkv");
    }
    ~HTTPFileTest() override { opal::SetNetworkSource(); }

    void SetLink(const std::string& carrier, const std::string& state) {
        sysfs.Write("class/net/lo/carrier", carrier + "\n");
        sysfs.Write("class/net/lo/operstate", state + "\n");
    }

    /// The next request that is complete, waited for; with the film's bytes from `offset` on.
    void ExpectNext(HTTPFile& from, int64_t offset) {
        ASSERT_EQ(OPAL_OK, Await(from));
        ASSERT_EQ(offset, request.GetOffset(0));
        ASSERT_EQ(10u, request.GetBytesReceived());
        for (int64_t n = 0; n < 10; ++n)
            ASSERT_EQ(origin.GeneratedByte(offset + n), request.GetData()->GetData()[n]);
    }
    /// Waits until a threaded file answers other than "in progress".
    OPALError Await(HTTPFile& from) {
        OPALError result = from.GetCompletedRequest(request, false);
        for (int64_t n = 0; n < kWaitMs && result == OPAL_ERROR_NOT_YET; ++n) {
            opal::SleepMs(1);
            result = from.GetCompletedRequest(request, false);
        }
        return result;
    }

    opal::test::TemporaryDirectory sysfs;
    opal::origin::Origin origin;
    std::string url;
    HTTPFile file{false};
    HTTPFile threaded{true};
    HTTPRequest request;
};

TEST_F(HTTPFileTest, HeaderRequestGivesTheSizeOrAnError) {
    const struct {
        const char* head;
        OPALError result;
    } kCases[] = {
        {"404 No\r\nContent-Length: 0", OPAL_ERROR_GENERAL},
        {"404 No\r\nContent-Length: 9", OPAL_ERROR_HTTP_CLIENT},
        {"503 No\r\nContent-Length: 9", OPAL_ERROR_HTTP_SERVER},
        {"302 There\r\nLocation: /b\r\nContent-Length: 0", OPAL_ERROR_GENERAL},
        {"302 There\r\nLocation: /b\r\nContent-Length: 7", OPAL_OK},
        {"200 OK\r\nX: y", OPAL_ERROR_GENERAL},
        {"200 OK\r\nContent-Length: 99999999999999999999", OPAL_ERROR_GENERAL},
        {"200 OK\r\nCONTENT-LENGTH: 1000", OPAL_OK},
        {"200 OK\r\nContent-Length:1000", OPAL_ERROR_GENERAL},
    };
    for (const auto& test : kCases) {
        ScriptedServer server(
            {{"HTTP/1.1 " + std::string(test.head) + "\r\nConnection: close\r\n\r\n", 0,
              ScriptedReply::After::Close},
             {"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nConnection: close\r\n\r\n", 1,
              ScriptedReply::After::Close}});
        EXPECT_EQ(test.result, file.Open(server.Url("/a"))) << test.head;
        EXPECT_EQ(0u, server.Requests().at(0).find("HEAD /a HTTP/1.1\r\n"));
        int64_t size = 0;
        EXPECT_EQ(test.result == OPAL_OK ? OPAL_OK : OPAL_ERROR_NOT_READY, file.GetSize(size));
        EXPECT_EQ(test.result == OPAL_OK ? 1000 : 0, size) << test.head;
        EXPECT_EQ(OPAL_OK, file.Close());
    }
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, file.Open("http://" + std::string(9000000, 'a')));
    EXPECT_EQ(OPAL_OK, file.Open(url));
}

TEST_F(HTTPFileTest, WhatCannotBeHeldIsRefusedAndTheNextReadServed) {
    ASSERT_EQ(OPAL_OK, file.Open(url));
    origin.AddFault(Fault::IgnoreRange().Get());
    EXPECT_EQ(OPAL_ERROR_GENERAL, file.RequestRanges({{0, 5}, {9, 5}}, nullptr))
        << "a reply far longer than its parts";
    EXPECT_EQ(OPAL_OK, file.RequestRange(100, 100, nullptr)) << "cut off";
}

TEST_F(HTTPFileTest, AllRangesTravelOverOneConnection) {
    for (HTTPFile* each : {&file, &threaded}) {
        ASSERT_EQ(OPAL_OK, each->Open(url));
        for (int64_t n = 0; n < 120; ++n)
            ASSERT_EQ(OPAL_OK, each->RequestRange(n * 1000, 10, nullptr));
        for (int64_t n = 0; n < 120; ++n)
            ASSERT_NO_FATAL_FAILURE(ExpectNext(*each, n * 1000));
        EXPECT_EQ(each == &file ? 1u : 2u, origin.ConnectionsAccepted());
    }
}

TEST_F(HTTPFileTest, ServerErrorAfterACancelLeavesTheFileUsable) {
    ASSERT_EQ(OPAL_OK, file.Open(url));
    Fault late = Fault::Status(500).Get();
    late.stallAt = opal::origin::kBeforeHead;
    for (int round = 0; round < 20; ++round) {
        const uint64_t held = origin.AddFault(late);
        auto read =
            std::async(std::launch::async, [this] { return file.RequestRange(0, 10, nullptr); });
        ASSERT_TRUE(origin.WaitForHeld(held, 1, kWaitMs));
        ASSERT_EQ(OPAL_OK, file.CancelRequests(true, false));
        origin.Release(held);
        const OPALError result = read.get();  // by which of the two comes first
        EXPECT_TRUE(result == OPAL_ERROR_CANCELLED || result == OPAL_ERROR_HTTP_SERVER) << result;
        EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, file.GetCompletedRequest(request, false));
    }
    EXPECT_EQ(OPAL_OK, file.RequestRange(0, 10, nullptr));
}

TEST_F(HTTPFileTest, ThreadedCancelAndCloseStrikeWhatWasAskedBeforeThem) {
    ASSERT_EQ(OPAL_OK, threaded.Open(url));
    const uint64_t held = origin.AddFault(Fault::HoldRequest().Get());
    for (int64_t n = 0; n < 3; ++n)
        ASSERT_EQ(OPAL_OK, threaded.RequestRange(n, 10, nullptr));
    ASSERT_TRUE(origin.WaitForHeld(held, 1, kWaitMs));
    ASSERT_EQ(OPAL_OK, threaded.CancelRequests(false, false));
    origin.Release(held);
    ExpectNext(threaded, 0);  // which ran, and was not to be cancelled
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, threaded.GetCompletedRequest(request, false));

    for (int64_t round = 0; round < 100; ++round) {
        ASSERT_EQ(OPAL_OK, threaded.RequestRange(round, 10, nullptr));
        ASSERT_EQ(OPAL_OK, threaded.CancelRequests(true, true));  // often before the worker begins
        ASSERT_EQ(OPAL_OK, threaded.RequestRange(1000 + round, 10, nullptr));
        ASSERT_NO_FATAL_FAILURE(ExpectNext(threaded, 1000 + round));
    }

    const uint64_t stalled = origin.AddFault(Fault::StallAt(1000).Get());
    for (const int64_t length : {-1, 10})
        ASSERT_EQ(OPAL_OK, threaded.RequestRange(0, length, nullptr));
    ASSERT_TRUE(origin.WaitForHeld(stalled, 1, kWaitMs));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(OPAL_OK, threaded.Close());
    EXPECT_GT(std::chrono::seconds(2), std::chrono::steady_clock::now() - start);
    EXPECT_EQ(OPAL_OK, threaded.Open(url));
}

TEST_F(HTTPFileTest, TheStopSignalDoesNotWaitForASilentNameServer) {
    opal::StopSignal stop;
    file.SetStopSignal(&stop);
    auto open = std::async(std::launch::async, [&] { return file.Open("http://silent.test/a"); });
    g_asked.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    stop.Raise();
    EXPECT_EQ(OPAL_ERROR_CANCELLED, open.get());
    EXPECT_GT(std::chrono::seconds(2), std::chrono::steady_clock::now() - start);
    g_answer.set_value();
    EXPECT_EQ(OPAL_OK, file.Close());
    file.SetStopSignal(nullptr);
}

TEST_F(HTTPFileTest, ThreadedFailureSticksAndNamesTheLink) {
    const struct {
        const char* carrier;
        const char* state;
        OPALError result;
    } kCases[] = {{"1", "up", OPAL_ERROR_CONNECT},
                  {"0", "down", OPAL_ERROR_LINK_DOWN},
                  {"", "down", OPAL_ERROR_LINK_UNKNOWN}};
    for (const auto& test : kCases) {
        SCOPED_TRACE(test.result);
        ASSERT_EQ(OPAL_OK, threaded.Open(url));
        origin.Stop();
        SetLink(test.carrier, test.state);
        ASSERT_EQ(OPAL_OK, threaded.RequestRange(0, 10, nullptr));
        int64_t size = 0;
        for (const OPALError result : {Await(threaded), threaded.RequestRange(0, 10, nullptr),
                                       threaded.GetSize(size), threaded.CancelRequests(true, true)})
            EXPECT_EQ(test.result, result);
        EXPECT_EQ(OPAL_OK, threaded.Close());
        EXPECT_EQ(OPAL_ERROR_CONNECT, threaded.Open(url)) << "an Open never blames the link";
        ASSERT_TRUE(origin.Start());
    }
}

TEST_F(HTTPFileTest, ReadsLocalFiles) {
    EXPECT_EQ(OPAL_ERROR_CONNECT, file.Open("file://" + sysfs.File("missing")));
    EXPECT_EQ(OPAL_ERROR_GENERAL, file.Open("file://" + sysfs.Write("empty", "")));
    ASSERT_EQ(0, mkfifo(sysfs.File("pipe").c_str(), 0600));
    for (const std::string& odd : {sysfs.File("pipe"), sysfs.Path()})
        EXPECT_EQ(OPAL_ERROR_CONNECT, file.Open("file://" + odd)) << "no regular file";
    ASSERT_EQ(OPAL_OK, file.Open("file://" + sysfs.Write("digits", "0123456789")));
    ASSERT_EQ(OPAL_OK, file.RequestRange(3, -1, nullptr));
    ASSERT_EQ(OPAL_OK, file.GetCompletedRequest(request, false));
    ASSERT_EQ(7u, request.GetBytesReceived());
    EXPECT_EQ('9', request.GetData()->GetData()[6]);
    ASSERT_EQ(OPAL_OK, file.RequestRanges({{0, 2}, {5, 2}}, nullptr));
    ASSERT_EQ(OPAL_OK, file.GetCompletedRequest(request, false));
    EXPECT_EQ(0u, request.GetBytesReceived()) << "no multipart reply, so no part: deliberate";
}

}  // namespace
