#include <platform/Platform.h>
#include <platform/Service.h>
#include <shared/platform/windows/ProgramStart.h>

#include <host/Paths.h>
#include <host/Text.h>

#include <ace/Init_ACE.h>

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <system_error>

namespace sorvex::agent {
namespace {

std::atomic<bool> interrupted{false};
std::atomic<bool> readingStopped{false};
/// The thread inside a read; null when none is.
std::atomic<HANDLE> readingThread{nullptr};
/// Ends the wait for an interrupt; reset by it.
HANDLE wakeUp = nullptr;

[[noreturn]] void ThrowLastError(const std::string& what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

BOOL WINAPI NoteInterrupt(DWORD kind) {
  if (kind != CTRL_C_EVENT && kind != CTRL_BREAK_EVENT) return FALSE;
  if (IsInterrupted()) return FALSE;
  Interrupt();
  return TRUE;
}

/// A real handle of the calling thread, because its pseudo handle means whichever thread uses it.
HANDLE DuplicateCurrentThread() {
  HANDLE thread = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &thread, 0, FALSE,
                       DUPLICATE_SAME_ACCESS)) {
    ThrowLastError("DuplicateHandle");
  }
  return thread;
}

}  // namespace

std::filesystem::path ArgumentToPath(const std::string& argument) {
  return WindowsAgentCommon::WideToPath(WindowsAgentCommon::Utf8ToWide(argument));
}

std::filesystem::path GetProgramDirectory() {
  std::wstring name(32768, L'\0');
  const DWORD length = GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
  if (length == 0) ThrowLastError("GetModuleFileName");
  name.resize(length);
  return std::filesystem::path(name).parent_path();
}

std::filesystem::path GetDefaultStateDirectory() {
  return WindowsAgentCommon::WideToPath(WindowsAgentCommon::GetConfigPath()) / "state";
}

long GetProcessNumber() { return static_cast<long>(GetCurrentProcessId()); }

std::string GetHostName() {
  std::array<wchar_t, 256> name{};
  DWORD length = static_cast<DWORD>(name.size());
  if (!GetComputerNameExW(ComputerNamePhysicalDnsHostname, name.data(), &length)) return "localhost";
  return WindowsAgentCommon::WideToUtf8(std::wstring_view(name.data(), length));
}

bool IsErrorTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode) != 0;
}

void InstallInterruptHandler() {
  wakeUp = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (wakeUp == nullptr) ThrowLastError("CreateEvent");
  if (!SetConsoleCtrlHandler(NoteInterrupt, TRUE)) ThrowLastError("SetConsoleCtrlHandler");
}

void WipeMemory(void* data, std::size_t size) { SecureZeroMemory(data, size); }

bool IsInterrupted() { return interrupted.load(std::memory_order_relaxed); }

void Interrupt() {
  interrupted.store(true);
  EndWaitForInterrupt();
  StopReading();
}

void WaitForInterrupt() {
  if (!interrupted.load()) WaitForSingleObject(wakeUp, INFINITE);
}

void EndWaitForInterrupt() { SetEvent(wakeUp); }

void StopReading() {
  readingStopped.store(true);
  // The reader may be about to enter its call, where an early cancellation has no effect.
  while (const HANDLE thread = readingThread.load()) {
    CancelSynchronousIo(thread);
    Sleep(10);
  }
}

void EndProcess(int status) {
  ReportServiceEnd(status);
  // ExitProcess would run the destructors of libraries whose threads it has just killed.
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
  std::abort();
}

struct InputFile::Handle {
  HANDLE file = GetStdHandle(STD_INPUT_HANDLE);
  std::string name = "standard input";
  bool owned = false;
  HANDLE thread = DuplicateCurrentThread();
};

InputFile::InputFile() : m_pHandle(std::make_unique<Handle>()) {
  if (GetFileType(m_pHandle->file) != FILE_TYPE_UNKNOWN) return;
  SetLastError(ERROR_INVALID_HANDLE);
  ThrowLastError(m_pHandle->name);
}

InputFile::InputFile(const std::filesystem::path& path) {
  const std::string name = WindowsAgentCommon::WideToUtf8(path.wstring());
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
  if (file == INVALID_HANDLE_VALUE) ThrowLastError(name);
  m_pHandle = std::make_unique<Handle>(Handle{file, name, true, DuplicateCurrentThread()});
}

InputFile::~InputFile() {
  if (m_pHandle->owned) CloseHandle(m_pHandle->file);
  CloseHandle(m_pHandle->thread);
}

std::optional<std::size_t> InputFile::Read(char* buffer, std::size_t size) {
  const DWORD wanted = static_cast<DWORD>(std::min<std::size_t>(size, 0x40000000));
  DWORD count = 0;
  readingThread.store(m_pHandle->thread);
  const bool isStopped = readingStopped.load();
  const bool isRead = !isStopped && ReadFile(m_pHandle->file, buffer, wanted, &count, nullptr);
  const DWORD error = GetLastError();
  readingThread.store(nullptr);
  if (isRead) return count;
  if (readingStopped.load()) return std::nullopt;
  // A pipe whose writer has gone has ended.
  if (error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF) return 0;
  throw std::system_error(static_cast<int>(error), std::system_category(), m_pHandle->name);
}

}  // namespace sorvex::agent

int main() {
  std::optional<std::vector<std::string>> arguments = sorvex::StartProgram();
  if (!arguments) return 2;
  // On this system ACE's own objects are made by the program.
  ACE::init();
  const int status = sorvex::agent::RunAgent(std::move(*arguments));
  ACE::fini();
  return status;
}
