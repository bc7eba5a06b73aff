// What every IHTTPFile has to do, run on the real one against a loopback origin and on the fake
// that stands in for it in the readers' tests.
#include <gtest/gtest.h>
#include <opal-origin/Origin.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include "Common/Clock.h"
#include "StreamingReader/HTTPFile/HTTPFile.h"
#include "support/FakeHTTPFile.h"

namespace {

using opal::origin::Fault;
using opal::test::FakeRule;
using Kind = FakeRule::Kind;

constexpr int64_t kWaitMs = 10000;

/// A server with files, and faults that strike until they are released.
struct Server {
    std::function<IHTTPFile*()> newFile;
    std::function<std::string(const std::string& name, const std::string& bytes)> add;  ///< its URL
    std::function<uint64_t()> failReads;  ///< by a 416 or its like
    /// Stops before the reply, or behind so many bytes of it.
    std::function<uint64_t(Kind kind, int64_t behindBytes)> hold;
    std::function<bool(uint64_t id)> waitForHeld;
    std::function<void(uint64_t id)> release;
};

Server RealServer() {
    const auto origin = std::make_shared<opal::origin::Origin>();
    EXPECT_TRUE(origin->Start());
    return {[] { return new HTTPFile(false); },
            [=](const std::string& name, const std::string& bytes) {
                origin->AddFile("/" + name, bytes);
                return origin->Url("/" + name);
            },
            [=] { return origin->AddFault(Fault::Status(416).Get()); },
            [=](Kind kind, int64_t bytes) {
                const Fault fault = bytes > 0 ? Fault::StallAt(bytes) : Fault::HoldRequest();
                return origin->AddFault(kind == Kind::Open ? fault.Head() : fault.Get());
            },
            [=](uint64_t id) { return origin->WaitForHeld(id, 1, kWaitMs); },
            [=](uint64_t id) { origin->Release(id); }};
}

Server FakeServer() {
    const auto fake = std::make_shared<opal::test::FakeHTTPServer>();
    return {[=] { return opal::test::NewFakeHTTPFile(fake); },
            [=](const std::string& name, const std::string& bytes) {
                fake->AddFile("http://fake/" + name, bytes);
                return "http://fake/" + name;
            },
            [=] { return fake->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_CLIENT, {}, Kind::Read)); },
            [=](Kind kind, int64_t bytes) {
                FakeRule rule = FakeRule::Hold({}, kind);
                rule.bytesFirst = bytes;
                return fake->AddRule(rule);
            },
            [=](uint64_t id) { return fake->WaitForHeld(id, 1, kWaitMs); },
            [=](uint64_t id) { fake->Release(id); }};
}

struct Listener : HTTPRequestNotify {
    void OnRequestComplete(const HTTPRequest& request) override {
        told += std::to_string(request.GetOffset(0)) + " ";
    }
    std::string told;
};

class HTTPFileContract : public testing::TestWithParam<bool> {
  protected:
    HTTPFileContract() : server(GetParam() ? RealServer() : FakeServer()) {
        for (int n = 0; n < 100000; ++n)
            content += static_cast<char>('a' + n % 23);
        url = server.add("film.mkv", content);
        file.reset(server.newFile());
        file->SetStopSignal(&stop);
    }

    std::string Take() {
        HTTPRequest request;
        qutl::MemoryBuffer<unsigned char> bytes;
        EXPECT_EQ(OPAL_OK, file->GetCompletedRequest(request, false));
        request.TakeData(bytes);
        return std::string(bytes.GetData(), bytes.GetData() + bytes.GetSize());
    }

