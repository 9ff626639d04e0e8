#include <platform/InstanceLock.h>

#include <host/Text.h>

#include <windows.h>

#include <stdexcept>
#include <string>
#include <system_error>

namespace sorvex::agent {
namespace {

/// A process that only asks has the file open for a moment.
constexpr int attempts = 10;
constexpr DWORD pauseMs = 100;

std::string NameOf(const std::filesystem::path& file) { return WindowsAgentCommon::WideToUtf8(file.wstring()); }

[[noreturn]] void ThrowError(DWORD error, const std::filesystem::path& file) {
  throw std::system_error(static_cast<int>(error), std::system_category(), NameOf(file));
}

}  // namespace

struct InstanceLock::Handle {
  HANDLE file = INVALID_HANDLE_VALUE;
  ~Handle() {
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
  }
};

InstanceLock::InstanceLock(const std::filesystem::path& file) : m_pHandle(std::make_unique<Handle>()) {
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (attempt > 0) Sleep(pauseMs);
    m_pHandle->file =
        CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (m_pHandle->file != INVALID_HANDLE_VALUE) return;
    const DWORD error = GetLastError();
    if (error != ERROR_SHARING_VIOLATION) ThrowError(error, file);
  }
  throw std::runtime_error("another agent runs here: it holds " + NameOf(file));
}

InstanceLock::~InstanceLock() = default;

bool InstanceLock::IsHeld(const std::filesystem::path& file) {
  Handle handle;
  handle.file = CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle.file != INVALID_HANDLE_VALUE) return false;
  const DWORD error = GetLastError();
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return false;
  if (error != ERROR_SHARING_VIOLATION) ThrowError(error, file);
  return true;
}

}  // namespace sorvex::agent
