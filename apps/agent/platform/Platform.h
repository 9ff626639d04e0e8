// What the agent needs of the operating system and the standard library does not offer.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace sorvex::agent {

/// The program itself, called by the platform's entry point with the arguments after the program's name, in UTF-8.
int RunAgent(std::vector<std::string> arguments);

/// Directory of the running program.
std::filesystem::path GetProgramDirectory();

/// This machine's own name.
std::string GetHostName();

/// Whether standard error is a terminal that shows progress.
bool IsErrorTerminal();

/// From now on the first request to end the program (SIGINT, SIGTERM; Ctrl-C) is noted instead of obeyed; the second
/// one ends the program at once.
void InstallInterruptHandler();

/// Whether the program was asked to end. Any thread.
bool IsInterrupted();

/// Waits until the program is asked to end or `time` has passed.
void WaitForInterrupt(std::chrono::milliseconds time);

/// A file or standard input, read in order by one thread.
class InputFile {
 public:
  /// Standard input.
  InputFile();
  /// Throws `std::system_error` naming the file when it cannot be opened.
  explicit InputFile(const std::filesystem::path& path);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  /// Waits for bytes and stores up to `size` of them; returns their number. 0 means that the input has ended or that
  /// the program was asked to end. Throws `std::system_error` on a read error.
  std::size_t Read(char* buffer, std::size_t size);

 private:
  struct Handle;
  std::unique_ptr<Handle> m_pHandle;
};

}  // namespace sorvex::agent
