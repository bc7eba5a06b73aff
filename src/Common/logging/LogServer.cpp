#include "Common/logging/LogServer.h"

#include <sys/resource.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <chrono>
#include <exception>

#include "Common/Clock.h"
#include "Common/LockedQueue.h"
#include "Common/Mutex.h"
#include "Common/StopSignal.h"
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
/// takes it. Start and Stop take `mutex` only while no log thread runs.
class LogServer::PIMPL {
  public:
    LockedQueue<LogEventMessage> queue;
    opal::Mutex controlMutex;
    boost::thread thread OPAL_GUARDED_BY(controlMutex);
    opal::Mutex mutex OPAL_ACQUIRED_AFTER(controlMutex);
    LogEventSerializer serializer OPAL_GUARDED_BY(mutex);
    ILogEventSender* sender OPAL_GUARDED_BY(mutex) = nullptr;
    bool stopping OPAL_GUARDED_BY(mutex) = false;
    opal::Mutex wakeMutex OPAL_ACQUIRED_AFTER(mutex);
    opal::CondVar wakeup;
    opal::CondVar threadEnded;
    bool ended OPAL_GUARDED_BY(wakeMutex) = false;
    /// Late posts meet the next start.
    boost::posix_time::ptime startTime OPAL_GUARDED_BY(wakeMutex);
    log4cxx::LoggerPtr logger = getLogger("opal.LogServer");
    log4cxx::LoggerPtr dataLogger = getLogger("opal.LogServer.data");
    std::atomic<bool> started{false};  ///< at any time; from then on events are taken
    std::atomic<bool> connected{false};
    /// The sender's switches as of the connection, so that Post need not touch the sender, which
    /// may be gone while a reader still posts.
    std::atomic<bool> levelEnabled[3] = {{false}, {false}, {false}};
    std::atomic<bool> lost{false};  ///< an event was refused for want of room
    opal::StopSignal hurry;         ///< who stops has waited long enough

    void StampStart() {
        opal::MutexLock lock(wakeMutex);
        ended = false;
        startTime = opal::Now();
    }

    int64_t SecondsSinceStart() {
        opal::MutexLock lock(wakeMutex);
        return opal::ToMilliseconds(opal::Now() - startTime) / 1000;
    }

    void Push(int type, LogEvent* event) {
        opal::MutexLock lock(wakeMutex);
        LogEventMessage message;
        message.type = type;
        message.event = event;
        queue.Push(message);
        wakeup.NotifyOne();
    }

    LogEventMessage WaitForMessage() {
        opal::MutexLock lock(wakeMutex);
        LogEventMessage message;
        while (!queue.Pop(message))
            wakeup.Wait(wakeMutex);
        return message;
    }

    /// By real time. False if the log thread is still at work then.
    bool WaitForEnd(int64_t ms) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        opal::MutexLock lock(wakeMutex);
        while (!ended && threadEnded.WaitUntil(wakeMutex, end)) {
        }
        return ended;
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

    void ReadLevels() OPAL_REQUIRES(mutex) {
        levelEnabled[0] = sender->IsLevel1Enabled();
        levelEnabled[1] = sender->IsLevel2Enabled();
        levelEnabled[2] = sender->IsLevel3Enabled();
    }

    bool Connect() OPAL_REQUIRES(mutex) {
        if (sender->Initialize() != OPAL_OK)
            return false;
        ReadLevels();
        connected = true;
        return true;
    }

    void SendBufferToServer() OPAL_REQUIRES(mutex) {
        if (!connected && !stopping && !Connect())
            return;
        if (lost.exchange(false))
            serializer.MarkPartial();
        std::string document;
        serializer.Serialize(document, sender->GetTransactionSize(), &hurry);
        if (document.empty())
            return;
        const OPALError result = sender->Send(document);
        LOG4CXX_TRACE(dataLogger, document);
        LOG4CXX_INFO(logger, "SendLog() = " << static_cast<int>(result));
    }

    /// False when the thread shall end at once.
    bool Handle(const LogEventMessage& message) {
        opal::MutexLock lock(mutex);
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

    /// Without memory a line of the log may throw too, and nothing may leave a thread.
    void TellEnd(const char* why) noexcept {
        try {
            LOG4CXX_ERROR(logger, "Log thread ended: " << why);
        } catch (const std::exception&) {
        }
    }

    void Run() {
        setpriority(PRIO_PROCESS, 0, kLowestPriority);
        try {
            while (!hurry.IsRaised() && Handle(WaitForMessage())) {
                opal::MutexLock lock(mutex);
                if (!stopping)
                    continue;
                SendBufferToServer();
                connected = false;
                stopping = false;
                return;
            }
        } catch (const std::exception& e) {
            TellEnd(e.what());
        }
    }

    void RunThread() {
        Run();
        opal::MutexLock lock(wakeMutex);
        ended = true;
        threadEnded.NotifyAll();
    }

    void Stop(int64_t patienceMs) OPAL_REQUIRES(controlMutex) {
        if (thread.joinable()) {
            Push(LogEventMessage::kStop, nullptr);
            if (patienceMs >= 0 && !WaitForEnd(patienceMs))
                hurry.Raise();
            thread.join();
        }
        connected = false;
        lost = false;
        hurry.Lower();
        Drain();
        opal::MutexLock lock(mutex);
        serializer.Forget();
        sender = nullptr;
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
    opal::MutexLock control(self.controlMutex);
    self.Stop(-1);
    {
        opal::MutexLock lock(self.mutex);
        self.sender = sender;
        self.stopping = false;
    }
    self.StampStart();
    self.started = true;
    self.thread = boost::thread([&self] { self.RunThread(); });
}

bool LogServer::Post(LogEvent* event) {
    PIMPL& self = *m_pimpl;
    if (!event || !self.started)
        return false;
    if (self.connected && !self.IsEnabled(*event))
        return false;
    if (self.queue.Size() >= kMaxQueued) {
        self.lost = true;
        return false;
    }
    event->ts = self.SecondsSinceStart();
    self.Push(LogEventMessage::kEvent, event);
    return true;
}

void LogServer::PostOrDestroy(LogEvent* event) {
    bool taken = false;
    try {
        taken = Post(event);
    } catch (...) {  // no memory for the queue
        LogEventFactory::Instance().Destroy(event);
        throw;
    }
    if (!taken)
        LogEventFactory::Instance().Destroy(event);
}

void LogServer::Flush() {
    if (m_pimpl->started && m_pimpl->queue.Size() < kMaxQueued)
        m_pimpl->Push(LogEventMessage::kFlush, nullptr);
}

void LogServer::Stop(int64_t patienceMs) {
    PIMPL& self = *m_pimpl;
    opal::MutexLock control(self.controlMutex);
    self.Stop(patienceMs);
}
