// What a download by ranges costs through HTTPFile, against a bare libcurl easy loop that asks for
// the same ranges on one kept-alive connection and copies them into a buffer it has already.
//
//   bench_ranged_download        from an origin in this process
//   bench_ranged_download URL    from another server, of a file of at least 180,000,000 bytes
//
// Both run on the main thread, in turn, each time on a new connection that has carried the header
// request before the clock starts. CPU time is that thread's, so the origin's does not count.
// Exit code: 0; 1 if a bound is missed; 2 if a download fails.

#include <curl/curl.h>
#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "StreamingReader/HTTPFile/HTTPFile.h"
#include "bench/Figures.h"
#include "opal-origin/Origin.h"

namespace {

constexpr int kRuns = 11;
constexpr int kRanges = 120;
constexpr int64_t kRangeBytes = 1500000;  // two seconds at 6 Mbit/s
constexpr int64_t kFileBytes = kRanges * kRangeBytes;

using Buffer = qutl::MemoryBuffer<unsigned char>;

std::atomic<int> g_connections{0};

struct Cost {
    double seconds = 0;
    double cpuMs = 0;
    int connections = 0;
    unsigned char lastByte = 0;
};

double ThreadCpuMs() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    const auto ms = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

/// Times a download: `open` is not counted, `fetch` is called for each range in order.
template <typename Open, typename Fetch>
Cost Measure(Open open, Fetch fetch) {
    Cost cost;
    const int connections = g_connections;
    open();
    const auto start = std::chrono::steady_clock::now();
    const double startCpu = ThreadCpuMs();
    for (int i = 0; i < kRanges; ++i)
        cost.lastByte = fetch(i * kRangeBytes);
    cost.cpuMs = ThreadCpuMs() - startCpu;
    cost.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    cost.connections = g_connections - connections;
    return cost;
}

Cost RunHTTPFile(const std::string& url) {
    HTTPFile file(false);
    return Measure(
        [&] {
            if (file.Open(url) != OPAL_OK)
                throw std::runtime_error("HTTPFile does not open " + url);
        },
        [&](int64_t offset) {
            HTTPRequest request;
            Buffer bytes;
            if (file.RequestRange(offset, kRangeBytes, nullptr) != OPAL_OK ||
                file.GetCompletedRequest(request, false) != OPAL_OK ||
                request.GetBytesReceived() != kRangeBytes)
                throw std::runtime_error("HTTPFile has not got a range of " + url);
            request.TakeData(bytes);
            return bytes.GetData()[kRangeBytes - 1];
        });
}

/// The peer: nothing but what the transfer needs.
class EasyLoop {
  public:
    explicit EasyLoop(const std::string& url) : m_curl(curl_easy_init()), m_buffer(kRangeBytes) {
        curl_easy_setopt(m_curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(m_curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(m_curl, CURLOPT_WRITEFUNCTION, &EasyLoop::Write);
        curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, this);
    }
    ~EasyLoop() { curl_easy_cleanup(m_curl); }
    EasyLoop(const EasyLoop&) = delete;
    EasyLoop& operator=(const EasyLoop&) = delete;

    void Open() {
        curl_easy_setopt(m_curl, CURLOPT_NOBODY, 1L);
        if (curl_easy_perform(m_curl) != CURLE_OK)
            throw std::runtime_error("libcurl's header request fails");
        curl_easy_setopt(m_curl, CURLOPT_NOBODY, 0L);
        curl_easy_setopt(m_curl, CURLOPT_HTTPGET, 1L);
    }
    unsigned char Fetch(int64_t offset) {
        const std::string range =
            std::to_string(offset) + '-' + std::to_string(offset + kRangeBytes - 1);
        curl_easy_setopt(m_curl, CURLOPT_RANGE, range.c_str());
        m_filled = 0;
        if (curl_easy_perform(m_curl) != CURLE_OK || m_filled != m_buffer.size())
            throw std::runtime_error("libcurl has not got a range");
        return m_buffer.back();
    }

  private:
    static size_t Write(char* bytes, size_t size, size_t count, void* user) {
        EasyLoop& self = *static_cast<EasyLoop*>(user);
        const size_t length = size * count;
        if (length > self.m_buffer.size() - self.m_filled)
            return 0;
        std::memcpy(self.m_buffer.data() + self.m_filled, bytes, length);
        self.m_filled += length;
        return length;
    }

    CURL* const m_curl;
    std::vector<unsigned char> m_buffer;
    size_t m_filled = 0;
};

Cost RunEasyLoop(const std::string& url) {
    EasyLoop loop(url);
    return Measure([&] { loop.Open(); }, [&](int64_t offset) { return loop.Fetch(offset); });
}

int Compare(const std::string& server, const std::string& url, const opal::origin::Origin* origin) {
    std::vector<double> ourRates, theirRates, ourCpu, theirCpu;
    int most = 0;
    for (int i = -1; i < kRuns; ++i) {
        const size_t accepted = origin ? origin->ConnectionsAccepted() : 0;
        const Cost our = RunHTTPFile(url);
        most = std::max(most, our.connections);
        if (origin)
            most = std::max(most, static_cast<int>(origin->ConnectionsAccepted() - accepted));
        const Cost their = RunEasyLoop(url);
        if (our.lastByte != their.lastByte)
            throw std::runtime_error("the two downloads differ");
        if (i < 0)
            continue;  // the first round warms up
        ourRates.push_back(kFileBytes / our.seconds / 1e6);
        theirRates.push_back(kFileBytes / their.seconds / 1e6);
        ourCpu.push_back(our.cpuMs);
        theirCpu.push_back(their.cpuMs);
    }
    using opal::bench::Figure;
    const bool rate =
        opal::bench::Print({"download from " + server, opal::bench::Median(ourRates), "libcurl",
                            opal::bench::Median(theirRates), "MB/s", Figure::Bound::AtLeast, 0.9});
    const bool cpu = opal::bench::Print(
        {"download from " + server + ", CPU", opal::bench::Median(ourCpu), "libcurl",
         opal::bench::Median(theirCpu), "ms", Figure::Bound::AtMost, 1.2});
    const bool one = opal::bench::PrintVerdict(
        "download from " + server + ", reuse",
        "most connections for " + std::to_string(kRanges) + " ranges: " + std::to_string(most),
        "exactly 1", most == 1);
    return rate && cpu && one ? 0 : 1;
}

}  // namespace

/// libcurl finds this one in place of the C library's: every connection of this process counts.
extern "C" __attribute__((visibility("default"))) int connect(int socket, const sockaddr* address,
                                                              socklen_t size) {
    if (address->sa_family == AF_INET)
        ++g_connections;
    using Connect = int (*)(int, const sockaddr*, socklen_t);
    static const auto next = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
    return next(socket, address, size);
}

int main(int argc, char** argv) {
    try {
        if (argc > 1)
            return Compare("nginx", argv[1], nullptr);
        opal::origin::Origin origin;
        origin.AddGeneratedFile("film", kFileBytes);
        std::string error;
        if (!origin.Start(&error))
            throw std::runtime_error(error);
        return Compare("opal-origin", origin.Url("film"), &origin);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_ranged_download: %s\n", error.what());
        return 2;
    }
}
