#include "Common/Assert.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace opal {
namespace {

void PrintAssertion(const char* text, const char* file, int line, const char* function) {
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, text);
}

std::atomic<AssertionHandler> g_handler{&PrintAssertion};

}  // namespace

AssertionHandler SetAssertionHandler(AssertionHandler handler) {
    return g_handler.exchange(handler ? handler : &PrintAssertion);
}

void AssertionFailed(const char* text, const char* file, int line, const char* function) {
    g_handler.load()(text, file, line, function);
    std::abort();
}

}  // namespace opal
