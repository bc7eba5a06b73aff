// What reporting an event costs, beside log4cxx's asynchronous appender; and what it costs to write
// as many events as a session keeps.
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/asyncappender.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>
#include <log4cxx/xml/xmllayout.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Common/logging/LogEvent.h"
#include "Common/logging/LogEventSender.h"
#include "Common/logging/LogEventSerializer.h"
#include "Common/logging/LogServer.h"
#include "bench/Figures.h"

namespace {

using opal::bench::Figure;

constexpr int kEvents = 16000;  // below what the server keeps, however slow its thread is
constexpr int kRounds = 7;
constexpr int kMostEvents = 16448;
constexpr double kMostNs = 1000;

double NsOf(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin)
        .count();
}

/// Processor time of the calling thread.
double ThreadNs() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

struct Cost {
    double wallNs;    ///< of all threads' calls together
    double callerNs;  ///< what a call takes of its caller's time, however many threads share a core
};

Cost CostOf(int threads, const std::function<void(int)>& call) {
    std::atomic<int64_t> callers{0};
    const double ns = NsOf([&] {
        std::vector<std::thread> running;
        for (int t = 0; t < threads; ++t) {
            running.emplace_back([&] {
                const double begin = ThreadNs();
                for (int i = 0; i < kEvents / threads; ++i)
                    call(i);
                callers += static_cast<int64_t>(ThreadNs() - begin);
            });
        }
        for (std::thread& thread : running)
            thread.join();
    });
    return {ns / kEvents, static_cast<double>(callers) / kEvents};
}

/// Where log4cxx's thread takes the events to; with a layout it writes them.
class DroppingAppender : public log4cxx::AppenderSkeleton {
  public:
    explicit DroppingAppender(const log4cxx::LayoutPtr& layout) : AppenderSkeleton(layout) {}
    void close() override {}
    bool requiresLayout() const override { return false; }

  protected:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool& pool) override {
        log4cxx::LogString text;
        if (const log4cxx::LayoutPtr layout = getLayout())
            layout->format(text, event, pool);
    }
};

/// log4cxx's logger over its asynchronous appender, as long as this lives; its end waits for what
/// was logged.
class AsyncLogger {
  public:
    explicit AsyncLogger(const log4cxx::LayoutPtr& layout = nullptr) {
        m_appender->addAppender(std::make_shared<DroppingAppender>(layout));
        m_appender->setBufferSize(kMostEvents + 1);
        m_logger->setAdditivity(false);
        m_logger->addAppender(m_appender);
    }
    ~AsyncLogger() {
        m_logger->removeAllAppenders();
        m_appender->close();
    }
    AsyncLogger(const AsyncLogger&) = delete;
    AsyncLogger& operator=(const AsyncLogger&) = delete;
    void Log(int i) { LOG4CXX_INFO(m_logger, "resume " << i); }

  private:
    const std::shared_ptr<log4cxx::AsyncAppender> m_appender =
        std::make_shared<log4cxx::AsyncAppender>();
    const log4cxx::LoggerPtr m_logger = log4cxx::Logger::getLogger("bench.log");
};

Cost Post(int threads) {
    NullLogEventSender sender;
    LogServer::Instance().Start(&sender);
    const Cost cost = CostOf(threads, [](int i) {
        LogServer::Instance().PostOrDestroy(LogEventFactory::Instance().NewResumeLogEvent(i));
    });
    LogServer::Instance().Stop();
    return cost;
}

double Append(int threads) {
    AsyncLogger logger;
    return CostOf(threads, [&logger](int i) { logger.Log(i); }).wallNs;
}

double SerializeMs() {
    return NsOf([] {
               LogEventSerializer serializer;
               for (int i = 0; i < kMostEvents; ++i)
                   serializer.AddEvent(LogEventFactory::Instance().NewResumeLogEvent(i));
               std::string document;
               serializer.Serialize(document, SIZE_MAX);
           }) /
           1e6;
}

/// As many events through log4cxx's appender into its own XML, to the last.
double AppendXmlMs() {
    return NsOf([] {
               AsyncLogger logger(std::make_shared<log4cxx::xml::XMLLayout>());
               for (int i = 0; i < kMostEvents; ++i)
                   logger.Log(i);
           }) /
           1e6;
}

}  // namespace

int main() {
    bool holds = true;
    const auto compare = [&holds](const std::string& name, const std::vector<double>& ours,
                                  const std::string& peer, const std::vector<double>& theirs,
                                  const char* unit, Figure::Bound bound) {
        Figure figure;
        figure.name = name;
        figure.ours = opal::bench::Median(ours);
        figure.peer = peer;
        figure.theirs = opal::bench::Median(theirs);
        figure.unit = unit;
        figure.bound = bound;
        figure.limit = 1;
        holds = opal::bench::Print(figure) && holds;
    };
    for (const int threads : {1, 4}) {
        const std::string who = std::to_string(threads) + (threads == 1 ? " thread" : " threads");
        std::vector<double> ours, callers, theirs;
        for (int round = 0; round < kRounds; ++round) {
            const Cost cost = Post(threads);
            ours.push_back(cost.wallNs);
            callers.push_back(cost.callerNs);
            theirs.push_back(Append(threads));
        }
        compare("log event, " + who, ours, "AsyncAppender", theirs, "ns", Figure::Bound::AtMost);
        const double caller = opal::bench::Median(callers);
        holds = opal::bench::PrintVerdict("log event, caller's time, " + who,
                                          std::to_string(static_cast<int>(caller)) + " ns",
                                          "below 1000 ns", caller < kMostNs) &&
                holds;
    }
    std::vector<double> ours, theirs;
    for (int round = 0; round < kRounds; ++round) {
        ours.push_back(SerializeMs());
        theirs.push_back(AppendXmlMs());
    }
    // Not alike: an event's document is a tree of elements, the appender's is one line of text. It
    // is the cost to know, on the log's own thread.
    compare("log, 16448 events as XML", ours, "AsyncAppender", theirs, "ms", Figure::Bound::None);
    return holds ? 0 : 1;
}
