// The system services.

#include <gmock/gmock.h>

#include <cstdlib>

#include "MSystem.h"
#include "TvSet.h"

namespace {

TEST(System, PicksDirectFBsSystemOnlyWhereTheEnvironmentDoesNot) {
    struct Case {
        const char* display;
        const char* before;
        const char* after;
    };
    for (const Case& c : {Case{":77", "system=none", "system=none"},
                          {":77", nullptr, "system=x11"},
                          {"", nullptr, "system=dummy,mode=1280x720"}}) {
        ::setenv("DISPLAY", c.display, 1);
        ::unsetenv("DFBARGS");
        if (c.before != nullptr) {
            ::setenv("DFBARGS", c.before, 1);
        }
        EXPECT_TRUE(MSystem::InitializeDFBLayer());
        EXPECT_THAT(std::getenv("DFBARGS"), testing::StartsWith(c.after));
    }
    ::unsetenv("DFBARGS");
}

TEST(System, TheTrackerKnowsWhoHoldsAMutex) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    tvset::MutexHolder holder;
    ASSERT_EQ(pthread_mutex_lock_tracker(&mutex, "Here", 42), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    ASSERT_TRUE(tvset::FindMutexHolder(&mutex, holder));
    EXPECT_EQ(holder.function + std::to_string(holder.line), "Here42");
    ASSERT_EQ(pthread_mutex_unlock_tracker(&mutex), 0);
    EXPECT_FALSE(tvset::FindMutexHolder(&mutex, holder));
    EXPECT_EQ(pthread_mutex_destroy(&mutex), 0);
}

}  // namespace
