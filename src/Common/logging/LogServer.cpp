#include "Common/logging/LogServer.h"

#include <sys/resource.h>

#include <atomic>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>
#include <exception>

#include "Common/Clock.h"
#include "Common/LockedQueue.h"
#include "Common/logging/ILogEventSender.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogEventSerializer.h"
#include "Common/logging/Logger.h"

namespace {

struct LogEventMessage {
    enum Type : int { kNone = 0, kEvent = 1, kFlush = 2, kStop = 3 };
    int type = kNone;
    LogEvent* event = nullptr;
};

constexpr int kLowestPriority = 19;
/// Messages that wait at most. So many pile up only when the log thread has ended.
constexpr size_t kMaxQueued = 16448;

}  // namespace

/// Two locks keep posting apart from the network: `wakeMutex` is a leaf that is held only around a
/// push and around the wait for one; `mutex` is held while a message is handled, uploads included.
/// `controlMutex`, the outermost, makes Start and Stop wait for one another; the log thread never
/// takes it.
class LogServer::PIMPL {
  public:
    LockedQueue<LogEventMessage> queue;
    boost::thread thread;
    boost::recursive_mutex controlMutex;
    boost::mutex mutex;
    boost::mutex wakeMutex;
    boost::condition_variable wakeup;
    LogEventSerializer serializer;
    ILogEventSender* sender = nullptr;
    log4cxx::LoggerPtr logger = getLogger("opal.LogServer");
    log4cxx::LoggerPtr dataLogger = getLogger("opal.LogServer.data");
    std::atomic<bool> started{false};  ///< at any time; from then on events are taken
    std::atomic<bool> connected{false};
    bool stopping = false;
    /// The sender's switches as of the connection, so that Post need not touch the sender, which
    /// may be gone while a reader still posts.
    std::atomic<bool> levelEnabled[3] = {{false}, {false}, {false}};
    boost::posix_time::ptime startTime;  ///< under wakeMutex: late posts meet the next start

    void StampStart() {
        boost::lock_guard<boost::mutex> lock(wakeMutex);
        startTime = opal::Now();
    }

    int64_t SecondsSinceStart() {
        boost::lock_guard<boost::mutex> lock(wakeMutex);
        return opal::ToMilliseconds(opal::Now() - startTime) / 1000;
    }

    void Push(int type, LogEvent* event) {
        boost::lock_guard<boost::mutex> lock(wakeMutex);
        LogEventMessage message;
        message.type = type;
        message.event = event;
        queue.Push(message);
        wakeup.notify_one();
    }

    LogEventMessage WaitForMessage() {
        boost::unique_lock<boost::mutex> lock(wakeMutex);
        LogEventMessage message;
        while (!queue.Pop(message))
            wakeup.wait(lock);
        return message;
    }

    void Drain() {
        LogEventMessage message;
        while (queue.Pop(message))
            LogEventFactory::Instance().Destroy(message.event);
    }

    bool IsEnabled(const LogEvent& event) const {
        const uint8_t level = event.GetLevel();
        return level >= 1 && level <= 3 && levelEnabled[level - 1];
    }

    void ReadLevels() {
        levelEnabled[0] = sender->IsLevel1Enabled();
        levelEnabled[1] = sender->IsLevel2Enabled();
        levelEnabled[2] = sender->IsLevel3Enabled();
    }

    bool Connect() {
        if (sender->Initialize() != OPAL_OK)
            return false;
        ReadLevels();
        connected = true;
        return true;
    }

    void SendBufferToServer() {
        if (!connected && !stopping && !Connect())
            return;
        std::string document;
        serializer.Serialize(document, sender->GetTransactionSize());
        if (document.empty())
            return;
        const OPALError result = sender->Send(document);
        LOG4CXX_TRACE(dataLogger, document);
        LOG4CXX_INFO(logger, "SendLog() = " << static_cast<int>(result));
    }

    /// False when the thread shall end at once.
    bool Handle(const LogEventMessage& message) {
        boost::lock_guard<boost::mutex> lock(mutex);
        switch (message.type) {
            case LogEventMessage::kEvent:
                // Before the connection the sender's own switches count, as they stand.
                if (!connected)
                    ReadLevels();
                if (IsEnabled(*message.event))
                    serializer.AddEvent(message.event);
                else
                    LogEventFactory::Instance().Destroy(message.event);
                break;
            case LogEventMessage::kFlush:
                SendBufferToServer();
                break;
            case LogEventMessage::kStop:
                stopping = true;
                break;
            default:
                break;
        }
        return connected || stopping || Connect();
    }

    void Run() {
        setpriority(PRIO_PROCESS, 0, kLowestPriority);
        try {
            while (!stopping) {
                if (!Handle(WaitForMessage()))
                    return;
            }
            boost::lock_guard<boost::mutex> lock(mutex);
            SendBufferToServer();
            connected = false;
            stopping = false;
        } catch (const std::exception& e) {
            LOG4CXX_ERROR(logger, "Log thread ended: " << e.what());
        }
    }
};

LogServer::LogServer() : m_pimpl(new PIMPL) {}

LogServer::~LogServer() {
    Stop();
}

LogServer& LogServer::Instance() {
    static LogServer server;
    return server;
}

void LogServer::Start(ILogEventSender* sender) {
    if (!sender)
        return;
    PIMPL& self = *m_pimpl;
    boost::lock_guard<boost::recursive_mutex> control(self.controlMutex);
    Stop();
    self.sender = sender;
    self.connected = false;
    self.stopping = false;
    self.StampStart();
    self.started = true;
    self.thread = boost::thread([&self] { self.Run(); });
}

bool LogServer::Post(LogEvent* event) {
    PIMPL& self = *m_pimpl;
    if (!event || !self.started || self.queue.Size() >= kMaxQueued)
        return false;
    if (self.connected && !self.IsEnabled(*event))
        return false;
    event->ts = self.SecondsSinceStart();
    self.Push(LogEventMessage::kEvent, event);
    return true;
}

void LogServer::PostOrDestroy(LogEvent* event) {
    if (!Post(event))
        LogEventFactory::Instance().Destroy(event);
}

void LogServer::Flush() {
    if (m_pimpl->started && m_pimpl->queue.Size() < kMaxQueued)
        m_pimpl->Push(LogEventMessage::kFlush, nullptr);
}

void LogServer::Stop() {
    PIMPL& self = *m_pimpl;
    boost::lock_guard<boost::recursive_mutex> control(self.controlMutex);
    if (self.thread.joinable()) {
        self.Push(LogEventMessage::kStop, nullptr);
        self.thread.join();
    }
    self.connected = false;
    self.Drain();
    self.serializer.Clear();
    self.sender = nullptr;
}
