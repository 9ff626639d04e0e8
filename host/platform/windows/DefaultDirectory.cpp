#include "platform/DefaultDirectory.h"

#include <windows.h>

namespace WindowsAgentCommon {

std::wstring GetDefaultConfigPath() {
  wchar_t programData[MAX_PATH] = L"";
  const DWORD length = ::GetEnvironmentVariableW(L"ProgramData", programData, MAX_PATH);
  const bool known = length > 0 && length < MAX_PATH;
  return (known ? std::wstring(programData, length) : std::wstring(L"C:\\ProgramData")) + L"\\Sorvex";
}

}  // namespace WindowsAgentCommon
