#pragma once

namespace opal::play {

/// Ends the main loop's wait from any thread or signal handler.
class Wake {
  public:
    Wake();
    ~Wake();
    Wake(const Wake&) = delete;
    Wake& operator=(const Wake&) = delete;

    void Signal() const;
    /// Until Signal, input at `inputFd` (-1: none) or `ms`. True if there is input.
    bool Wait(int inputFd, int ms) const;
    int SignalFd() const { return m_ends[1]; }

  private:
    int m_ends[2];
};

/// SIGINT, SIGTERM and SIGHUP no longer end the process but signal `wake`.
void CatchSignals(const Wake& wake);
/// The last one caught, 0 for none.
int CaughtSignal();

}  // namespace opal::play
