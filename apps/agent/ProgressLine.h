// What a terminal shows while events are sent.
#pragma once

#include <Outlet.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace sorvex::agent {

/// Shows the progress on one line of standard error, twice a second, until it is destroyed. Without a terminal it does
/// nothing.
class ProgressLine {
 public:
  /// Both outlive the line.
  ProgressLine(const std::vector<std::unique_ptr<Outlet>>& outlets, const std::atomic<std::uint64_t>& eventsRead);

 private:
  void Show() const;

  const std::vector<std::unique_ptr<Outlet>>& m_outlets;
  const std::atomic<std::uint64_t>& m_eventsRead;
  std::mutex m_mutex;
  std::condition_variable_any m_wakeUp;
  std::jthread m_thread;  ///< last: it uses the others until it is joined
};

}  // namespace sorvex::agent
