#include "StreamingReader/ReaderManager.h"

#include <algorithm>
#include <utility>

#include "Common/Clock.h"
#include "StreamingDemux/EBML/IClusterIndex.h"

namespace {

constexpr int64_t kRetryMs = 5;

}  // namespace

ReaderManager::~ReaderManager() = default;

OPALError ReaderManager::Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                                    IStreamingReaderNotify* notify, size_t index) {
    opal::RecursiveLock lock(m_mutex);
    if (!parser || !buffer || index == kNone)
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (!ReaderList().empty() || GetCurrent() != kNone)
        return OPAL_ERROR_NOT_READY;
    m_built.clear();
    const OPALError created = CreateReaders(parser, buffer, notify, index);
    const size_t count = m_built.size();
    {
        // Both at once: readers without a current one count as a fault.
        opal::MutexLock state(m_stateMutex);
        m_readers.swap(m_built);
        if (created == OPAL_OK && index < count)
            m_current = index;
    }
    if (created != OPAL_OK || count == 0)
        return created;
    return index < count ? StartThread() : OPAL_ERROR_INVALID_ARGUMENT;
}

OPALError ReaderManager::OpenAfterInitialize() {
    const Reader reader = Current();
    if (!reader)
        return OPAL_OK;
    const int state = OpenNow() == OPAL_OK ? reader->GetState() : STREAMING_READER_ERROR;
    // Running: a start came while it was being opened.
    return state == STREAMING_READER_STOPPED || state == STREAMING_READER_RUNNING
               ? OPAL_OK
               : OPAL_ERROR_GENERAL;
}

OPALError ReaderManager::AddReader(const std::string& url, size_t headerRequestSize,
                                   IClusterBuffer* buffer, IStreamingReaderNotify* notify,
                                   OPALStreamType type, size_t level) {
    const Reader reader(
        NewStreamingReader(url, headerRequestSize, buffer, notify, type, level, SignalOfReaders()));
    if (!reader)
        return OPAL_ERROR_GENERAL;
    m_built.push_back(reader);
    return OPAL_OK;
}

OPALError ReaderManager::SetStream(size_t index, bool open) {
    const Reader before = Current();
    if (!before)
        return NoReaderResult();
    if (index >= GetStreamCount())
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (index == GetCurrent()) {
        opal::MutexLock state(m_stateMutex);
        if (!std::exchange(m_parked, false))
            return OPAL_OK;
        ++m_generation;
        m_wakeup.NotifyAll();
        return OPAL_OK;
    }
    // Were it left running, it would fetch a cluster of its old place when it becomes current
    // again, before anyone has sought it.
    (void)before->Stop();
    {
        opal::MutexLock state(m_stateMutex);
        m_current = index;
        m_wishes = Wishes();
        ++m_stops;
        m_closing.erase(std::remove(m_closing.begin(), m_closing.end(), m_readers[index]),
                        m_closing.end());
        m_parked = false;
        AbandonOpening();
    }
    if (open) {
        opal::RecursiveLock lock(m_mutex);
        const OPALError opened = OpenNow();
        if (opened != OPAL_OK)
            return opened;
    }
    WakeThread();
    return OPAL_OK;
}

void ReaderManager::GiveUpOpening() {
    const Reader reader = Current();
    if (!reader || reader->GetState() != STREAMING_READER_NOT_OPEN)
        return;
    opal::MutexLock state(m_stateMutex);
    m_parked = true;
    m_wishes = Wishes();
    AbandonOpening();
}

void ReaderManager::AbandonOpening() {
    if (m_activity != Activity::Opening)
        return;
    m_openingGivenUp = true;
    if (m_opening)
        m_opening->SetAbandoned(true);
}

OPALError ReaderManager::DownloadNext() {
    const Reader reader = Driven();
    return reader ? reader->DownloadNext(OPAL_PLAYRATE_ONEX) : NoReaderResult();
}

OPALError ReaderManager::OpenCurrent() {
    const Reader reader = Current();
    return reader ? OpenReader(reader) : NoReaderResult();
}

