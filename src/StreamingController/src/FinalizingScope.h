#pragma once

#include "StreamingController/StreamingController.h"

/// A shutdown is under way while it lives.
class StreamingController::FinalizingScope {
  public:
    explicit FinalizingScope(std::atomic<int>& count) : m_count(count) { ++m_count; }
    ~FinalizingScope() { --m_count; }
    FinalizingScope(const FinalizingScope&) = delete;
    FinalizingScope& operator=(const FinalizingScope&) = delete;

  private:
    std::atomic<int>& m_count;
};
