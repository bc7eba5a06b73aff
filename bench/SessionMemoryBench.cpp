// Memory that a session at 6 Mbit/s takes while its buffers are full: the peak resident set of a
// process that plays, less what the same process had with the television loaded and no session.
//
//   bench_session_memory FOLDER MANIFEST_URL    FOLDER: what is served there, of one level
//
// The television passes access units through undecoded and keeps no bytes of them. Each session
// plays in a process of its own, all at once. The bound is what the buffers may hold (12 MiB of
// video and 384,000 bytes of audio), a cluster in flight for each of the two readers, one in the
// parser, and 16 MiB for everything else. Exit code: 0; 1 if the bound is missed; 2 if a session
// fails.

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <thread>

#include "StreamingController/IStreamingController.h"
#include "StreamingController/StreamingControllerListener.h"
#include "TvSet.h"
#include "bench/Figures.h"
#include "opal-package/Presentation.h"

namespace {

constexpr int kRuns = 9;
constexpr int64_t kVideoBufferBytes = 12 << 20;
constexpr int64_t kAudioBufferBytes = 384000;
constexpr int64_t kAllowance = 16 << 20;
constexpr int64_t kPlayedMs = 8000;
constexpr std::chrono::seconds kLongest{60};

using opal::package::EntryKind;

struct Outcome {
    int64_t baseline = 0;  ///< bytes
    int64_t peak = 0;
    int64_t bufferedMs = 0;  ///< video, at the end
    int error = OPAL_OK;
};

class Listener : public StreamingControllerListener {
  public:
    std::atomic<int64_t> position{0};
    std::atomic<int> error{OPAL_OK};

    void OnPosition(int64_t ms, size_t) override { position = ms; }
    void OnError(OPALError code, const char*) override { error = code; }
};

/// A line of this process's status, in bytes.
int64_t StatusBytes(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string word;
    int64_t kilobytes = 0;
    while (status >> word) {
        if (word == name + ":" && status >> kilobytes)
            return kilobytes * 1024;
    }
    throw std::runtime_error("no " + name + " in /proc/self/status");
}

Outcome PlaySession(const std::string& url) {
    tvset::Options set;
    set.decoding = tvset::Decoding::PassThrough;
    tvset::Configure(set);
    Outcome outcome;
    outcome.baseline = StatusBytes("VmRSS");
    std::ofstream("/proc/self/clear_refs") << 5;  // the peak counts from here on
    Listener listener;
    const std::unique_ptr<IStreamingController> player(NewStreamingController());
    (void)player->SetNotify(&listener);
    outcome.error = player->InitializeFromSMILFile(url, "US", "en", OPAL_WRITER_MODEL_PUSH);
    if (outcome.error == OPAL_OK)
        outcome.error = player->Play();
    const auto end = std::chrono::steady_clock::now() + kLongest;
    while (outcome.error == OPAL_OK && listener.position < kPlayedMs) {
        outcome.error = listener.error;
        if (std::chrono::steady_clock::now() > end)
            outcome.error = OPAL_ERROR_TIMEOUT;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    (void)player->GetBufferedDuration(OPAL_STREAM_VIDEO, outcome.bufferedMs);
    outcome.peak = StatusBytes("VmHWM");
    (void)player->Finalize();
    return outcome;
}

struct Child {
    pid_t pid;
    int result;
};

/// Before any thread is there, so that the child may go on as it is.
Child Start(const std::string& url) {
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("no pipe");
    const pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("no process");
    if (pid > 0) {
        close(ends[1]);
        return {pid, ends[0]};
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)!freopen("/dev/null", "w", stdout);  // the library's own lines
    try {
        const Outcome outcome = PlaySession(url);
        _exit(write(ends[1], &outcome, sizeof(outcome)) == sizeof(outcome) ? 0 : 2);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_session_memory: %s\n", error.what());
        _exit(2);
    }
}

Outcome End(const Child& child) {
    Outcome outcome;
    pollfd ready{child.result, POLLIN, 0};
    const bool told = poll(&ready, 1, 1000 * static_cast<int>(kLongest.count() + 10)) > 0 &&
                      read(child.result, &outcome, sizeof(outcome)) == sizeof(outcome);
    close(child.result);
    if (!told)
        kill(child.pid, SIGKILL);
    while (waitpid(child.pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (!told || outcome.error != OPAL_OK)
        throw std::runtime_error("a session fails with " + std::to_string(outcome.error));
    return outcome;
}

/// Bytes of the largest cluster among the files of a kind.
int64_t LargestCluster(const opal::package::Presentation& presentation, EntryKind kind) {
    uint64_t largest = 0;
    for (const opal::package::Entry& entry : presentation.entries) {
        if (entry.kind == kind)
            largest = std::max(
                largest, *std::max_element(entry.clusterSizes.begin(), entry.clusterSizes.end()));
    }
    return static_cast<int64_t>(largest);
}

int Compare(const std::string& folder, const std::string& url) {
    std::vector<Child> children;
    for (int i = 0; i < kRuns; ++i)
        children.push_back(Start(url));

    std::ifstream sidecar(folder + "/" + opal::package::kSidecarName);
    const std::string text{std::istreambuf_iterator<char>(sidecar), {}};
    const auto presentation = opal::package::ParseSidecar(text);
    const int64_t video = LargestCluster(presentation, EntryKind::Level);
    const int64_t audio = LargestCluster(presentation, EntryKind::Audio);
    const double bound =
        static_cast<double>(kVideoBufferBytes + kAudioBufferBytes + 2 * video + audio + kAllowance);
    // What is buffered at least when one more cluster may not fit.
    const int64_t fullMs = (kVideoBufferBytes / video - 1) * opal::package::kClusterMs;

    std::vector<double> taken, baselines;
    for (const Child& child : children) {
        const Outcome outcome = End(child);
        if (outcome.bufferedMs < fullMs)
            throw std::runtime_error("a session's buffer holds only " +
                                     std::to_string(outcome.bufferedMs) + " ms");
        taken.push_back(static_cast<double>(outcome.peak - outcome.baseline));
        baselines.push_back(static_cast<double>(outcome.baseline));
    }
    const double median = opal::bench::Median(taken);
    char facts[120], limit[40];
    std::snprintf(facts, sizeof(facts), "%9.2f MB above the %.2f MB without a session",
                  median / 1e6, opal::bench::Median(baselines) / 1e6);
    std::snprintf(limit, sizeof(limit), "at most %.2f MB", bound / 1e6);
    return opal::bench::PrintVerdict("memory of a 6 Mbit/s session", facts, limit, median <= bound)
               ? 0
               : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_session_memory FOLDER MANIFEST_URL\n");
        return 2;
    }
    try {
        return Compare(argv[1], argv[2]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_session_memory: %s\n", error.what());
        return 2;
    }
}