OPALError ReaderManager::OpenReader(const Reader& reader) {
    if (reader->GetState() != STREAMING_READER_NOT_OPEN)
        return OPAL_OK;
    {
        opal::MutexLock state(m_stateMutex);
        if (m_openingGivenUp)
            return OPAL_ERROR_CANCELLED;
        m_opening = reader;
    }
    const OPALError opened = reader->Open();
    bool givenUp = false;
    {
        opal::MutexLock state(m_stateMutex);
        m_opening.reset();
        givenUp = m_openingGivenUp;
    }
    if (!givenUp)
        return opened;
    reader->SetAbandoned(false);
    return OPAL_ERROR_CANCELLED;
}

OPALError ReaderManager::Finalize() {
    m_stop.Raise();
    opal::RecursiveLock lock(m_mutex);
    (void)SetError(OPAL_ERROR_TERMINATED);
    WakeThread();
    lock.Unlock();
    if (m_thread.joinable())
        m_thread.join();
    lock.Lock();
    for (const Reader& reader : ReaderList())
        (void)reader->Finalize();
    std::vector<Reader> dropped;
    {
        opal::MutexLock state(m_stateMutex);
        m_readers.swap(dropped);
        m_current = kNone;
        m_wishes = Wishes();
        m_openingGivenUp = false;
        m_parked = false;
        m_closing.clear();
    }
    m_threadEnded = false;
    OnReadersDropped();
    m_stop.Lower();
    return OPAL_OK;
}

OPALError ReaderManager::Start() {
    const Reader reader = Current();
    if (!reader)
        return NoReaderResult();
    for (;;) {
        {
            opal::MutexLock state(m_stateMutex);
            if (m_activity != Activity::None) {
                m_wishes.start = true;
                ++m_generation;
                return reader->GetError();
            }
            // The thread is about to open it.
            if (reader->GetState() == STREAMING_READER_NOT_OPEN && !m_threadEnded) {
                m_wishes.start = true;
                ++m_generation;
                break;
            }
        }
        // Tried again and again, since who holds the lock may be the thread on its way into a
        // transfer, which may take a minute.
        opal::RecursiveLock lock(m_mutex, opal::DeferLock());
        if (lock.TryLock()) {
            const OPALError started = reader->Start();
            WakeThread();
            return started;
        }
        opal::SleepMs(kRetryMs);
    }
    m_wakeup.NotifyAll();
    return reader->GetError();
}

OPALError ReaderManager::Stop() {
    const Reader reader = Current();
    if (!reader)
        return NoReaderResult();
    {
        opal::MutexLock state(m_stateMutex);
        m_wishes.start = false;
        ++m_stops;
    }
    const OPALError stopped = reader->Stop();
    WakeThread();
    return stopped;
}

OPALError ReaderManager::Seek(int64_t& ms) {
    if (ms < 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    const Reader reader = Current();
    if (!reader)
        return NoReaderResult();
    for (;;) {
        if (IsBusy() || reader->GetState() == STREAMING_READER_NOT_OPEN) {
            if (reader->HasError())
                return reader->GetError();
            const int64_t asked = ms;
            const OPALError aligned = AlignTime(*reader, ms);
            if (aligned != OPAL_OK)
                return aligned;
            opal::MutexLock state(m_stateMutex);
            if (m_activity != Activity::None || reader->GetState() == STREAMING_READER_NOT_OPEN) {
                m_wishes.seek = true;
                m_wishes.seekMs = asked;
                m_wishes.clusterMs = ms;
                return OPAL_OK;
            }
        }
        opal::RecursiveLock lock(m_mutex, opal::DeferLock());
        if (lock.TryLock())
            return reader->Seek(ms);
        opal::SleepMs(kRetryMs);
    }
}

/// The time of the cluster to which a seek to `ms` leads. While a file has no index yet, that of
/// another one answers: the clusters of all levels are aligned. Without any, `ms` stays.
OPALError ReaderManager::AlignTime(IStreamingReader& reader, int64_t& ms) {
    std::vector<Reader> readers;
    {
        opal::MutexLock state(m_stateMutex);
        readers = m_readers;
    }
    IClusterIndex* index = nullptr;
    (void)reader.GetClusterIndex(index);
    for (size_t i = 0; !index && ClustersAreAligned() && i < readers.size(); ++i)
        (void)readers[i]->GetClusterIndex(index);
    if (!index)
        return OPAL_OK;
    ClusterIndexEntry entry;
    const OPALError found = index->FindByTime(ms, entry);
    if (found == OPAL_OK)
        ms = entry.time;
    return found;
}

size_t ReaderManager::GetStreamCount() {
    opal::MutexLock state(m_stateMutex);
    return m_readers.size();
}

OPALError ReaderManager::GetDuration(int64_t& ms) {
    ms = 0;
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetDuration(ms); });
}

