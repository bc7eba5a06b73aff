#pragma once

#include <array>
#include <string>

#include "Common/logging/LogEventSender.h"

namespace opal::test {

/// Keeps the documents it is given, in `into` if there is one. Other levels may count from the
/// connection on.
class RecordingLogSender : public NullLogEventSender {
  public:
    using Levels = std::array<bool, 3>;

    explicit RecordingLogSender(OPALError initializeResult = OPAL_OK,
                                const Levels& before = {true, false, true},
                                const Levels& after = {true, false, true},
                                std::string* into = nullptr)
        : m_initializeResult(initializeResult), m_after(after), m_into(into ? into : &m_own) {
        SetLevels(before);
    }
    OPALError Initialize() override {
        SetLevels(m_after);
        return m_initializeResult;
    }
    OPALError Send(const std::string& document) override {
        *m_into += document;
        return OPAL_OK;
    }

    /// Once the server has stopped.
    const std::string& Documents() const { return *m_into; }
    void Configure(int64_t interval, size_t size) {
        RecursiveLock lock(m_mutex);
        m_interval = interval;
        m_size = size;
    }

  private:
    void SetLevels(const Levels& levels) {
        RecursiveLock lock(m_mutex);
        m_level1 = levels[0];
        m_level2 = levels[1];
        m_level3 = levels[2];
    }

    const OPALError m_initializeResult;
    const Levels m_after;
    std::string m_own;
    std::string* const m_into;
};

}  // namespace opal::test
