#include "support/ChildProcess.h"

#include <host/Text.h>

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <system_error>
#include <utility>

namespace sorvex::test {
namespace {

[[noreturn]] void Throw(const std::string& what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

class Handle {
 public:
  explicit Handle(HANDLE handle = INVALID_HANDLE_VALUE) : m_handle(handle) {}
  ~Handle() { Close(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  void Reset(HANDLE handle) {
    Close();
    m_handle = handle;
  }
  void Close() {
    if (m_handle != INVALID_HANDLE_VALUE) CloseHandle(std::exchange(m_handle, INVALID_HANDLE_VALUE));
  }
  HANDLE Get() const { return m_handle; }

 private:
  HANDLE m_handle;
};

SECURITY_ATTRIBUTES* Inheritable() {
  static SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  return &attributes;
}

/// A file with the program's output, deleted with the last handle. The program has its own write position.
struct Record {
  Record() {
    wchar_t directory[MAX_PATH + 1];
    wchar_t name[MAX_PATH];
    if (GetTempPathW(MAX_PATH + 1, directory) == 0 || GetTempFileNameW(directory, L"out", 0, name) == 0)
      Throw("GetTempFileName");
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    reader.Reset(
        CreateFileW(name, GENERIC_READ | DELETE, shareAll, nullptr, OPEN_EXISTING, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    writer.Reset(CreateFileW(name, FILE_APPEND_DATA | SYNCHRONIZE, shareAll, Inheritable(), OPEN_EXISTING, 0, nullptr));
    if (reader.Get() == INVALID_HANDLE_VALUE || writer.Get() == INVALID_HANDLE_VALUE) Throw("CreateFile");
  }

  std::string ReadAll() const {
    if (SetFilePointer(reader.Get(), 0, nullptr, FILE_BEGIN) == INVALID_SET_FILE_POINTER) Throw("SetFilePointer");
    std::string text;
    std::array<char, 65536> part;
    for (;;) {
      DWORD count = 0;
      if (!ReadFile(reader.Get(), part.data(), static_cast<DWORD>(part.size()), &count, nullptr)) Throw("ReadFile");
      if (count == 0) return text;
      text.append(part.data(), count);
    }
  }

  Handle reader;
  Handle writer;
};

/// Quotes the argument for the parsers of the C run time and CommandLineToArgvW.
std::wstring Quoted(const std::wstring& argument) {
  std::wstring text = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t character : argument) {
    if (character == L'\\') {
      ++backslashes;
      continue;
    }
    // Backslashes count double before a quotation mark only.
    text.append(character == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
    backslashes = 0;
    text += character;
  }
  return text.append(2 * backslashes, L'\\') + L'"';
}

}  // namespace

struct ChildProcess::State {
  Handle input;
  Record output;
  Record errors;
  Handle process;
  DWORD id = 0;
  std::optional<int> status;
};

ChildProcess::ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments)
    : m_pState(std::make_unique<State>()) {
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, Inheritable(), 0)) Throw("CreatePipe");
  const Handle childInput(readEnd);
  m_pState->input.Reset(writeEnd);

  std::wstring commandLine = Quoted(program.wstring());
  for (const std::string& argument : arguments) {
    commandLine += L' ' + Quoted(WindowsAgentCommon::Utf8ToWide(argument));
  }

  // The program must not inherit the test's other handles, above all its sockets.
  std::array<HANDLE, 3> inherited{childInput.Get(), m_pState->output.writer.Get(), m_pState->errors.writer.Get()};
  SIZE_T size = 0;
  InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
  std::vector<std::max_align_t> memory(size / sizeof(std::max_align_t) + 1);
  STARTUPINFOEXW startup{};
  startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory.data());
  if (!InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size) ||
      !UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited.data(),
                                 sizeof inherited, nullptr, nullptr)) {
    Throw("UpdateProcThreadAttribute");
  }
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = inherited[0];
  startup.StartupInfo.hStdOutput = inherited[1];
  startup.StartupInfo.hStdError = inherited[2];
  PROCESS_INFORMATION information{};
  BOOL started = FALSE;
  DWORD error = ERROR_SUCCESS;
  // Wine reports an internal error for a process that dies before it runs any code of the program. On a busy machine
  // that happens once in thousands of starts.
  for (int attempts = 0; attempts < 3 && !started; ++attempts) {
    // A separate process group, so that a request to end it does not reach the test.
    started = CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                             EXTENDED_STARTUPINFO_PRESENT | CREATE_NEW_PROCESS_GROUP, nullptr, nullptr,
                             &startup.StartupInfo, &information);
    error = started ? ERROR_SUCCESS : GetLastError();
    if (error != ERROR_INTERNAL_ERROR) break;
  }
  DeleteProcThreadAttributeList(startup.lpAttributeList);
  if (!started) {
    throw std::system_error(static_cast<int>(error), std::system_category(),
                            WindowsAgentCommon::WideToUtf8(program.wstring()));
  }
  CloseHandle(information.hThread);
  m_pState->process.Reset(information.hProcess);
  m_pState->id = information.dwProcessId;
  m_pState->output.writer.Close();
  m_pState->errors.writer.Close();
}

ChildProcess::~ChildProcess() {
  if (m_pState->status) return;
  TerminateProcess(m_pState->process.Get(), 1);
  WaitForSingleObject(m_pState->process.Get(), INFINITE);
}

bool ChildProcess::WriteInput(std::string_view text) {
  while (!text.empty()) {
    DWORD count = 0;
    const DWORD part = static_cast<DWORD>(std::min<std::size_t>(text.size(), 65536));
    if (!WriteFile(m_pState->input.Get(), text.data(), part, &count, nullptr)) return false;
    text.remove_prefix(count);
  }
  return true;
}

void ChildProcess::CloseInput() { m_pState->input.Close(); }

void ChildProcess::RequestEnd() {
  if (!m_pState->status) GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, m_pState->id);
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
  if (m_pState->status) return m_pState->status;
  if (WaitForSingleObject(m_pState->process.Get(), static_cast<DWORD>(limit.count())) != WAIT_OBJECT_0)
    return std::nullopt;
  DWORD status = 0;
  if (!GetExitCodeProcess(m_pState->process.Get(), &status)) Throw("GetExitCodeProcess");
  m_pState->status = static_cast<int>(status);
  return m_pState->status;
}

std::string ChildProcess::Output() const { return m_pState->output.ReadAll(); }
std::string ChildProcess::Errors() const { return m_pState->errors.ReadAll(); }
long ChildProcess::Id() const { return static_cast<long>(m_pState->id); }

}  // namespace sorvex::test
