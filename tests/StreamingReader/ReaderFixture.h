#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Common/Clock.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/IStreamingReader.h"
#include "support/FakeHTTPFile.h"
#include "support/TestMedia.h"

namespace opal::test {

/// Notes what the readers report, and lets a test react on the reader's thread.
class ReportLog : public IStreamingReaderNotify {
  public:
    void OnDownloadComplete(OPALStreamType type, int64_t, int64_t size, size_t index) override {
        Add("complete " + std::to_string(type) + " " + std::to_string(size) + " " +
            std::to_string(index));
    }
    void OnClusterBufferWrite(OPALStreamType type) override {
        Add("write " + std::to_string(type));
        if (onWrite)
            onWrite(type);
    }
    std::vector<std::string> Lines() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    std::function<void(OPALStreamType)> onWrite;

  private:
    void Add(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
    }
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

/// Looks again and again, for things that nothing announces; false after ten seconds.
inline bool Eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        opal::SleepMs(1);
    }
    return true;
}

/// A server in memory and what the readers write to.
class ReaderFixture : public testing::Test {
  protected:
    ReaderFixture() { RegisterFakeHTTP(server); }
    ~ReaderFixture() override { ObjectFactory::Instance().Reset(); }

    package::FileLayout Serve(const std::string& url, const MediaShape& shape) {
        package::BuiltFile file = MakeMedia(shape);
        server->AddFile(url, std::string(file.bytes.begin(), file.bytes.end()));
        return file.layout;
    }

    const std::shared_ptr<FakeHTTPServer> server = std::make_shared<FakeHTTPServer>();
    ReportLog reports;
    const std::unique_ptr<IClusterBuffer> buffer{NewClusterBuffer(0xC00000)};
};

}  // namespace opal::test
