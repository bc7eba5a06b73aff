#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Common/OPALError.h"
#include "opal-play/NetworkFigures.h"

namespace opal::play {

enum ExitCode : int {
    kExitDone = 0,
    kExitError = 1,
    kExitUsage = 2,
    kExitStrict = 3,
    kExitSignal = 4
};

enum class Outcome { EndOfStream, TimeLimit, PictureLimit, Quit, Error, FlushFailed, Signal };

struct Level {
    uint32_t bitrate = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

/// What the progress line shows.
struct Status {
    std::string state;
    int64_t positionMs = 0;
    int64_t durationMs = 0;
    size_t level = static_cast<size_t>(-1);  ///< (size_t)-1: not known
    size_t levelCount = 0;
    Level levelInfo;
    int64_t leftMs = -1;  ///< real time to the end at this rate; negative: not known
    int64_t bufferedMs = 0;
    int64_t linkBitsPerSecond = 0;
    bool linkTooFast = false;  ///< to measure
};

struct Snapshot {
    int64_t atMs = 0;  ///< media time
    std::string file;
};

/// What is known when all is over.
struct Summary {
    std::string url;
    Outcome outcome = Outcome::Error;
    std::vector<std::string> errors;
    int64_t startupMs = -1;  ///< from the program's start to the first picture; -1 without one
    int64_t positionMs = 0;
    int64_t durationMs = 0;
    int64_t realMs = 0;
    double pace = 0;
    bool jumped = false;  ///< not played straight through: what was pushed may rightly not be shown
    int64_t stalledMs = 0;
    std::vector<Level> levels;
    std::vector<int64_t> watchedMs;  ///< by level, as far as there was any
    uint64_t videoUnits = 0;         ///< that the television was given
    uint64_t audioUnits = 0;
    int64_t lastShownMs = 0;
    uint64_t framesDecoded = 0;
    uint64_t framesShown = 0;
    uint64_t framesDropped = 0;
    uint64_t decodeErrors = 0;
    int64_t longestGapMs = 0;  ///< media time between two pictures shown one after the other ...
    int64_t gapEndMs = 0;      ///< ... and the time of the second
    uint64_t audioPlayedMs = 0;
    uint64_t underflows = 0;
    uint64_t levelChanges = 0;
    uint64_t pulledVideoBlocks = 0;
    uint64_t pulledAudioBlocks = 0;
    bool pull = false;
    NetworkFigures network;
    std::vector<Snapshot> snapshots;
    std::vector<std::string> faults;  ///< what --strict found; empty without it
};

/// "1:02.5"
std::string TimeText(int64_t ms);
/// "2.50 Mbit/s"
std::string BitrateText(int64_t bitsPerSecond);
/// What an error of the library means and what can be done, for a person.
std::string ErrorText(OPALError code);
/// The same where a media file is the cause: names it.
std::string ErrorText(OPALError code, const MediaFailure& failure);
/// Bits per second over the time watched; 0 where none was.
int64_t MeanBitrate(const Summary& summary);

/// As many of its parts as fit into `width` bytes.
std::string ProgressText(const Status& status, size_t width);
/// Lines of key figures, to be laid over the picture. `shown` and `dropped`: pictures.
std::string StatsText(const Status& status, const LiveFigures& live, uint64_t shown,
                      uint64_t dropped);
std::string SummaryText(const Summary& summary);
std::string SummaryJson(const Summary& summary);

/// What is not as it should be when a film is played from start to end.
std::vector<std::string> FindFaults(const Summary& summary);
int ExitCodeOf(const Summary& summary);

}  // namespace opal::play
