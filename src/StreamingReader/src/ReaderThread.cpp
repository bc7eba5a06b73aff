// The thread of a reader manager: opens the current reader and transfers from it, in rounds.
#include <exception>
#include <new>
#include <utility>

#include "Common/Clock.h"
#include "Common/StreamingTuning.h"
#include "StreamingReader/ReaderManager.h"

namespace {

constexpr int64_t kPollMs = StreamingTuning::GetReaderPoll();

}  // namespace

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

uint64_t ReaderManager::Generation() {
    opal::MutexLock state(m_stateMutex);
    return m_generation;
}

void ReaderManager::ThreadMain() {
    try {
        (void)EventLoop();
    } catch (const std::exception&) {
        (void)SetError(OPAL_ERROR_GENERAL);
        m_threadEnded = true;
    }
}

OPALError ReaderManager::EventLoop() {
    for (;;) {
        opal::SleepMs(kPollMs);
        opal::RecursiveLock lock(m_mutex);
        OPALError result = OPAL_OK;
        bool ended = !HasError() && RunRound(result);
        if (!ended && HasError()) {
            result = GetError();
            ended = true;
        }
        if (ended) {
            lock.Unlock();
            m_threadEnded = true;
            return result;
        }
    }
}

/// One turn of the loop. True ends the loop with `result`.
bool ReaderManager::RunRound(OPALError& result) {
    // Taken before anything is looked at, so that no wake is missed.
    const uint64_t generation = Generation();
    const Reader reader = Current();
    if (!reader) {
        result = NoReaderResult();
        return result != OPAL_OK;
    }
    int state = reader->GetState();
    if (state == STREAMING_READER_NOT_OPEN) {
        if (IsParked()) {
            WaitForWake(generation);
            return false;
        }
        if (Open(result))
            return true;
        if (Current() != reader)
            return false;
        state = reader->GetState();  // what was opened may start at once
    }
    switch (state) {
        case STREAMING_READER_STOPPED:
        case STREAMING_READER_END:
            WaitForWake(generation);
            return false;
        case STREAMING_READER_RUNNING:
            return Download(reader, result);
        default:
            return false;
    }
}

bool ReaderManager::Open(OPALError& result) {
    result = OpenNow();
    if (result == OPAL_OK)
        return false;
    {
        opal::MutexLock state(m_stateMutex);
        if (m_openingGivenUp)
            return false;
    }
    // The failure may be that of a level below the current one.
    if (!HasError())
        (void)SetError(result);
    return true;
}

/// Opens the current reader on the calling thread and does what was asked of it meanwhile.
OPALError ReaderManager::OpenNow() {
    std::vector<Reader> closing;
    {
        opal::MutexLock state(m_stateMutex);
        m_activity = Activity::Opening;
        m_openingGivenUp = false;
        closing.swap(m_closing);
    }
    OPALError result = OPAL_OK;
    try {
        for (const Reader& reader : closing)
            (void)reader->Finalize();
        result = OpenCurrent();
    } catch (const std::bad_alloc&) {
        result = OPAL_ERROR_NO_MEMORY;
    } catch (const std::exception&) {
        result = OPAL_ERROR_GENERAL;
    }
    const bool givenUp = EndActivity();
    const OPALError granted = result == OPAL_OK || givenUp ? GrantWishes() : OPAL_OK;
    return result != OPAL_OK ? result : granted;
}

/// Does for the current reader what was asked while the network had the thread.
OPALError ReaderManager::GrantWishes() {
    const Reader reader = Current();
    if (!reader || reader->GetState() == STREAMING_READER_NOT_OPEN)
        return OPAL_OK;
    Wishes wishes;
    uint64_t stops = 0;
    {
        opal::MutexLock state(m_stateMutex);
        std::swap(wishes, m_wishes);
        stops = m_stops;
    }
    OPALError result = OPAL_OK;
    if (wishes.seek)
        result = reader->Seek(wishes.seekMs);
    if (result != OPAL_OK || !wishes.start)
        return result;
    (void)reader->Start();
    opal::MutexLock state(m_stateMutex);
    if (stops != m_stops)  // the stop was later than the wish
        (void)reader->Stop();
    return OPAL_OK;
}

bool ReaderManager::Download(const Reader& reader, OPALError& result) {
    uint64_t generation = 0;
    if (!BeginTransfer(reader, generation))
        return false;
    try {
        result = DownloadNext();
    } catch (const std::bad_alloc&) {
        result = OPAL_ERROR_NO_MEMORY;
    } catch (const std::exception&) {
        result = OPAL_ERROR_GENERAL;
    }
    (void)EndActivity();
    // What ends the transfer of a stream that has been left is nobody's error.
    if (IsFatalError(result) && Current() == reader) {
        (void)reader->SetError(result);
        return true;
    }
    const OPALError granted = GrantWishes();
    if (granted != OPAL_OK) {
        result = granted;
        (void)SetError(result);
        return true;
    }
    if (IsWaitError(result))
        WaitForWake(generation);
    return false;
}

/// False if another reader has become current, or the reader has been stopped. `generation` is the
/// count of wakes from which a wait after the transfer starts: a wake that comes while the transfer
/// runs counts, one that came before does not.
bool ReaderManager::BeginTransfer(const Reader& reader, uint64_t& generation) {
    opal::MutexLock state(m_stateMutex);
    if (m_current >= m_readers.size() || m_readers[m_current] != reader ||
        reader->GetState() != STREAMING_READER_RUNNING)
        return false;
    m_activity = Activity::Transferring;
    m_driven = reader;
    generation = m_generation;
    return true;
}

/// True if an opening was given up.
bool ReaderManager::EndActivity() {
    opal::MutexLock state(m_stateMutex);
    m_activity = Activity::None;
    m_driven.reset();
    return m_openingGivenUp;
}

/// To be called with m_mutex locked once. It is free meanwhile.
void ReaderManager::WaitForWake(uint64_t generation) {
    const opal::RecursiveUnlock unlocked(m_mutex);
    opal::MutexLock state(m_stateMutex);
    while (m_generation == generation)
        m_wakeup.Wait(m_stateMutex);
}
