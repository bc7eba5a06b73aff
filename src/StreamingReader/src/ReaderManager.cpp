#include "StreamingReader/ReaderManager.h"

#include <exception>

#include "Common/Clock.h"
#include "Common/StreamingTuning.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"

namespace {

constexpr int64_t kPollMs = StreamingTuning::GetReaderPoll();
constexpr int64_t kLockRetryMs = 5;

using StateLock = opal::MutexLock;

}  // namespace

ReaderManager::~ReaderManager() = default;

OPALError ReaderManager::Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                                    IStreamingReaderNotify* notify, size_t index) {
    Lock lock(m_mutex);
    if (!parser || !buffer || index == kNone)
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (!ReaderList().empty() || CurrentIndex() != kNone)
        return OPAL_ERROR_NOT_READY;
    const OPALError created = CreateReaders(parser, buffer, notify, index);
    if (created != OPAL_OK)
        return created;
    if (ReaderList().empty())
        return OPAL_OK;
    if (index >= ReaderList().size())
        return OPAL_ERROR_INVALID_ARGUMENT;
    SetCurrent(index);
    return StartThread();
}

OPALError ReaderManager::OpenAfterInitialize() {
    const Reader reader = Current();
    if (!reader)
        return OPAL_OK;
    if (OpenCurrent() != OPAL_OK || reader->GetState() != STREAMING_READER_STOPPED)
        return OPAL_ERROR_GENERAL;
    return OPAL_OK;
}

OPALError ReaderManager::AddReader(const std::string& url, size_t headerRequestSize,
                                   IClusterBuffer* buffer, IStreamingReaderNotify* notify,
                                   OPALStreamType type, size_t level) {
    const Reader reader(NewStreamingReader(url, headerRequestSize, buffer, notify, type, level));
    if (!reader)
        return OPAL_ERROR_GENERAL;
    StateLock state(m_stateMutex);
    m_readers.push_back(reader);
    return OPAL_OK;
}

OPALError ReaderManager::SetStream(size_t index, bool open) {
    Lock lock(m_mutex);
    const Reader before = Current();
    if (!before)
        return NoReaderResult();
    if (index >= ReaderList().size())
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (index == CurrentIndex())
        return OPAL_OK;
    // Were it left running, it would fetch a cluster of its old place when it becomes current
    // again, before anyone has sought it.
    (void)before->Stop();
    SetCurrent(index);
    if (open) {
        const OPALError opened = OpenCurrent();
        if (opened != OPAL_OK)
            return opened;
    }
    WakeThread();
    return OPAL_OK;
}

void ReaderManager::SetCurrent(size_t index) {
    StateLock state(m_stateMutex);
    m_current = index;
}

OPALError ReaderManager::DownloadNext() {
    Lock lock(m_mutex);
    return OnCurrent(
        [](IStreamingReader& reader) { return reader.DownloadNext(OPAL_PLAYRATE_ONEX); });
}

OPALError ReaderManager::OpenCurrent() {
    Lock lock(m_mutex);
    return OnCurrent([](IStreamingReader& reader) {
        return reader.GetState() == STREAMING_READER_NOT_OPEN ? reader.Open() : OPAL_OK;
    });
}

OPALError ReaderManager::Finalize() {
    LockAfterAbort();
    Lock lock(m_mutex, opal::AdoptLock());
    (void)SetError(OPAL_ERROR_TERMINATED);
    WakeThread();
    boost::thread ending;
    ending.swap(m_thread);
    lock.Unlock();
    if (ending.joinable())
        ending.join();
    lock.Lock();
    for (const Reader& reader : ReaderList())
        (void)reader->Finalize();
    std::vector<Reader> dropped;
    {
        StateLock state(m_stateMutex);
        m_readers.swap(dropped);
        m_current = kNone;
        m_cancelled = false;
    }
    m_threadEnded = false;
    OnReadersDropped();
    return OPAL_OK;
}

