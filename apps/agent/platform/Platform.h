// What the agent needs from the operating system and the standard library does not offer.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sorvex::agent {

/// The program itself, called by the platform's entry point with the arguments after the program's name: UTF-8 on
/// Windows, their bytes elsewhere.
int RunAgent(std::vector<std::string> arguments);

/// The path that an argument names.
std::filesystem::path ArgumentToPath(const std::string& argument);

/// Directory of the running program.
std::filesystem::path GetProgramDirectory();

/// The default directory for the agent's positions.
std::filesystem::path GetDefaultStateDirectory();

/// The number of this process.
long GetProcessNumber();

/// This machine's own name.
std::string GetHostName();

/// Overwrites secrets; the compiler does not drop it.
void WipeMemory(void* data, std::size_t size);

/// Whether standard error is a terminal that shows progress.
bool IsErrorTerminal();

/// From now on the first request to end the program (SIGINT, SIGTERM; Ctrl-C) is noted instead of obeyed, and ends
/// reading; the second one ends the program at once.
void InstallInterruptHandler();

/// Whether the program was asked to end. Any thread.
bool IsInterrupted();

/// Asks the program to end, as an interrupt does. Any thread.
void Interrupt();

/// Waits until the program was asked to end, or until `EndWaitForInterrupt`. One thread.
void WaitForInterrupt();

/// Ends the current wait, or else the next one. Any thread.
void EndWaitForInterrupt();

/// Ends every `InputFile::Read` permanently, as an interrupt does. Any thread.
void StopReading();

/// Ends the process now, whatever its threads do; nothing is flushed and nothing destroyed.
[[noreturn]] void EndProcess(int status);

/// A file or standard input, read in order by one thread.
class InputFile {
 public:
  /// Standard input. Throws `std::system_error` when it is closed.
  InputFile();
  /// Throws `std::system_error` naming the file when it cannot be opened.
  explicit InputFile(const std::filesystem::path& path);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  /// Waits for bytes and stores up to `size` of them; returns their number, 0 at the end of the input, or nothing once
  /// reading has been stopped. Throws `std::system_error` on a read error.
  std::optional<std::size_t> Read(char* buffer, std::size_t size);

 private:
  struct Handle;
  std::unique_ptr<Handle> m_pHandle;
};

}  // namespace sorvex::agent
