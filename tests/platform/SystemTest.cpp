// The system services.

#include <gmock/gmock.h>

#include <cstdlib>

#include "MSystem.h"
#include "TvSet.h"

namespace {

TEST(System, PicksDirectFBsSystemOnlyWhereTheEnvironmentDoesNot) {
    const auto picked = [](const char* display) {
        ::setenv("DISPLAY", display, 1);
        EXPECT_TRUE(MSystem::InitializeDFBLayer());
        const std::string args = std::getenv("DFBARGS");
        ::unsetenv("DFBARGS");
        return args;
    };
    ::setenv("DFBARGS", "system=none", 1);
    EXPECT_EQ(picked(":77"), "system=none");
    EXPECT_THAT(picked(":77"), testing::StartsWith("system=x11"));
    EXPECT_THAT(picked(""), testing::StartsWith("system=dummy,mode=1280x720"));
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
