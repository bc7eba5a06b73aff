// The system services.

#include <gmock/gmock.h>

#include <cstdlib>

#include "MSystem.h"
#include "TvSet.h"

namespace {

TEST(System, PicksDirectFBsSystemForAWindowUnlessTheEnvironmentDoes) {
    const auto picked = [](const char* display, tvset::VideoOutput output) {
        tvset::Options options;
        options.video = output;
        EXPECT_TRUE(tvset::Configure(options));
        ::setenv("DISPLAY", display, 1);
        EXPECT_TRUE(MSystem::InitializeDFBLayer());
        EXPECT_TRUE(tvset::Configure(tvset::Options()));
        return std::string(std::getenv("DFBARGS"));
    };
    const auto window = tvset::VideoOutput::Window;
    const auto x11 = testing::StartsWith("system=x11");
    const auto dummy = testing::StartsWith("system=dummy,mode=1280x720");
    ::setenv("DFBARGS", "system=none", 1);
    EXPECT_EQ(picked(":77", window), "system=none");
    ::unsetenv("DFBARGS");
    EXPECT_THAT(picked(":77", window), x11);
    EXPECT_THAT(picked("", window), dummy);
    EXPECT_THAT(picked(":77", window), x11) << "kept what the television itself had picked";
    EXPECT_THAT(picked(":77", tvset::VideoOutput::Headless), dummy) << "would open a window";
    ::unsetenv("DFBARGS");
    ::unsetenv("DISPLAY");
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
