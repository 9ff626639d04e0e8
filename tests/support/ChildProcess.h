// Runs a program as a child of a test.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::test {

/// A running program whose standard input is a pipe and whose standard output and error are kept. One thread.
class ChildProcess {
 public:
  /// Starts `program`; arguments are UTF-8. Throws `std::system_error` when it cannot be started.
  ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments);
  /// Kills the program if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Writes to the program's standard input; waits until it takes the text. Returns false when the program has closed
  /// it.
  bool WriteInput(std::string_view text);
  void CloseInput();

  /// Asks the program to end, like SIGTERM.
  void RequestEnd();

  /// Waits for the program's end. Returns its exit status, 128 plus the number of the signal that ended it, or nothing
  /// when it still runs after `limit`.
  std::optional<int> Wait(std::chrono::milliseconds limit);

  /// Its output so far.
  std::string Output() const;
  std::string Errors() const;

  long Id() const;

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

struct ProcessResult {
  int status = -1;  ///< -1: it had to be killed
  std::string output;
  std::string errors;
};

/// Runs a program to its end, within two minutes, with `input` as its whole standard input.
inline ProcessResult RunProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                                std::string_view input = {}) {
  ChildProcess process(program, arguments);
  process.WriteInput(input);
  process.CloseInput();
  const std::optional<int> status = process.Wait(std::chrono::minutes(2));
  return {status.value_or(-1), process.Output(), process.Errors()};
}

}  // namespace sorvex::test
