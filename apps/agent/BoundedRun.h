// Runs a command that may be waiting for the network when the program is asked to end.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>

namespace sorvex::agent {

/// The text printed for a command that has not ended in time after the program was asked to end. The command prepares
/// and withdraws it; the thread that waits for the command prints it.
class LastWords {
 public:
  struct Bound {
    std::chrono::milliseconds patience;  ///< between the interrupt and the last words
    int status;                          ///< the program's exit status after them
  };

  /// For a command that prepares none.
  LastWords();

  /// Another thread may call `print` while the command continues, and `interrupt`, if given, once the program is asked
  /// to end: it wakes the command. All that they use must live until `Withdraw`.
  void Prepare(const Bound& bound, std::function<void()> print, std::function<void()> interrupt = {});

  /// Stops printing; waits for printing that is in progress. Returns false when it was printed: the program is ending.
  bool Withdraw();

  Bound GetBound() const;
  void Interrupt();
  void Print();

 private:
  std::mutex m_printMutex;     ///< held while the words are printed
  mutable std::mutex m_mutex;  ///< of what follows
  Bound m_bound;
  std::function<void()> m_print;
  std::function<void()> m_interrupt;
  bool m_bPrinted = false;
};

/// Withdraws the last words, also when an exception ends their subject.
class Withdrawal {
 public:
  explicit Withdrawal(LastWords& lastWords) : m_lastWords(lastWords) {}
  ~Withdrawal() { m_lastWords.Withdraw(); }
  Withdrawal(const Withdrawal&) = delete;
  Withdrawal& operator=(const Withdrawal&) = delete;

 private:
  LastWords& m_lastWords;
};

/// Runs the command in its own thread and returns its exit status; rethrows its exception. When the program is asked to
/// end and the command does not within its patience, prints its last words and ends the process.
int RunBounded(const std::function<int(LastWords&)>& command);

}  // namespace sorvex::agent
