#include "opal-origin/Fault.h"

namespace opal::origin {
namespace {

bool MatchesGlob(const std::string& glob, const std::string& text) {
    size_t g = 0;
    size_t t = 0;
    size_t star = std::string::npos;
    size_t retry = 0;
    while (t < text.size()) {
        if (g < glob.size() && glob[g] == '*') {
            star = g++;
            retry = t;
        } else if (g < glob.size() && (glob[g] == '?' || glob[g] == text[t])) {
            ++g;
            ++t;
        } else if (star != std::string::npos) {
            g = star + 1;
            t = ++retry;
        } else {
            return false;
        }
    }
    return glob.find_first_not_of('*', g) == std::string::npos;
}

template <typename Value>
Fault With(Value Fault::*member, const Value& value) {
    Fault fault;
    fault.*member = value;
    return fault;
}

template <typename Value>
Fault With(Fault fault, Value Fault::*member, const Value& value) {
    fault.*member = value;
    return fault;
}

}  // namespace

bool MatchesPattern(const std::string& pattern, const std::string& path) {
    if (pattern.empty())
        return true;
    const bool anyFolder = pattern.front() != '/' && pattern.front() != '*';
    return MatchesGlob(anyFolder ? "*/" + pattern : pattern, path);
}

Fault Fault::Status(int code) {
    return With(&Fault::status, code);
}

Fault Fault::Status(int code, const std::string& replyBody) {
    Fault fault = Status(code);
    fault.body = replyBody;
    return fault;
}

Fault Fault::Redirect(const std::string& target, int code) {
    return With(Status(code), &Fault::location, target);
}

Fault Fault::StallAt(int64_t position, int64_t milliseconds) {
    return With(With(&Fault::stallAt, position), &Fault::stallMs, milliseconds);
}

Fault Fault::ResetAt(int64_t position) {
    return With(&Fault::resetAt, position);
}

Fault Fault::CloseAt(int64_t position) {
    return With(&Fault::closeAt, position);
}

Fault Fault::Header(const std::string& name, const std::string& value) {
    Fault fault;
    fault.setHeaders.emplace_back(name, value);
    return fault;
}

Fault Fault::WithoutHeader(const std::string& name) {
    Fault fault;
    fault.dropHeaders.push_back(name);
    return fault;
}

Fault Fault::IgnoreRange() {
    return With(&Fault::ignoreRange, true);
}

Fault Fault::ExtraBytes(int64_t bytes) {
    return With(&Fault::extraBytes, bytes);
}

Fault Fault::Delay(int64_t milliseconds) {
    return With(&Fault::delayMs, milliseconds);
}

Fault Fault::HoldRequest() {
    return StallAt(kBeforeHead);
}

Fault Fault::On(const std::string& glob) const {
    return With(*this, &Fault::pattern, glob);
}

Fault Fault::Get() const {
    return With(*this, &Fault::method, Method::Get);
}

Fault Fault::Head() const {
    return With(*this, &Fault::method, Method::Head);
}

Fault Fault::RangeStart(int64_t offset) const {
    return With(*this, &Fault::rangeStart, offset);
}

Fault Fault::Covering(int64_t offset) const {
    return With(*this, &Fault::covers, offset);
}

Fault Fault::Nth(int64_t n) const {
    return With(With(*this, &Fault::skip, n - 1), &Fault::count, int64_t{1});
}

Fault Fault::Times(int64_t n) const {
    return With(*this, &Fault::count, n);
}

}  // namespace opal::origin
