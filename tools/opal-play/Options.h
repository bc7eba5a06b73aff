#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace opal::play {

/// What a user can have done at a given time or by a key.
struct Action {
    enum class Kind { Seek, Rate, Pause, Play, Stop, Audio, Subtitle, Snapshot, Quit };

    int64_t atMs = 0;  ///< since playback first started, real time
    Kind kind = Kind::Quit;
    int64_t value = 0;  ///< Seek: ms; Rate: OPALPlayRate; Audio, Subtitle: track, -1 off
};

struct Options {
    std::string url;     ///< for a ticket only what it is called in messages
    std::string ticket;  ///< empty: the start is from the URL
    std::string session;
    std::string country = "US";
    std::string language = "en";
    bool pull = false;
    std::string blocksFile;  ///< pull model: a line for each block goes here
    bool window = false;
    bool sound = false;
    bool passThrough = false;  ///< the television decodes nothing
    int64_t startMs = 0;
    int64_t timeLimitMs = 0;  ///< 0: none
    uint64_t pictureLimit = 0;
    int64_t audioTrack = 0;
    int64_t subtitleTrack = -1;
    std::string subtitleLanguage;  ///< if not empty: the first track of it instead
    std::vector<Action> actions;   ///< by time
    std::string snapshotFolder;
    std::vector<int64_t> snapshotsAtMs;  ///< media times, rising
    std::string logFile;                 ///< of the session's log events; empty: none
    int livePort = -1;                   ///< of the page fed live; 0: any; negative: none
    std::string recordFile;              ///< of the session's events; empty: none
    std::string outputFile = "/dev/null";
    bool stats = false;  ///< key figures over the picture and on the terminal
    bool verbose = false;
    bool json = false;
    bool strict = false;
    bool verify = false;
};

/// A wrong command line; the text says what is wrong.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// "5", "5s", "2.5s", "1500ms", "1:20" or "1:02:03" in milliseconds.
int64_t ParseTime(const std::string& text);
/// "5s:seek=20" and the like.
Action ParseAction(const std::string& text);

/// False when there is nothing to play: help was asked for or the command line is wrong. It is then
/// printed, and `exitCode` set. `display`: whether a window could be opened.
bool ParseCommandLine(int argc, char** argv, bool display, Options& options, int& exitCode);

}  // namespace opal::play
