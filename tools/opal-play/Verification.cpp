#include "opal-play/Verification.h"

#include <curl/curl.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <utility>

#include "PlatformAdapter/Mstar/GoldenFiles.h"
#include "opal-play/Report.h"

namespace opal::play {
namespace {

constexpr const char* kGoldenEnding = ".golden";
constexpr size_t kMostManifestBytes = 8 << 20;
constexpr long kMostSeconds = 20;
constexpr size_t kMostTimes = 20;
constexpr const char* kNoStreams = "no golden file is known: the manifest could not be read again";

constexpr std::pair<OPALStreamType, const char*> kKinds[] = {
    {OPAL_STREAM_VIDEO, "video"}, {OPAL_STREAM_AUDIO, "audio"}, {OPAL_STREAM_SUBTITLE, "subtitle"}};

size_t Receive(char* data, size_t size, size_t count, void* target) {
    auto& text = *static_cast<std::string*>(target);
    if (size * count > kMostManifestBytes - text.size())
        return 0;
    text.append(data, size * count);
    return size * count;
}

int EndIfRaised(void* stop, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return IsRaised(static_cast<const StopSignal*>(stop)) ? 1 : 0;
}

/// Empty if there is none to be had.
std::string Fetch(const std::string& url, StopSignal& stop) {
    std::string text;
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(),
                                                                   &curl_easy_cleanup);
    if (!curl)
        return text;
    const std::string full = url.find("://") == std::string::npos
                                 ? "file://" + std::filesystem::absolute(url).string()
                                 : url;
    curl_easy_setopt(curl.get(), CURLOPT_URL, full.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_PROTOCOLS_STR, "http,file");
    curl_easy_setopt(curl.get(), CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, kMostSeconds);
    curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, &EndIfRaised);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, &stop);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &Receive);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &text);
    return curl_easy_perform(curl.get()) == CURLE_OK ? text : std::string();
}

}  // namespace

Verification::~Verification() {
    if (m_attached)
        GoldenFiles_DetachAll();
}

void Verification::Attach(const std::string& manifestUrl) {
    m_attached = true;
    const std::vector<MediaFile> files = FindMediaFiles(Fetch(manifestUrl, m_stop));
    m_noStreams = files.empty() && !m_stop.IsRaised();
    for (const MediaFile& file : files) {
        if (!GoldenFiles_Attach(file.type, file.url + kGoldenEnding, &m_stop) && !m_stop.IsRaised())
            m_missing.push_back(file.url);
    }
}

bool Verification::FlushFailed() {
    return std::any_of(std::begin(kKinds), std::end(kKinds), [](const auto& kind) {
        return GoldenFiles_GetVerification(kind.first).flushes > 0;
    });
}

std::vector<std::string> Verification::Report() const {
    std::vector<std::string> lines;
    for (const auto& [type, name] : kKinds) {
        const GoldenVerification result = GoldenFiles_GetVerification(type);
        std::string line = std::string("verified ") + name + ": " + std::to_string(result.blocks) +
                           " blocks, " + std::to_string(result.mismatches) + " mismatches";
        for (size_t i = 0; i < std::min(result.mismatchedAt.size(), kMostTimes); ++i)
            line += (i == 0 ? " at " : ", ") + std::to_string(result.mismatchedAt[i]) + " ms";
        if (result.mismatches > kMostTimes)
            line += " and later";
        if (result.flushes > 0)
            line += "; " + std::to_string(result.flushes) + " flushes failed";
        for (size_t i = 0; i < std::min(result.failedFlushes.size(), kMostTimes); ++i) {
            const GoldenFlush& flush = result.failedFlushes[i];
            line += (i == 0 ? ": number " : ", number ") + std::to_string(flush.number) +
                    " after the block of " + std::to_string(flush.after) + " ms";
        }
        lines.push_back(line);
    }
    if (m_noStreams)
        lines.emplace_back(kNoStreams);
    for (const std::string& url : m_missing)
        lines.push_back("no golden file for " + url);
    return lines;
}

std::vector<std::string> Verification::Faults() const {
    std::vector<std::string> faults;
    uint64_t blocks = 0;
    for (const auto& [type, name] : kKinds) {
        const GoldenVerification result = GoldenFiles_GetVerification(type);
        blocks += result.blocks;
        if (result.mismatches > 0)
            faults.push_back(std::to_string(result.mismatches) + " " + name +
                             " blocks were not as their golden files say");
    }
    if (m_noStreams)
        faults.emplace_back(kNoStreams);
    if (blocks == 0)
        faults.push_back("no block was verified");
    if (!m_missing.empty())
        faults.push_back(std::to_string(m_missing.size()) + " streams have no golden file");
    return faults;
}

}  // namespace opal::play