    void ExpectServesReads() {
        ASSERT_EQ(OPAL_OK, file->RequestRange(10, 5, nullptr));
        EXPECT_EQ(content.substr(10, 5), Take());
        HTTPRequest none;
        EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, file->GetCompletedRequest(none, false));
    }

    void ExpectNotOpen() {
        int64_t size = 7;
        HTTPRequest none;
        EXPECT_EQ(OPAL_ERROR_NOT_READY, file->GetSize(size));
        EXPECT_EQ(0, size);
        EXPECT_EQ(OPAL_ERROR_NOT_READY, file->RequestRange(0, 1, nullptr));
        EXPECT_EQ(OPAL_ERROR_NOT_READY, file->GetCompletedRequest(none, true));
        EXPECT_EQ(OPAL_ERROR_NOT_READY, file->CancelRequests(true, true));
    }

    const Server server;
    std::string content;
    std::string url;
    opal::StopSignal stop;
    std::unique_ptr<IHTTPFile> file;
};

TEST_P(HTTPFileContract, FailedOpenLeavesTheFileClosedAndReusable) {
    ExpectNotOpen();
    for (const char* bad : {"", "https://127.0.0.1/film.mkv", "HTTP://127.0.0.1/", "film.mkv"})
        EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, file->Open(bad)) << bad;
    EXPECT_EQ(OPAL_ERROR_GENERAL, file->Open(server.add("empty.mkv", "")));
    EXPECT_EQ(OPAL_ERROR_HTTP_CLIENT, file->Open(url + ".missing"));
    ExpectNotOpen();
    EXPECT_EQ(OPAL_OK, file->Close());
    ASSERT_EQ(OPAL_OK, file->Open(url));
    EXPECT_EQ(OPAL_ERROR_NOT_READY, file->Open(url));
    int64_t size = 0;
    EXPECT_EQ(OPAL_OK, file->GetSize(size));
    EXPECT_EQ(100000, size);
    ExpectServesReads();
    EXPECT_EQ(OPAL_OK, file->Close());
    ExpectNotOpen();
}

TEST_P(HTTPFileContract, ReadsRangesAndGetsOverWhatFails) {
    ASSERT_EQ(OPAL_OK, file->Open(url));
    Listener listener;
    ASSERT_EQ(OPAL_OK, file->RequestRange(99999, -1, &listener));
    ASSERT_EQ(OPAL_OK, file->RequestRanges({{500, 3}, {10, 4}, {99990, 10}}, &listener));
    ASSERT_EQ(OPAL_OK, file->RequestRange(99990, 50, &listener)) << "ends with the file";
    EXPECT_EQ("99999 500 99990 ", listener.told);
    HTTPRequest peeked;
    for (int n = 0; n < 2; ++n) {
        EXPECT_EQ(OPAL_OK, file->GetCompletedRequest(peeked, true));
        EXPECT_EQ(1u, peeked.GetBytesReceived());
    }
    EXPECT_EQ(content.substr(99999), Take());
    EXPECT_EQ(content.substr(500, 3) + content.substr(10, 4) + content.substr(99990), Take());
    EXPECT_EQ(content.substr(99990) + std::string(40, '\0'), Take());

    Listener untold;
    for (const ByteRange bad :
         {ByteRange(-1, 5), ByteRange(5, 0), ByteRange(INT64_MIN, -1), ByteRange(5, INT64_MAX)}) {
        EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, file->RequestRange(bad.offset, bad.length, &untold));
        EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, file->RequestRanges({{0, 1}, bad}, &untold));
    }
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, file->RequestRanges({{0, 1}, {5, -3}}, &untold));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, file->RequestRanges({}, &untold));
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, file->RequestRange(100000, 10, &untold));
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, file->RequestRange(100000, -1, &untold));
    const uint64_t fault = server.failReads();
    EXPECT_EQ(OPAL_ERROR_HTTP_CLIENT, file->RequestRange(0, 10, &untold));
    server.release(fault);
    EXPECT_EQ("", untold.told);
    ExpectServesReads();
}