OPALError ReaderManager::Start() {
    Lock lock(m_mutex, opal::DeferLock());
    // A transfer may take a minute, and the caller's thread has more to do than to wait for it. The
    // start is made up for when the transfer ends. Looked at again after each attempt, since who
    // holds the lock may be the thread on its way into a transfer.
    for (;;) {
        if (const Reader transferring = NoteStartInTransfer())
            return transferring->GetError();
        if (lock.TryLock())
            break;
        opal::SleepMs(kLockRetryMs);
    }

    const Reader reader = Current();
    if (!reader)
        return NoReaderResult();
    const OPALError opened = OpenCurrent();
    if (opened != OPAL_OK)
        return opened;
    SetCancelled(false);
    const OPALError started = reader->Start();
    WakeThread();
    return started;
}

/// The reader that is in a transfer, if one is, with the start noted.
ReaderManager::Reader ReaderManager::NoteStartInTransfer() {
    StateLock state(m_stateMutex);
    if (!m_transferring)
        return {};
    m_startRequested = true;
    m_cancelled = false;
    ++m_generation;
    return m_readers[m_current];
}

OPALError ReaderManager::Stop() {
    LockAfterCancel();
    Lock lock(m_mutex, opal::AdoptLock());
    const Reader reader = Current();
    if (!reader)
        return NoReaderResult();
    const OPALError stopped = reader->Stop();
    WakeThread();
    return stopped;
}

OPALError ReaderManager::Seek(int64_t& ms) {
    Lock lock(m_mutex);
    return OnCurrent([&](IStreamingReader& reader) {
        SetCancelled(false);
        return reader.Seek(ms);
    });
}

size_t ReaderManager::GetStreamCount() {
    StateLock state(m_stateMutex);
    return m_readers.size();
}

OPALError ReaderManager::GetDuration(int64_t& ms) {
    ms = 0;
    Lock lock(m_mutex);
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetDuration(ms); });
}

size_t ReaderManager::GetCurrent() {
    StateLock state(m_stateMutex);
    return m_current;
}

OPALError ReaderManager::GetState(int& state) {
    state = STREAMING_READER_ERROR;
    return OnCurrent([&](IStreamingReader& reader) {
        state = reader.GetState();
        return OPAL_OK;
    });
}

OPALError ReaderManager::GetPosition(int64_t& ms) {
    ms = 0;
    Lock lock(m_mutex);
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetPosition(ms); });
}

bool ReaderManager::HasError() {
    Lock lock(m_mutex);
    const Reader reader = Current();
    return reader ? reader->HasError() : !ReaderList().empty();
}

OPALError ReaderManager::GetError() {
    return OnCurrent([](IStreamingReader& reader) { return reader.GetError(); });
}

OPALError ReaderManager::SetError(OPALError code) {
    Lock lock(m_mutex);
    return OnCurrent([code](IStreamingReader& reader) { return reader.SetError(code); });
}

OPALError ReaderManager::Cancel() {
    return OnCurrent([this](IStreamingReader& reader) {
        SetCancelled(true);
        return reader.CancelTransfers();
    });
}

OPALError ReaderManager::GetBytesInFlight(size_t& bytes) {
    bytes = 0;
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetBytesInFlight(bytes); });
}

OPALError ReaderManager::GetBytesAhead(int64_t ms, size_t& bytes) {
    bytes = 0;
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetBytesAhead(ms, bytes); });
}

void ReaderManager::AbortTransfers() {
    std::vector<Reader> readers;
    {
        StateLock state(m_stateMutex);
        readers = m_readers;
    }
    for (const Reader& reader : readers)
        reader->AbortTransfers();
}

ReaderManager::Reader ReaderManager::Current() {
    StateLock state(m_stateMutex);
    return m_current < m_readers.size() ? m_readers[m_current] : Reader();
}

OPALError ReaderManager::NoReaderResult() {
    StateLock state(m_stateMutex);
    return m_readers.empty() ? OPAL_OK : OPAL_ERROR_NOT_READY;
}

void ReaderManager::SetCancelled(bool cancelled) {
    StateLock state(m_stateMutex);
    m_cancelled = cancelled;
}

bool ReaderManager::IsCancelled() {
    StateLock state(m_stateMutex);
    return m_cancelled;
}

