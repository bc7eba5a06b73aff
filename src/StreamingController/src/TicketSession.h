#pragma once

#include <boost/scoped_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "Common/Mutex.h"
#include "Common/OPALError.h"
#include "Common/StopSignal.h"

class IProtectedContent;

namespace opal {

/// What is told about playback. The states are the content session's.
struct PlayReport {
    enum State : int { Started = 0, Playing = 1, Paused = 2, WritersPaused = 3, Ended = 4 };
    int state = Started;
    int64_t positionMs = 0;
    int64_t bandwidth = 0;
    int64_t audioAsset = -1;
    int64_t subtitleAsset = -1;
};

/// What is done with the content session of a ticket start. Opening blocks its caller, as a start
/// does; play reports are made by a thread of their own, in their order, so that a service that
/// takes its time holds up nothing. What the answers bring is fetched by TakeFailures.
///
/// A queue that is full drops the oldest periodic report, or else the new one.
///
/// Threading: any operation from any thread but, before StartReports and after Finish, only the one
/// that builds or ends the session.
/// Ownership: refers to the controller's content session, which stays until Finish.
/// Errors: the content session's.
class TicketSession {
  public:
    /// Of a report that the service refused; the text is as the service gave it.
    struct Failure {
        OPALError code = OPAL_OK;
        std::string text;
    };

    explicit TicketSession(boost::scoped_ptr<IProtectedContent>& content) : m_content(content) {}
    ~TicketSession() { Finish(); }

    /// Whether there is a content session; `*session` is what the log's sender uploads under.
    OPALError Prepare(const std::string& sessionData, void** session);
    /// Begins the content session and resolves the ticket. `trace` is told of each step; `begun`
    /// says whether the failure, if there is one, is the ticket's.
    OPALError Open(const std::string& tixString, const std::string& sessionData,
                   const std::string& country, const std::string& language,
                   const std::function<void(const char*)>& trace, std::string& assetId,
                   bool& begun);
    /// Puts the service's settings of the switching algorithm in place.
    OPALError TakeAlgorithmSettings();
    /// Switches play reports on, at the interval that the service wants.
    OPALError SetupStream();
    /// From now on Report is answered by a thread. `stop` ends the call that runs, and what is
    /// still queued then is dropped; it outlives this object.
    void StartReports(const StopSignal* stop);
    bool IsReporting() const;
    void Report(const PlayReport& report);
    std::vector<Failure> TakeFailures();
    /// Makes the reports that are still queued, unless the signal is raised, and ends the thread.
    /// TakeFailures has the last answers.
    void Finish();

    /// The service's words for an error of the service's; else empty.
    std::string ErrorText(OPALError code) const;
    /// What the service prefers; 0 without a content session.
    int64_t PreferredAudioAsset() const;
    int64_t PreferredSubtitleAsset() const;

  private:
    void Run();
    void RememberText();

    boost::scoped_ptr<IProtectedContent>& m_content;
    const StopSignal* m_pStop = nullptr;
    boost::thread m_thread;
    mutable Mutex m_mutex;
    CondVar m_changed;
    std::deque<PlayReport> m_queue OPAL_GUARDED_BY(m_mutex);
    std::vector<Failure> m_failures OPAL_GUARDED_BY(m_mutex);
    std::string m_lastText OPAL_GUARDED_BY(m_mutex);
    int64_t m_audioAsset OPAL_GUARDED_BY(m_mutex) = 0;
    int64_t m_subtitleAsset OPAL_GUARDED_BY(m_mutex) = 0;
    bool m_reporting OPAL_GUARDED_BY(m_mutex) = false;
};

}  // namespace opal
