#include <platform/Platform.h>

#include <Text.h>

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>
#include <signal.h>
#include <stdio.h>

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
  // Only the wide command line holds every character; the narrow one went through the machine's code page.
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (wide == nullptr) return 2;
  std::vector<std::string> arguments;
  for (int index = 1; index < count; ++index) {
    arguments.push_back(sorvex::configserver::PathToUtf8(std::filesystem::path(wide[index])));
  }
  LocalFree(wide);
  SetConsoleOutputCP(CP_UTF8);
  // Output is the same bytes on every platform.
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
  return sorvex::configserver::RunServer(std::move(arguments));
}