/// An abort that comes between two transfers of an opening may find nothing to end, so it is
/// repeated until the thread lets go.
void ReaderManager::LockAfterAbort() {
    AbortTransfers();
    while (!m_mutex.TryLock()) {
        opal::SleepMs(kLockRetryMs);
        AbortTransfers();
    }
}

/// Likewise for a cancel that came just before a transfer had begun. Without a cancel this waits
/// for the transfer.
void ReaderManager::LockAfterCancel() {
    while (!m_mutex.TryLock()) {
        const Reader reader = IsCancelled() ? Current() : Reader();
        if (!reader) {
            m_mutex.Lock();
            return;
        }
        (void)reader->CancelTransfers();
        opal::SleepMs(kLockRetryMs);
    }
}

OPALError ReaderManager::StartThread() {
    m_threadEnded = false;
    try {
        m_thread = boost::thread([this] { ThreadMain(); });
    } catch (const std::exception&) {
        return OPAL_ERROR_GENERAL;
    }
    return OPAL_OK;
}

OPALError ReaderManager::RestartEndedThread() {
    if (!m_threadEnded)
        return OPAL_OK;
    // It takes no lock any more once the flag is set.
    m_thread.join();
    return StartThread();
}

void ReaderManager::WakeThread() {
    {
        StateLock state(m_stateMutex);
        ++m_generation;
    }
    m_wakeup.NotifyAll();
}

uint64_t ReaderManager::Generation() {
    StateLock state(m_stateMutex);
    return m_generation;
}

void ReaderManager::ThreadMain() {
    try {
        (void)EventLoop();
    } catch (const std::exception&) {
        Lock lock(m_mutex);
        (void)SetError(OPAL_ERROR_GENERAL);
        m_threadEnded = true;
    }
}

OPALError ReaderManager::EventLoop() {
    for (;;) {
        opal::SleepMs(kPollMs);
        Lock lock(m_mutex);
        OPALError result = OPAL_OK;
        bool ended = !HasError() && RunRound(result);
        if (!ended && HasError()) {
            result = GetError();
            ended = true;
        }
        if (ended) {
            m_threadEnded = true;
            return result;
        }
    }
}

/// One turn of the loop. True ends the loop with `result`.
bool ReaderManager::RunRound(OPALError& result) {
    int state = STREAMING_READER_ERROR;
    result = GetState(state);
    if (result != OPAL_OK) {
        (void)SetError(result);
        return true;
    }
    switch (state) {
        case STREAMING_READER_NOT_OPEN:
            result = OpenCurrent();
            if (result == OPAL_OK)
                return false;
            // The failure may be that of a level below the current one.
            if (!HasError())
                (void)SetError(result);
            return true;
        case STREAMING_READER_STOPPED:
        case STREAMING_READER_END:
            WaitForWake(Generation());
            return false;
        case STREAMING_READER_RUNNING:
            return Download(result);
        default:
            return false;
    }
}

bool ReaderManager::Download(OPALError& result) {
    const uint64_t generation = BeginTransfer();
    try {
        result = DownloadNext();
    } catch (const std::exception&) {
        result = OPAL_ERROR_GENERAL;
    }
    const bool startRequested = EndTransfer();
    if (IsFatalError(result)) {
        (void)SetError(result);
        return true;
    }
    if (startRequested)
        (void)OnCurrent([](IStreamingReader& reader) { return reader.Start(); });
    if (IsWaitError(result))
        WaitForWake(generation);
    return false;
}

/// The count of wakes from which a wait after the transfer starts: a wake that comes while it runs
/// counts, one that came before does not.
uint64_t ReaderManager::BeginTransfer() {
    StateLock state(m_stateMutex);
    m_transferring = true;
    m_startRequested = false;
    return m_generation;
}

bool ReaderManager::EndTransfer() {
    StateLock state(m_stateMutex);
    m_transferring = false;
    return m_startRequested;
}

/// To be called with m_mutex locked once, since the wait releases one level only.
void ReaderManager::WaitForWake(uint64_t generation) {
    while (Generation() == generation)
        m_wakeup.Wait(m_mutex);
}