size_t ReaderManager::GetCurrent() {
    opal::MutexLock state(m_stateMutex);
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
    {
        opal::MutexLock state(m_stateMutex);
        if (m_wishes.seek) {
            ms = m_wishes.clusterMs;
            return OPAL_OK;
        }
    }
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetPosition(ms); });
}

bool ReaderManager::HasError() {
    const Reader reader = Current();
    return reader ? reader->HasError() : GetStreamCount() != 0;
}

OPALError ReaderManager::GetError() {
    return OnCurrent([](IStreamingReader& reader) { return reader.GetError(); });
}

OPALError ReaderManager::SetError(OPALError code) {
    return OnCurrent([code](IStreamingReader& reader) { return reader.SetError(code); });
}

OPALError ReaderManager::Cancel(opal::RequestEnd reason) {
    const auto cancel = [reason](IStreamingReader& reader) {
        reader.SetCancelReason(reason);
        return reader.CancelTransfers();
    };
    // The transfer may be that of a stream that has been left.
    const Reader driven = Driven();
    if (driven && driven != Current())
        (void)cancel(*driven);
    return OnCurrent(cancel);
}

OPALError ReaderManager::GetBytesInFlight(size_t& bytes) {
    bytes = 0;
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetBytesInFlight(bytes); });
}

OPALError ReaderManager::GetBytesAhead(int64_t ms, size_t& bytes) {
    bytes = 0;
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetBytesAhead(ms, bytes); });
}

bool ReaderManager::IsTransferring() {
    opal::MutexLock state(m_stateMutex);
    return m_activity == Activity::Transferring;
}

/// A cancel that came just before a transfer had begun finds nothing to end, so it is repeated.
void ReaderManager::WaitForCancelled() {
    for (;;) {
        if (!IsTransferring()) {
            // Whoever holds the lock without a transfer opens, or lets go soon.
            opal::RecursiveLock lock(m_mutex, opal::DeferLock());
            if (lock.TryLock())
                return;
            opal::MutexLock state(m_stateMutex);
            if (m_activity == Activity::Opening)
                return;
        }
        if (const Reader reader = Driven())
            (void)reader->CancelTransfers();
        opal::SleepMs(kRetryMs);
    }
}

ReaderManager::Reader ReaderManager::Current() {
    opal::MutexLock state(m_stateMutex);
    return m_current < m_readers.size() ? m_readers[m_current] : Reader();
}

ReaderManager::Reader ReaderManager::At(size_t index) {
    opal::MutexLock state(m_stateMutex);
    return index < m_readers.size() ? m_readers[index] : Reader();
}

OPALError ReaderManager::NoReaderResult() {
    return GetStreamCount() == 0 ? OPAL_OK : OPAL_ERROR_NOT_READY;
}

ReaderManager::Reader ReaderManager::Driven() {
    {
        opal::MutexLock state(m_stateMutex);
        if (m_driven)
            return m_driven;
    }
    return Current();
}

bool ReaderManager::IsBusy() {
    opal::MutexLock state(m_stateMutex);
    return m_activity != Activity::None;
}

bool ReaderManager::IsParked() {
    opal::MutexLock state(m_stateMutex);
    return m_parked;
}

void ReaderManager::CloseBeforeNextOpening(const Reader& reader) {
    opal::MutexLock state(m_stateMutex);
    m_closing.push_back(reader);
}

void ReaderManager::WakeThread() {
    {
        opal::MutexLock state(m_stateMutex);
        ++m_generation;
    }
    m_wakeup.NotifyAll();
}
