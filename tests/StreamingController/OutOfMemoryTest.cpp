// A program of its own, since it replaces operator new: one allocation of a session fails,
// whichever thread asks for it.
#include <atomic>
#include <cstdlib>
#include <new>

#include "StreamingController/ControllerFixture.h"
#include "StreamingController/ISessionObserver.h"

namespace {

std::atomic<int64_t> g_count{0};
std::atomic<int64_t> g_failing{-1};  ///< the allocation of this number fails

void* Allocate(std::size_t size) {
    if (g_count++ == g_failing)
        throw std::bad_alloc();
    void* const memory = std::malloc(size != 0 ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

}  // namespace

void* operator new(std::size_t size) {
    return Allocate(size);
}
void* operator new[](std::size_t size) {
    return Allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return g_count++ == g_failing ? nullptr : std::malloc(size != 0 ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return g_count++ == g_failing ? nullptr : std::malloc(size != 0 ? size : 1);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

// TinyXML loses its nodes when an allocation of its own fails.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
int __lsan_is_turned_off() {
    return 1;
}

namespace opal::test {
namespace {

/// A session with every operation; none may throw, and each answers with a code.
class OutOfMemoryTest : public ControllerFixture {
  protected:
    void RunSession(OPALWriterModel model = OPAL_WRITER_MODEL_PUSH) {
        int64_t position = 20000;
        qutl::MemoryBuffer<unsigned char> block;
        uint32_t figure = 0;
        VideoLevelInfo level;
        AudioTrackInfo track;
        SubtitleTrackInfo text;
        (void)controller->InitializeFromSMILFile(m_url, m_locale, m_locale, model);
        Step([&] { return controller->Play(); });
        Step([&] { return controller->Seek(position); });
        Step([&] { return controller->SetAudioTrack(1); });
        Step([&] { return controller->GetVideoLevelInfo(0, level); });
        Step([&] { return controller->GetAudioTrackInfo(0, track); });
        Step([&] { return controller->GetSubtitleTrackInfo(0, text); });
        Step([&] { return controller->SetSubtitleTrack(0); });
        for (int i = 0; i < 10; ++i)
            Step([&] {
                return controller->PullVideoBlock(block, position, position, figure, figure);
            });
        Step([&] { return controller->SetPlayRate(OPAL_PLAYRATE_EIGHTXFF); });
        Step([&] { return controller->SetPlayRate(OPAL_PLAYRATE_ONEX); });
        Step([&] { return controller->Pause(); });
        Step([&] { return controller->Resume(4000); });
        Step([&] { return controller->Stop(); });
        (void)controller->Finalize();
    }
    template <typename Operation>
    void Step(Operation operation) {
        (void)operation();
        std::this_thread::sleep_for(std::chrono::milliseconds(3));  // the threads' turn
    }

    const std::string m_url = kFilm;
    const std::string m_locale = "de";
};

TEST_F(OutOfMemoryTest, OneAllocationThatFailsIsACodeWhicheverItIs) {
    FilmShape film;
    film.levels = 2;
    film.audioTracks = 2;
    film.subtitleTracks = 1;
    film.trick = true;
    Serve(film);
    controller.reset();
    Build(true);
    ISessionObserver observer;  // what is told of the session is allocated too
    ASSERT_EQ(OPAL_OK, SetSessionObserver(&observer));
    RunSession();
    g_count = 0;
    RunSession();
    const int64_t all = g_count;
    ASSERT_GT(all, 1000);
    constexpr int kSamples = 160;
    for (int sample = 0; sample < kSamples; ++sample) {
        SCOPED_TRACE(sample);
        g_count = 0;
        g_failing = all * sample / kSamples;
        EXPECT_NO_THROW(
            RunSession(sample % 2 == 0 ? OPAL_WRITER_MODEL_PUSH : OPAL_WRITER_MODEL_PULL));
        g_failing = -1;
    }
    (void)controller->SetNotify(&listener);
    listener.Clear();
    EXPECT_EQ(OPAL_OK, Initialize()) << "and the next session is whole";
    EXPECT_EQ(OPAL_OK, controller->Play());
    EXPECT_TRUE(Eventually([&] { return listener.Count("OnPlay 1 0 -1") > 0; }));
    EXPECT_EQ(OPAL_OK, controller->Finalize());
    EXPECT_EQ(OPAL_OK, SetSessionObserver(nullptr));
}

}  // namespace
}  // namespace opal::test
