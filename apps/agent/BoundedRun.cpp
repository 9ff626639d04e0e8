#include <BoundedRun.h>

#include <Output.h>
#include <platform/Platform.h>

#include <future>
#include <thread>
#include <utility>

namespace sorvex::agent {
namespace {

using namespace std::chrono_literals;

/// Exit status of an aborted command: 128 plus the number of the interrupt signal, as in a shell.
constexpr int cutShortStatus = 130;
constexpr auto cutShortPatience = 1500ms;

/// Time limit for printing: whoever reads the output may have stopped.
constexpr auto printPatience = 200ms;

}  // namespace

LastWords::LastWords()
    : m_bound{cutShortPatience, cutShortStatus},
      m_print([] { PrintError("asked to end; the command was cut short"); }) {}

void LastWords::Prepare(const Bound& bound, std::function<void()> print, std::function<void()> interrupt) {
  const std::lock_guard lock(m_mutex);
  m_bound = bound;
  m_print = std::move(print);
  m_interrupt = std::move(interrupt);
}

bool LastWords::Withdraw() {
  const std::lock_guard printLock(m_printMutex);
  const std::lock_guard lock(m_mutex);
  m_print = nullptr;
  m_interrupt = nullptr;
  return !m_bPrinted;
}

LastWords::Bound LastWords::GetBound() const {
  const std::lock_guard lock(m_mutex);
  return m_bound;
}

void LastWords::Interrupt() {
  const std::lock_guard lock(m_mutex);
  if (m_interrupt) m_interrupt();
}

void LastWords::Print() {
  const std::lock_guard printLock(m_printMutex);
  std::function<void()> print;
  {
    const std::lock_guard lock(m_mutex);
    print = std::exchange(m_print, nullptr);
    m_bPrinted = true;
  }
  if (print) print();
}

int RunBounded(const std::function<int(LastWords&)>& command) {
  LastWords lastWords;
  std::packaged_task<int()> task([&] { return command(lastWords); });
  std::future<int> status = task.get_future();
  std::thread thread([&task] {
    task();
    EndWaitForInterrupt();
  });
  while (status.wait_for(0s) != std::future_status::ready && !IsInterrupted()) WaitForInterrupt();
  if (IsInterrupted()) lastWords.Interrupt();
  const LastWords::Bound bound = lastWords.GetBound();
  if (status.wait_for(bound.patience) == std::future_status::ready) {
    thread.join();
    return status.get();
  }
  std::packaged_task<void()> print([&] {
    lastWords.Print();
    FlushOutput();
  });
  const std::future<void> printed = print.get_future();
  std::thread(std::move(print)).detach();
  printed.wait_for(printPatience);
  // Both threads may still use this frame, so it is never left.
  EndProcess(bound.status);
}

}  // namespace sorvex::agent