TEST_P(HTTPFileContract, CancelEndsTheRunningRead) {
    ASSERT_EQ(OPAL_OK, file->Open(url));
    ASSERT_EQ(OPAL_OK, file->RequestRange(0, 3, nullptr));
    Listener listener;
    const uint64_t held = server.hold(Kind::Read, 60000);
    auto read =
        std::async(std::launch::async, [&] { return file->RequestRange(20, -1, &listener); });
    ASSERT_TRUE(server.waitForHeld(held));
    int inFlight = 0;
    for (int64_t n = 0; n < kWaitMs && inFlight < 60000; ++n) {
        EXPECT_EQ(OPAL_OK, file->GetBytesInFlight(inFlight));
        opal::SleepMs(1);
    }
    EXPECT_EQ(60000, inFlight);
    EXPECT_EQ(content.substr(0, 3), Take());
    HTTPRequest running;
    EXPECT_EQ(OPAL_ERROR_NOT_YET, file->GetCompletedRequest(running, false));
    EXPECT_EQ(20, running.GetOffset(0));
    EXPECT_EQ(60000u, running.GetBytesReceived());
    EXPECT_TRUE(running.GetData()->IsEmpty());
    EXPECT_EQ(OPAL_OK, file->CancelRequests(false, true));
    EXPECT_EQ(OPAL_ERROR_NOT_YET, file->GetCompletedRequest(running, false)) << "left running";
    EXPECT_EQ(OPAL_OK, file->CancelRequests(true, false));
    ASSERT_EQ(std::future_status::ready, read.wait_for(std::chrono::milliseconds(1500)));
    EXPECT_EQ(OPAL_ERROR_CANCELLED, read.get());
    EXPECT_EQ("", listener.told);
    server.release(held);
    EXPECT_EQ(OPAL_OK, file->CancelRequests(true, true)) << "nothing to cancel leaves no trace";
    ExpectServesReads();
}

TEST_P(HTTPFileContract, CloseAndTheStopSignalEndOpensAndReads) {
    for (const bool read : {false, true}) {
        for (const bool stopped : {false, true}) {
            const auto request = [&] {
                return read ? file->RequestRange(0, -1, nullptr) : file->Open(url);
            };
            if (read) {
                ASSERT_EQ(OPAL_OK, file->Open(url));
            }
            const uint64_t held = server.hold(read ? Kind::Read : Kind::Open, read ? 1000 : 0);
            auto running = std::async(std::launch::async, request);
            ASSERT_TRUE(server.waitForHeld(held));
            const auto start = std::chrono::steady_clock::now();
            if (stopped) {
                stop.Raise();
                EXPECT_EQ(OPAL_ERROR_CANCELLED, running.get());
                EXPECT_EQ(OPAL_ERROR_CANCELLED, request());
            }
            EXPECT_EQ(OPAL_OK, file->Close());
            EXPECT_GT(std::chrono::seconds(2), std::chrono::steady_clock::now() - start);
            stop.Lower();
            if (!stopped) {
                EXPECT_EQ(OPAL_ERROR_TERMINATED, running.get());
            }
            server.release(held);
            ExpectNotOpen();
        }
    }
    ASSERT_EQ(OPAL_OK, file->Open(url));
    ExpectServesReads();
}

TEST_P(HTTPFileContract, ReadsFromSeveralThreadsAreServedOneByOne) {
    ASSERT_EQ(OPAL_OK, file->Open(url));
    std::vector<std::future<OPALError>> reads;
    for (int n = 0; n < 8; ++n)
        reads.push_back(
            std::async(std::launch::async, [this] { return file->RequestRange(7, -1, nullptr); }));
    for (auto& read : reads)
        EXPECT_EQ(OPAL_OK, read.get());
    for (int n = 0; n < 8; ++n)
        EXPECT_EQ(content.substr(7), Take());
}

INSTANTIATE_TEST_SUITE_P(, HTTPFileContract, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& real) {
                             return real.param ? "Real" : "Fake";
                         });

}  // namespace
