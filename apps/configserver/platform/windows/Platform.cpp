#include <platform/Platform.h>

#include <Text.h>
#include <shared/platform/windows/ProgramStart.h>

#include <windows.h>

#include <signal.h>

#include <array>

namespace sorvex::configserver {

std::vector<int> EndSignals() { return {SIGINT, SIGTERM, SIGBREAK}; }

/// The system has no such limit for sockets.
void RaiseDescriptorLimit() {}

/// Here that would let two programs listen on one port. Old connections do not block a listener.
bool MayReuseAddress() { return false; }

std::string GetHostName() {
  std::array<wchar_t, 256> name{};
  DWORD length = static_cast<DWORD>(name.size());
  if (!GetComputerNameExW(ComputerNamePhysicalDnsHostname, name.data(), &length)) return "localhost";
  return PathToUtf8(std::filesystem::path(name.data(), name.data() + length));
}

bool IsStoredAs(const std::filesystem::path& path) {
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW(path.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return true;
  FindClose(search);
  return path.filename() == std::filesystem::path(found.cFileName);
}

}  // namespace sorvex::configserver

int main() {
  std::optional<std::vector<std::string>> arguments = sorvex::StartProgram();
  return arguments ? sorvex::configserver::RunServer(std::move(*arguments)) : 2;
}
