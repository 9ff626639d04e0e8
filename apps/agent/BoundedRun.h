// Running a command that may be waiting for the network when the program is asked to end.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>

namespace sorvex::agent {

/// What is printed for a command that has not ended in time after the program was asked to end. The command prepares
/// and withdraws it; the thread that waits for the command prints it.
class LastWords {
 public:
  struct Bound {
    std::chrono::milliseconds patience;  ///< between the interrupt and the last words
    int status;                          ///< the program's exit status after them
  };

  /// Of a command that prepares none.
  LastWords();

  /// `print` may be called in another thread while the command goes on. So may `interrupt`, if there is one, once the
  /// program is asked to end: it makes the command look. All that they use must live until `Withdraw`.
  void Prepare(const Bound& bound, std::function<void()> print, std::function<void()> interrupt = {});

  /// From now on nothing is printed; waits while it is. Returns false when it has been: the program is ending.
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

/// Withdraws the last words, also when an exception ends what they are about.
class Withdrawal {
 public:
  explicit Withdrawal(LastWords& lastWords) : m_lastWords(lastWords) {}
  ~Withdrawal() { m_lastWords.Withdraw(); }
  Withdrawal(const Withdrawal&) = delete;
  Withdrawal& operator=(const Withdrawal&) = delete;

 private:
  LastWords& m_lastWords;
};

/// Runs the command in a thread of its own and returns its exit status; throws what it throws. When the program is
/// asked to end and the command does not within its patience, prints its last words and ends the process.
int RunBounded(const std::function<int(LastWords&)>& command);

}  // namespace sorvex::agent
