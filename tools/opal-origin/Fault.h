#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace opal::origin {

/// Positions of a fault in the reply's body.
constexpr int64_t kNever = -1;
constexpr int64_t kBeforeHead = -2;  ///< not even the status line is sent
/// Length of a stall that only a release, the client or Stop() ends.
constexpr int64_t kForever = -1;

enum class Method { Any, Get, Head };

/// One rule of the fault script: which requests it strikes, and what happens to them. The first
/// rule in the order of adding that matches a request strikes it, and no other. The effects are
/// independent of each other and may be combined; a rule without effect lets a request pass.
///
/// Units: positions and lengths in bytes of the body as sent (a multipart reply's part heads are
/// body), times in milliseconds.
///
/// Pattern: a glob over the path without query; '*' stands for any characters, '/' included, '?'
/// for one. A pattern that begins with neither '/' nor '*' matches in any folder ("a.mkv" means
/// "*/a.mkv"). The empty pattern matches every path.
struct Fault {
    // Which requests.
    std::string pattern;
    Method method = Method::Any;
    int64_t rangeStart = -1;  ///< the first range asked for starts here; -1: any or none
    int64_t covers = -1;      ///< one of the ranges asked for holds this byte; -1: any or none
    int64_t skip = 0;         ///< this many matching requests pass before the rule strikes
    int64_t count = -1;       ///< the rule strikes this often; -1: always

    // The reply instead of the file's.
    int status = 0;                   ///< this status; 0: as the file gives
    std::optional<std::string> body;  ///< this body; with a status, the reason phrase if unset
    std::string location;             ///< redirect to here; the status is 302 unless given
    bool ignoreRange = false;         ///< 200 and the whole file to a request for ranges
    int64_t extraBytes = 0;           ///< sent behind the body, not counted in Content-Length
    std::vector<std::pair<std::string, std::string>> setHeaders;  ///< put in or replaced
    std::vector<std::string> dropHeaders;                         ///< left out

    // The course of the reply. Of several at one position: stall, then reset, then close.
    int64_t delayMs = 0;         ///< more latency for this request
    int64_t stallAt = kNever;    ///< nothing more is sent from here on ...
    int64_t stallMs = kForever;  ///< ... for this time
    int64_t resetAt = kNever;    ///< TCP reset here, once the client's system has all before it
    int64_t closeAt = kNever;    ///< orderly close here: a short body
    bool closeAfter = false;     ///< close behind the reply although keep-alive was agreed

    // Short forms: Fault::Status(503).On("level1.mkv").Nth(2)
    static Fault Status(int code);
    static Fault Status(int code, const std::string& replyBody);
    static Fault Redirect(const std::string& target, int code = 302);
    static Fault StallAt(int64_t position, int64_t milliseconds = kForever);
    static Fault ResetAt(int64_t position);
    static Fault CloseAt(int64_t position);
    static Fault Header(const std::string& name, const std::string& value);
    static Fault WithoutHeader(const std::string& name);
    static Fault IgnoreRange();
    static Fault ExtraBytes(int64_t bytes);
    static Fault Delay(int64_t milliseconds);
    static Fault HoldRequest();  ///< StallAt(kBeforeHead)

    Fault On(const std::string& glob) const;
    Fault Get() const;
    Fault Head() const;
    Fault RangeStart(int64_t offset) const;
    Fault Covering(int64_t offset) const;
    Fault Nth(int64_t n) const;  ///< only the nth matching request, counted from 1
    Fault Times(int64_t n) const;
};

/// Whether the glob of a Fault, of Hold or of a wait matches a path.
bool MatchesPattern(const std::string& pattern, const std::string& path);

}  // namespace opal::origin
