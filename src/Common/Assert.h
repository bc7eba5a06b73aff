#pragma once

namespace opal {

/// Receives a failed assertion. It may throw or not return; if it returns, the process aborts.
using AssertionHandler = void (*)(const char* text, const char* file, int line,
                                  const char* function);

/// Replaces the handler, null for the default one, which prints to stderr. Returns the old one.
/// For tests; not while assertions may fail on another thread.
AssertionHandler SetAssertionHandler(AssertionHandler handler);

[[noreturn]] void AssertionFailed(const char* text, const char* file, int line,
                                  const char* function);

}  // namespace opal

/// Aborts with `text`, file, line and function unless `condition` holds; in release builds too.
/// The texts are looked for by people who know the television's logs, so they are given, not
/// derived.
#define OPAL_ASSERT(condition, text) \
    ((condition) ? static_cast<void>(0) : opal::AssertionFailed(text, __FILE__, __LINE__, __func__))
