#include <host/VersionText.h>

#include <host/Log.h>

#include <windows.h>

namespace WindowsAgentCommon {

std::string GetOperatingSystemVersion() {
  // GetVersionEx returns what the program's manifest allows; only this call returns the real version.
  using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOW*);
  const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  const auto rtlGetVersion =
      ntdll ? reinterpret_cast<RtlGetVersionFunction>(reinterpret_cast<void*>(::GetProcAddress(ntdll, "RtlGetVersion")))
            : nullptr;
  OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof version;
  if (rtlGetVersion == nullptr || rtlGetVersion(&version) != 0) return "unknown";
  return Format("Windows %u.%u.%u", version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber);
}

}  // namespace WindowsAgentCommon
