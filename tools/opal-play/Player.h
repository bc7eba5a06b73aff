#pragma once

#include <memory>
#include <string>
#include <vector>

#include "StreamingController/IStreamingController.h"
#include "opal-play/Commands.h"
#include "opal-play/Console.h"
#include "opal-play/Keyboard.h"
#include "opal-play/Listener.h"
#include "opal-play/Observer.h"
#include "opal-play/Options.h"
#include "opal-play/Pace.h"
#include "opal-play/PullLoop.h"
#include "opal-play/Report.h"
#include "opal-play/SessionRecording.h"
#include "opal-play/Snapshots.h"
#include "opal-play/Tracks.h"
#include "opal-play/Verification.h"
#include "opal-play/Viewing.h"

namespace opal::play {

/// Plays one presentation as the command line says.
///
/// Threading: Run is the main loop, the only thread that touches this object's state. It asks the
/// library for figures and ends the session; what changes the session goes through m_commands, and
/// the pull model has a loop of its own.
class Player {
  public:
    /// `startedMs`: when the program started, on the monotonic clock. Throws std::runtime_error
    /// when a file or folder cannot be made.
    Player(const Options& options, Console& console, int64_t startedMs);
    ~Player();

    /// The exit code.
    int Run();

  private:
    /// Where playback is.
    struct Place {
        int64_t positionMs = 0;       ///< last known ...
        int64_t atMs = 0;             ///< ... at this time
        bool told = false;            ///< by the library, since playback last started
        uint64_t picturesBefore = 0;  ///< shown before playback last started
    };
    /// Behind the end: pictures shown, and since when none came.
    struct Tail {
        uint64_t pictures = 0;
        int64_t sinceMs = 0;
    };
    enum class State { Opening, Buffering, Playing, Trick, Paused, Stopped, Ending };

    OPALError Open();
    void Submit(const std::string& name, std::function<OPALError()> run, bool replaces = false);
    void Close();
    void Turn();
    void Finish(Outcome outcome);

    void Handle(const Notice& notice);
    void HandleOpened(OPALError code);
    void ChooseSubtitles();
    void HandlePlaying(OPALPlayRate rate);
    void HandleLevel(const Notice& notice);
    void HandlePosition(const Notice& notice);
    void HandleEndOfStream();
    void HandleKey(const KeyPress& press);
    void Perform(const Action& action);
    void PerformDueActions();
    void SeekTo(int64_t positionMs);
    void SetRate(OPALPlayRate rate);
    void Jumped(int64_t positionMs, State state);
    void CheckLimits();
    void CheckFirstPicture();
    void CheckTail();
    bool MoreToCome() const;
    void ShowProgress();
    void TakeSnapshots();
    void Account();
    void TellVerification(Summary& summary);
    void CheckFile(const std::string& file, bool written, Summary& summary);

    void Fail(const std::string& text);
    void FailWith(const std::string& text, OPALError code);
    std::string WhyText(OPALError code);
    std::string StateText() const;
    int64_t PositionMs() const;
    Summary Summarise() const;

    const Options m_options;
    Console& m_console;
    const int64_t m_startedMs;
    Wake m_wake;
    Keyboard m_keyboard;
    Listener m_listener{m_wake};
    Snapshots m_snapshots;
    Verification m_verification;
    PullLoop m_pull;
    Observer m_observer;
    SessionRecording m_recording{m_observer};
    std::unique_ptr<IStreamingController> m_controller;
    std::unique_ptr<Commands> m_commands;

    State m_state = State::Opening;
    OPALPlayRate m_rate = OPAL_PLAYRATE_ONEX;  ///< asked for
    bool m_opened = false;
    bool m_finished = false;
    Outcome m_outcome = Outcome::Error;
    std::vector<std::string> m_errors;
    size_t m_nextAction = 0;
    int64_t m_playedSinceMs = -1;  ///< when playback first started
    int64_t m_endedMs = -1;        ///< when playback was over
    int64_t m_durationMs = 0;
    Place m_place;
    Pace m_pace;
    Viewing m_viewing;
    bool m_pauseWanted = false;  ///< the user's last word was to pause
    bool m_starved = false;      ///< playback stands for want of data
    bool m_jumped = false;       ///< not played straight through
    Tracks m_tracks;
    int64_t m_subtitle = -1;  ///< track asked for
    size_t m_level = static_cast<size_t>(-1);
    std::vector<Level> m_levels;
    bool m_levelTold = false;
    uint64_t m_levelChanges = 0;
    uint64_t m_underflows = 0;
    bool m_firstPictureTold = false;
    int64_t m_lastProgressMs = 0;
    bool m_statsRefused = false;
    Tail m_tail;
};

}  // namespace opal::play
