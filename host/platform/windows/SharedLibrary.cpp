#include "platform/SharedLibrary.h"

#include <host/SystemError.h>

#include <windows.h>

namespace WindowsAgentCommon {

ACE_SHLIB_HANDLE OpenSharedLibrary(const std::filesystem::path& file, std::string& error) {
  // No dialogue box in a service; libraries next to the module are found when its path is absolute.
  DWORD previousMode = 0;
  ::SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &previousMode);
  const HMODULE module =
      ::LoadLibraryExW(file.c_str(), nullptr, file.is_absolute() ? LOAD_WITH_ALTERED_SEARCH_PATH : 0);
  const DWORD code = ::GetLastError();
  ::SetThreadErrorMode(previousMode, nullptr);
  if (module == nullptr) {
    error = GetLastErrorText(static_cast<int>(code));
    return ACE_SHLIB_INVALID_HANDLE;
  }
  return module;
}

}  // namespace WindowsAgentCommon
