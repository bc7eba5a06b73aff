#include "opal-play/Player.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "TvSet.h"
#include "opal-play/LogFile.h"
#include "opal-play/MonotonicTime.h"
#include "opal-play/Rates.h"

namespace opal::play {
namespace {

constexpr int kTurnMs = 20;
constexpr int64_t kKeyJumpMs = 10000;
// The listener hears of the end up to half a second before the last picture.
constexpr int64_t kTailQuietMs = 500;
constexpr int64_t kTailLimitMs = 2000;

OPALWriterModel Model(const Options& options) {
    return options.pull ? OPAL_WRITER_MODEL_PULL : OPAL_WRITER_MODEL_PUSH;
}

void SetUpTheSet(const Options& options) {
    tvset::Options set;
    set.decoding = options.passThrough ? tvset::Decoding::PassThrough : tvset::Decoding::Libav;
    set.video = options.window ? tvset::VideoOutput::Window : tvset::VideoOutput::Headless;
    set.audio = options.sound ? tvset::AudioOutput::Device : tvset::AudioOutput::Silent;
    tvset::Configure(set);
}

}  // namespace

Player::Player(const Options& options, Console& console, int64_t startedMs)
    : m_options(options),
      m_console(console),
      m_startedMs(startedMs),
      m_snapshots(m_wake, options.snapshotFolder, options.snapshotsAtMs),
      m_pull(options.blocksFile) {}

Player::~Player() {
    Close();
}

int Player::Run() {
    CatchSignals(m_wake);
    SetUpTheSet(m_options);
    m_recording.Start(m_options.recordFile, m_options.livePort, m_options.url);
    if (!m_recording.LiveUrl().empty())
        m_console.Line("live report: " + m_recording.LiveUrl());
    if (SetSessionObserver(&m_observer) != OPAL_OK)
        throw std::runtime_error("no memory to observe the session");
    if (!m_options.logFile.empty())
        WriteLogsTo(m_options.logFile);
    m_controller.reset(NewStreamingController());
    (void)m_controller->SetNotify(&m_listener);
    m_commands =
        std::make_unique<Commands>([this](const Commands::Command& command, OPALError code) {
            Notice notice;
            notice.kind = command.name.empty() ? Notice::Kind::Opened : Notice::Kind::Failed;
            notice.value = code;
            notice.text = command.name;
            if (command.name.empty() || code != OPAL_OK)
                m_listener.Post(std::move(notice));
        });
    Submit("", [this] { return Open(); });
    while (!m_finished) {
        if (m_wake.Wait(m_keyboard.Fd(), kTurnMs)) {
            for (const KeyPress& press : m_keyboard.Read())
                HandleKey(press);
        }
        Turn();
    }
    Summary summary = Summarise();
    for (size_t i = m_errors.size(); i < summary.errors.size(); ++i)
        m_console.Error(m_options.url + ": " + summary.errors[i]);
    Close();
    if (m_options.strict)
        summary.faults = FindFaults(summary);
    if (m_options.verify)
        TellVerification(summary);
    CheckFile(m_options.blocksFile, m_pull.IsWritten(), summary);
    CheckFile(m_options.logFile, m_options.logFile.empty() || EndLog(), summary);
    CheckFile(m_options.recordFile, m_recording.End(ExitCodeOf(summary), SummaryJson(summary)),
              summary);
    m_console.Print(m_options.json ? SummaryJson(summary) : SummaryText(summary));
    for (const std::string& fault : summary.faults)
        m_console.Error(m_options.url + ": " + fault);
    if (m_console.AllWritten())
        return ExitCodeOf(summary);
    m_console.Error("standard output cannot be written");
    return kExitError;
}

void Player::CheckFile(const std::string& file, bool written, Summary& summary) {
    if (written)
        return;
    summary.errors.push_back(file + " cannot be written");
    m_console.Error(summary.errors.back());
}

/// To standard error where the summary is to be read by a program.
void Player::TellVerification(Summary& summary) {
    for (const std::string& line : m_verification.Report()) {
        if (m_options.json)
            m_console.Error(line);
        else
            m_console.Line(line);
    }
    if (!m_options.strict)
        return;
    for (const std::string& fault : m_verification.Faults())
        summary.faults.push_back(fault);
}

OPALError Player::Open() {
    if (m_options.verify)
        m_verification.Attach(m_options.url);
    const OPALError code =
        m_options.ticket.empty()
            ? m_controller->InitializeFromSMILFile(m_options.url, m_options.country,
                                                   m_options.language, Model(m_options))
            : m_controller->InitializeFromTIXString(m_options.ticket, m_options.session,
                                                    m_options.country, m_options.language,
                                                    Model(m_options));
    if (code != OPAL_OK)
        return code;
    return m_options.startMs > 0 ? m_controller->Resume(m_options.startMs) : m_controller->Play();
}

void Player::Submit(const std::string& name, std::function<OPALError()> run, bool replaces) {
    m_commands->Post({name, std::move(run), replaces});
}

void Player::Close() {
    m_pull.Stop();
    m_verification.GiveUp();
    if (m_commands) {
        // Finalize ends a command that still waits for the network; it may only be on its way
        // there.
        m_commands->Close();
        do {
            (void)m_controller->Finalize();
        } while (!m_commands->WaitIdle(kTurnMs));
    }
    m_commands.reset();
    m_controller.reset();
    (void)SetSessionObserver(nullptr);
}

void Player::Turn() {
    Notice notice;
    while (!m_finished && m_listener.Take(notice))
        Handle(notice);
    if (CaughtSignal() != 0)
        Finish(Outcome::Signal);
    if (m_finished)
        return;
    Account();
    m_recording.AddFiguresWhenDue();
    CheckFirstPicture();
    TakeSnapshots();
    PerformDueActions();
    CheckTail();
    CheckLimits();
    ShowProgress();
}

void Player::Finish(Outcome outcome) {
    if (m_finished)
        return;
    m_place.positionMs = PositionMs();
    m_endedMs = MonotonicMs();
    m_finished = true;
    m_outcome = outcome;
}

void Player::Fail(const std::string& text) {
    m_errors.push_back(text);
    m_console.Error(m_options.url + ": " + text);
}

/// A flush that fails because of a mismatch is what was asked for, and no error beside it.
void Player::FailWith(const std::string& text, OPALError code) {
    if (code != OPAL_ERROR_GENERAL || !m_options.verify || !m_verification.FlushFailed())
        return Fail(text.empty() ? WhyText(code) : text + ": " + WhyText(code));
    m_console.Line((text.empty() ? "playback" : text) + " ends with a flush that failed");
    Finish(Outcome::FlushFailed);
}

void Player::Handle(const Notice& notice) {
    using Kind = Notice::Kind;
    switch (notice.kind) {
        case Kind::Opened:
            return HandleOpened(static_cast<OPALError>(notice.value));
        case Kind::Failed:
            return FailWith(notice.text, static_cast<OPALError>(notice.value));
        case Kind::Play:
        case Kind::Rate:
            return HandlePlaying(static_cast<OPALPlayRate>(notice.value));
        case Kind::Pause:
            m_state = State::Paused;
            m_pace.Interrupt();
            return;
        case Kind::Stop:
            m_state = State::Stopped;
            return;
        case Kind::EndOfStream:
            return HandleEndOfStream();
        case Kind::AudioTrack:
            return m_console.Line("audio track " + std::to_string(notice.value));
        case Kind::SubtitleTrack:
            m_console.Line(notice.value < 0 ? std::string("subtitles off")
                                            : "subtitle track " + std::to_string(notice.value));
            // Playback paused while the track was opened, and goes on without a word.
            if (m_state == State::Paused && !m_pauseWanted)
                HandlePlaying(m_rate);
            return;
        case Kind::Underflow:
            ++m_underflows;
            m_state = State::Buffering;
            m_starved = true;
            m_pace.Interrupt();
            return m_console.Line("underflow at " + TimeText(PositionMs()));
        case Kind::Level:
            return HandleLevel(notice);
        case Kind::Position:
            return HandlePosition(notice);
        case Kind::Subtitle:
            return m_console.Line("subtitle at " + TimeText(notice.value) + ": " + notice.text);
        case Kind::Error: {
            const OPALError code = static_cast<OPALError>(notice.value);
            FailWith(notice.text, code);
            if (code != OPAL_ERROR_AUDIO_UNSUPPORTED)
                Finish(Outcome::Error);
            return;
        }
    }
}

void Player::HandleOpened(OPALError code) {
    if (code != OPAL_OK) {
        // A reader's failure may have been told already, with the same code.
        if (m_errors.empty())
            Fail(WhyText(code));
        return Finish(Outcome::Error);
    }
    m_opened = true;
    (void)m_controller->GetDuration(m_durationMs);
    for (size_t i = 0; i < m_controller->GetVideoLevelCount(); ++i) {
        VideoLevelInfo info;
        (void)m_controller->GetVideoLevelInfo(i, info);
        m_levels.push_back({info.bitrate, info.width, info.height});
    }
    if (m_state == State::Opening)
        Jumped(m_options.startMs, State::Buffering);
    m_tracks.Read(*m_controller);
    m_console.Line(m_tracks.Text());
    if (m_options.pull)
        m_pull.Start(*m_controller, [this](OPALError failure) {
            Notice notice;
            notice.kind = Notice::Kind::Error;
            notice.value = failure;
            notice.text = "pulling a block";
            m_listener.Post(std::move(notice));
        });
    size_t audio = 0;
    size_t subtitle = 0;
    (void)m_controller->GetDefaultTracks(audio, subtitle);
    if (m_options.audioTrack >= 0)
        audio = static_cast<size_t>(m_options.audioTrack);
    if (audio != 0 && m_tracks.AudioCount() != 0)
        Perform({0, Action::Kind::Audio, static_cast<int64_t>(audio)});
    ChooseSubtitles();
}

void Player::ChooseSubtitles() {
    int64_t track = m_options.subtitleTrack;
    const std::string& wanted = m_options.subtitleLanguage;
    if (!wanted.empty()) {
        track = m_tracks.SubtitlesIn(wanted);
        if (track < 0)
            return Fail("no subtitles in '" + wanted + "'");
    }
    if (track >= 0)
        Perform({0, Action::Kind::Subtitle, track});
}

void Player::HandlePlaying(OPALPlayRate rate) {
    if (m_pauseWanted)  // rebuffering is over, and goes on playing by itself
        Submit("pause", [this] { return m_controller->Pause(); });
    m_rate = rate;
    m_starved = false;
    m_place.told = false;
    m_state = rate == OPAL_PLAYRATE_ONEX ? State::Playing : State::Trick;
    m_snapshots.SetLive(m_state == State::Playing);
    m_pull.SetSpeed(RateSpeed(rate));
    m_pace.Interrupt();
    m_place.atMs = MonotonicMs();
    m_place.picturesBefore = tvset::GetStatistics().framesShown;
    if (m_playedSinceMs < 0)
        m_playedSinceMs = m_place.atMs;
}

void Player::HandleLevel(const Notice& notice) {
    if (m_levelTold) {
        ++m_levelChanges;
        m_console.Line("level " + std::to_string(notice.from.index + 1) + " to " +
                       std::to_string(notice.to.index + 1) + " of " +
                       std::to_string(notice.levelCount) + ": " + std::to_string(notice.to.width) +
                       "x" + std::to_string(notice.to.height) + " " +
                       BitrateText(notice.to.bitrate));
    }
    m_levelTold = true;  // the first one tells the level to start with
}

void Player::HandlePosition(const Notice& notice) {
    if (m_state != State::Playing && m_state != State::Trick)
        return;  // of before a jump
    m_place.positionMs = notice.value;
    m_place.atMs = MonotonicMs();
    m_place.told = true;
    if (notice.level < m_levels.size())
        m_level = notice.level;
    if (m_state == State::Playing)
        m_pace.Report(m_place.positionMs, m_place.atMs);
}

void Player::HandleEndOfStream() {
    if (RateSpeed(m_rate) < 0) {
        // Back at the start: a television goes on forward from there.
        m_console.Line("back at the start");
        return SetRate(OPAL_PLAYRATE_ONEX);
    }
    m_state = State::Ending;
    m_tail.sinceMs = MonotonicMs();
    m_endedMs = m_tail.sinceMs;
}

void Player::HandleKey(const KeyPress& press) {
    using Kind = Action::Kind;
    if (press.key == Key::Character && press.character == 'q')
        return Finish(Outcome::Quit);
    if (!m_opened)
        return;
    if (press.key == Key::Left || press.key == Key::Right)
        return SeekTo(PositionMs() + (press.key == Key::Right ? kKeyJumpMs : -kKeyJumpMs));
    if (press.key == Key::Up || press.key == Key::Down)
        return SetRate(NextRate(m_rate, press.key == Key::Up));
    if (press.key != Key::Character)
        return;
    const char c = press.character;
    if (c == ' ')
        Perform({0, m_state == State::Paused ? Kind::Play : Kind::Pause, 0});
    else if (c >= '0' && c <= '9')
        SeekTo(m_durationMs * (c - '0') / 10);
    else if (c == 'a' && m_tracks.AudioCount() > 0)
        Perform({0, Kind::Audio,
                 static_cast<int64_t>((m_controller->GetCurrentAudioTrack() + 1) %
                                      m_tracks.AudioCount())});
    else if (c == 's' && m_tracks.SubtitleCount() > 0)
        Perform({0, Kind::Subtitle, m_tracks.NextSubtitles(m_subtitle)});
    else if (c == 'p' && !m_options.snapshotFolder.empty())
        Perform({0, Kind::Snapshot, 0});
}

void Player::Perform(const Action& action) {
    using Kind = Action::Kind;
    std::string error;
    switch (action.kind) {
        case Kind::Seek:
            return SeekTo(action.value);
        case Kind::Rate:
            return SetRate(static_cast<OPALPlayRate>(action.value));
        case Kind::Pause:
            m_pauseWanted = true;
            return Submit("pause", [this] { return m_controller->Pause(); });
        case Kind::Play:
            m_pauseWanted = false;
            m_state = State::Buffering;
            return Submit("play", [this] { return m_controller->Play(); });
        case Kind::Stop:
            m_jumped = true;
            return Submit("stop", [this] { return m_controller->Stop(); });
        case Kind::Audio:
            m_jumped = true;
            return Submit("audio track " + std::to_string(action.value), [this, action] {
                return m_controller->SetAudioTrack(static_cast<size_t>(action.value));
            });
        case Kind::Subtitle:
            m_subtitle = action.value;
            return Submit("subtitle track " + std::to_string(action.value), [this, action] {
                return m_controller->SetSubtitleTrack(static_cast<size_t>(action.value));
            });
        case Kind::Snapshot:
            if (!m_snapshots.TakeNow(PositionMs(), error))
                Fail(error);
            return;
        case Kind::Quit:
            return Finish(Outcome::Quit);
    }
}

void Player::PerformDueActions() {
    while (!m_finished && m_opened && m_playedSinceMs >= 0 &&
           m_nextAction < m_options.actions.size() &&
           MonotonicMs() - m_playedSinceMs >= m_options.actions[m_nextAction].atMs)
        Perform(m_options.actions[m_nextAction++]);
}

void Player::SeekTo(int64_t positionMs) {
    const int64_t wanted = std::clamp<int64_t>(positionMs, 0, std::max<int64_t>(m_durationMs, 0));
    Jumped(wanted, State::Buffering);
    const auto seek = [this, wanted] {
        int64_t position = wanted;
        return m_controller->Seek(position);
    };
    Submit("seek to " + TimeText(wanted), seek, true);
}

void Player::SetRate(OPALPlayRate rate) {
    Jumped(PositionMs(), State::Buffering);
    m_rate = rate;
    Submit("rate " + RateText(rate) +
               (rate == OPAL_PLAYRATE_ONEX ? "" : ", which needs a trick track"),
           [this, rate] { return m_controller->SetPlayRate(rate); });
}

/// The position is what was asked for until the library tells where it landed.
void Player::Jumped(int64_t positionMs, State state) {
    m_snapshots.SetLive(false);
    m_jumped = m_jumped || m_state != State::Opening || positionMs > 0;
    m_pauseWanted = false;
    m_starved = false;
    m_state = state;
    m_place.positionMs = positionMs;
    m_place.atMs = MonotonicMs();
    m_pace.Interrupt();
}

bool Player::MoreToCome() const {
    return m_nextAction < m_options.actions.size() || m_keyboard.Fd() >= 0;
}

void Player::CheckLimits() {
    const int64_t now = MonotonicMs();
    if (m_options.timeLimitMs > 0 && now - m_startedMs >= m_options.timeLimitMs)
        Finish(Outcome::TimeLimit);
    else if (m_options.pictureLimit > 0 &&
             tvset::GetStatistics().framesShown >= m_options.pictureLimit)
        Finish(Outcome::PictureLimit);
    else if (m_state == State::Stopped && !MoreToCome())
        Finish(Outcome::Quit);
}

void Player::CheckFirstPicture() {
    if (m_firstPictureTold)
        return;
    const tvset::Statistics set = tvset::GetStatistics();
    if (set.firstPictureMs < 0)
        return;
    m_firstPictureTold = true;
    char text[128];
    std::snprintf(text, sizeof text, "first picture after %.3f s",
                  static_cast<double>(set.firstPictureMs - m_startedMs) / 1000);
    m_console.Line(text);
}

/// What is still on its way to the screen when the end is told belongs to the film.
void Player::CheckTail() {
    if (m_state != State::Ending)
        return;
    const int64_t now = MonotonicMs();
    const tvset::Statistics set = tvset::GetStatistics();
    if (set.framesShown != m_tail.pictures) {
        m_tail.pictures = set.framesShown;
        m_tail.sinceMs = now;
        m_place.positionMs = std::max<int64_t>(m_place.positionMs, set.shownPts);
    }
    const bool quiet = set.firstPictureMs >= 0 && now - m_tail.sinceMs >= kTailQuietMs;
    if ((quiet || now - m_endedMs >= kTailLimitMs) && m_nextAction >= m_options.actions.size())
        Finish(Outcome::EndOfStream);
}

void Player::TakeSnapshots() {
    std::string error;
    if (!m_snapshots.TakeDue(error))
        Fail(error);
}

void Player::Account() {
    Viewing::State state = Viewing::State::Other;
    if (m_state == State::Playing || m_state == State::Trick)
        state = Viewing::State::Watching;
    else if (m_state == State::Buffering && m_starved)
        state = Viewing::State::Stalled;
    m_viewing.Account(MonotonicMs(), state, m_level);
}

std::string Player::WhyText(OPALError code) {
    return ErrorText(code, m_observer.FailureBehind(code));
}

}  // namespace opal::play
