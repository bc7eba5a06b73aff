// What reporting an event costs, beside log4cxx's asynchronous appender; and what it costs to write
// as many events as a session keeps.
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/asyncappender.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>

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

/// Nanoseconds of one call, over all threads' calls.
double NsEach(int threads, const std::function<void(int)>& call) {
    const double ns = NsOf([&] {
        std::vector<std::thread> running;
        for (int t = 0; t < threads; ++t) {
            running.emplace_back([&] {
                for (int i = 0; i < kEvents / threads; ++i)
                    call(i);
            });
        }
        for (std::thread& thread : running)
            thread.join();
    });
    return ns / kEvents;
}

/// Where log4cxx's thread takes the events to.
class DroppingAppender : public log4cxx::AppenderSkeleton {
  public:
    void close() override {}
    bool requiresLayout() const override { return false; }

  protected:
    void append(const log4cxx::spi::LoggingEventPtr&, log4cxx::helpers::Pool&) override {}
};

double Post(int threads) {
    NullLogEventSender sender;
    LogServer::Instance().Start(&sender);
    const double ns = NsEach(threads, [](int i) {
        LogServer::Instance().PostOrDestroy(LogEventFactory::Instance().NewResumeLogEvent(i));
    });
    LogServer::Instance().Stop();
    return ns;
}

double Append(int threads) {
    const auto appender = std::make_shared<log4cxx::AsyncAppender>();
    appender->addAppender(std::make_shared<DroppingAppender>());
    appender->setBufferSize(kEvents + 1);
    const log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("bench.log");
    logger->removeAllAppenders();
    logger->setAdditivity(false);
    logger->addAppender(appender);
    const double ns = NsEach(threads, [&logger](int i) { LOG4CXX_INFO(logger, "resume " << i); });
    logger->removeAllAppenders();
    appender->close();
    return ns;
}

double SerializeMs(size_t& bytes) {
    LogEventSerializer serializer;
    for (int i = 0; i < kMostEvents; ++i)
        serializer.AddEvent(LogEventFactory::Instance().NewResumeLogEvent(i));
    std::string document;
    const double ns = NsOf([&] { serializer.Serialize(document, SIZE_MAX); });
    bytes = document.size();
    return ns / 1e6;
}

}  // namespace

int main() {
    bool holds = true;
    for (const int threads : {1, 4}) {
        std::vector<double> ours, theirs;
        for (int round = 0; round < kRounds; ++round) {
            ours.push_back(Post(threads));
            theirs.push_back(Append(threads));
        }
        Figure figure;
        figure.name =
            "log event, " + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
        figure.ours = opal::bench::Median(ours);
        figure.peer = "AsyncAppender";
        figure.theirs = opal::bench::Median(theirs);
        figure.unit = "ns";
        figure.bound = Figure::Bound::AtMost;
        figure.limit = 1;
        holds = opal::bench::Print(figure) && holds;
        if (threads == 1)
            holds = opal::bench::PrintVerdict("log event, cost",
                                              std::to_string(static_cast<int>(figure.ours)) + " ns",
                                              "below 1000 ns", figure.ours < kMostNs) &&
                    holds;
    }
    size_t bytes = 0;
    std::vector<double> ms;
    for (int round = 0; round < kRounds; ++round)
        ms.push_back(SerializeMs(bytes));
    opal::bench::PrintVerdict("log, 16448 events written",
                              std::to_string(static_cast<int>(opal::bench::Median(ms))) + " ms, " +
                                  std::to_string(bytes / 1024) + " KiB",
                              "", true);
    return holds ? 0 : 1;
}
