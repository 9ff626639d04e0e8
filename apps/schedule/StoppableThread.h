// A thread that waits much and can be asked to end at any time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace sorvex::schedule {

/// Its destructor asks the thread to end and waits until it has. No `std::stop_token` ends the waits: such a wait has a
/// `std::stop_callback`, whose destructor may wait for ever in the C++ library of mingw-w64, as all that is built on
/// `std::atomic::wait` may (latches, barriers, semaphores).
class StoppableThread {
 public:
  StoppableThread() = default;
  ~StoppableThread() { RequestStop(); }
  StoppableThread(const StoppableThread&) = delete;
  StoppableThread& operator=(const StoppableThread&) = delete;

  /// Starts the thread; called once. Throws `std::system_error`.
  void Start(std::function<void()> run);

  /// Ends a wait; any thread, also before the start.
  void RequestStop();

  bool MustStop() const;

  /// Waits until the thread has to end, at most for `duration`; returns whether it has to.
  bool WaitForStop(std::chrono::milliseconds duration);

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_bMustStop = false;
  std::jthread m_thread;  ///< last: it uses the others until it is joined
};

}  // namespace sorvex::schedule
