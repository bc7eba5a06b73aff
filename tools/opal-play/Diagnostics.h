#pragma once

#include <log4cxx/appenderskeleton.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace opal::play {

/// What the library's diagnostic loggers tell of the network.
struct NetworkFigures {
    uint64_t clusters = 0;          ///< cluster transfers; each is one request
    uint64_t bytes = 0;             ///< of clusters
    int64_t linkBitsPerSecond = 0;  ///< the library's own estimate, 0 while it has none
};

/// A media file that the library could not use.
struct MediaFailure {
    std::string url;
    int64_t code = 0;    ///< 0: none
    bool found = false;  ///< the file was opened; its header or index is at fault
};

/// Reads the loggers' messages. Any thread.
class NetworkMeter {
  public:
    void Read(const std::string& message);
    NetworkFigures Figures() const;
    /// The last one.
    MediaFailure Failure() const;

  private:
    bool ReadFailure(const std::string& message, const char* words, bool found);

    mutable std::mutex m_mutex;
    NetworkFigures m_figures;
    MediaFailure m_failure;
};

/// An appender for the library's loggers that feeds a meter.
class MeterAppender : public log4cxx::AppenderSkeleton {
  public:
    explicit MeterAppender(std::shared_ptr<NetworkMeter> meter) : m_meter(std::move(meter)) {}
    void close() override {}
    bool requiresLayout() const override { return false; }

  protected:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override;

  private:
    const std::shared_ptr<NetworkMeter> m_meter;
};

}  // namespace opal::play
