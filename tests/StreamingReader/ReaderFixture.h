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
#include "SMILParser/ISMILParser.h"
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

/// A server in memory and the means to fill it.
class ReaderFixture : public testing::Test {
  protected:
    ReaderFixture() { RegisterFakeHTTP(server); }
    ~ReaderFixture() override { ObjectFactory::Instance().Reset(); }

    package::FileLayout Serve(const std::string& url, const MediaShape& shape) {
        package::BuiltFile file = MakeMedia(shape);
        server->AddFile(url, std::string(file.bytes.begin(), file.bytes.end()));
        return file.layout;
    }
    package::FileLayout ServeLevel(const std::string& url, const MediaShape& shape = {}) {
        const auto layout = Serve(url, shape);
        return AddEntry("video systemBitrate='" + std::to_string(++m_levels) + "'", url, layout);
    }
    package::FileLayout ServeTrick(const std::string& url, MediaShape shape) {
        shape.trick = true;
        return AddEntry("video systemProfile='TavoPlusTrickTrack'", url, Serve(url, shape));
    }
    package::FileLayout ServeAudio(const std::string& url, const MediaShape& shape) {
        return AddEntry("audio", url, Serve(url, shape));
    }
    package::FileLayout ServeSubtitle(const std::string& url) {
        MediaShape shape;
        shape.kind = package::TrackKind::Subtitle;
        return AddEntry("textstream xml:lang='eng'", url, Serve(url, shape));
    }
    /// Of what has been served so far.
    ISMILParser* Manifest() {
        const std::string text = "<smil><body><par>" + m_entries + "</par></body></smil>";
        m_parser.reset(NewSMILParser());
        EXPECT_EQ(OPAL_OK, m_parser->ParseSMILData(text.c_str(), text.size()));
        return m_parser.get();
    }

    const std::shared_ptr<FakeHTTPServer> server = std::make_shared<FakeHTTPServer>();
    ReportLog reports;
    const std::unique_ptr<IClusterBuffer> buffer{NewClusterBuffer(0xC00000)};

  private:
    package::FileLayout AddEntry(const std::string& element, const std::string& url,
                                 const package::FileLayout& layout) {
        const std::string entry = "<" + element + " src='" + url +
                                  "'><param name='header-request' value='" +
                                  std::to_string(layout.headerSize) + "'/></" +
                                  element.substr(0, element.find(' ')) + ">";
        const bool isVideo = element.compare(0, 5, "video") == 0;
        m_entries += isVideo ? "<switch>" + entry + "</switch>" : entry;
        return layout;
    }

    std::string m_entries;
    int m_levels = 0;
    std::unique_ptr<ISMILParser> m_parser;
};

}  // namespace opal::test
