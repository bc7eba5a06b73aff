#include "TvSet.h"

#include "Control.h"
#include "Registry.h"
#include "Snapshot.h"
#include "Subtitles.h"
#include "TvCore.h"

namespace tvset {

Registry& Registry::Get() {
    static Registry registry;
    return registry;
}

bool Registry::Configure(const Options& options) {
    const opal::MutexLock lock(m_mutex);
    if (m_core)
        return false;
    m_options = options;
    m_output = options.video;
    return true;
}

void Registry::Create(void* player) {
    const opal::MutexLock lock(m_mutex);
    if (m_core)
        return;
    Options options = m_options;
    if (!options.clock)
        options.clock = NewRealClock();
    Control::Get().SetClock(options.clock);
    m_core = std::make_shared<TvCore>(options, player);
    m_player = player;
    m_last = Statistics();
    ForgetOverlay();
}

void Registry::Destroy(const void* player) {
    std::shared_ptr<TvCore> core;
    {
        const opal::MutexLock lock(m_mutex);
        if (m_player != player)
            return;
        core = m_core;
    }
    (void)core->Disconnect();
    const opal::MutexLock lock(m_mutex);
    m_last = core->GetStatistics();
    m_core.reset();
    m_player = nullptr;
}

std::shared_ptr<TvCore> Registry::CoreOf(const void* player) const {
    const opal::MutexLock lock(m_mutex);
    return m_player == player ? m_core : nullptr;
}

std::shared_ptr<TvCore> Registry::Current() const {
    const opal::MutexLock lock(m_mutex);
    return m_core;
}

Statistics Registry::GetStatistics() const {
    const opal::MutexLock lock(m_mutex);
    return m_core ? m_core->GetStatistics() : m_last;
}

void Registry::SetListener(std::function<void(uint32_t)> listener) {
    const opal::MutexLock lock(m_listenerMutex);
    m_listener = std::move(listener);
}

void Registry::TellListener(uint32_t ptsMs) {
    const opal::MutexLock lock(m_listenerMutex);
    if (m_listener)
        m_listener(ptsMs);
}

void TellPictureListener(uint32_t ptsMs) {
    Registry::Get().TellListener(ptsMs);
}

bool Configure(const Options& options) {
    return Registry::Get().Configure(options);
}

Statistics GetStatistics() {
    return Registry::Get().GetStatistics();
}

bool WriteSnapshot(const std::string& path, std::string* error) {
    std::string reason = "the television is off";
    bool done = false;
    if (const std::shared_ptr<TvCore> core = Registry::Get().Current()) {
        bool black = false;
        const Picture picture = core->Screen(black);
        done = WritePng(picture, black, CurrentOverlay().get(), path, reason);
    }
    if (!done && error != nullptr)
        *error = reason;
    return done;
}

void SetPictureListener(std::function<void(uint32_t ptsMs)> listener) {
    Registry::Get().SetListener(std::move(listener));
}

namespace control {
namespace {

void TellCore() {
    if (const std::shared_ptr<TvCore> core = Registry::Get().Current())
        core->ControlChanged();
}

}  // namespace

void Reset() {
    Control::Get().Reset();
    TellCore();
}

void RefusePayloads(size_t count) {
    Control::Get().RefusePayloads(count, false);
}

void RefuseVideoPayloads(size_t count) {
    Control::Get().RefusePayloads(count, true);
}

void Fail(Operation operation, size_t count) {
    Control::Get().Fail(operation, count);
}

void HoldEvent(uint32_t event, bool hold) {
    Control::Get().HoldEvent(event, hold);
    TellCore();
}

void DropEvent(uint32_t event, bool drop) {
    Control::Get().DropEvent(event, drop);
}

void DeliverInitBeforeHandle(bool on) {
    Control::Get().SetInitBeforeHandle(on);
}

void Freeze(bool on) {
    Control::Get().SetFrozen(on);
    TellCore();
}

bool WaitIdle(int timeoutMs) {
    const std::shared_ptr<TvCore> core = Registry::Get().Current();
    return core && core->WaitIdle(timeoutMs);
}

void Record(bool on) {
    Control::Get().Record(on);
}

std::vector<JournalEntry> Journal() {
    return Control::Get().Journal();
}

}  // namespace control
}  // namespace tvset
