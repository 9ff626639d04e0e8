#include <shared/platform/windows/ProgramStart.h>

// windows.h comes first: the other needs its types.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>
#include <stdio.h>

#include <memory>
#include <string_view>

namespace sorvex {

namespace {

std::string ToUtf8(std::wstring_view text) {
  const auto convert = [text](char* buffer, int size) {
    return WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), buffer, size, nullptr, nullptr);
  };
  std::string narrow(static_cast<std::size_t>(convert(nullptr, 0)), '\0');
  convert(narrow.data(), static_cast<int>(narrow.size()));
  return narrow;
}

}  // namespace

std::optional<std::vector<std::string>> StartProgram() {
  // Only the wide command line holds every character; the narrow one went through the machine's code page.
  int count = 0;
  const std::unique_ptr<LPWSTR, decltype(&LocalFree)> wide(CommandLineToArgvW(GetCommandLineW(), &count), &LocalFree);
  if (!wide) return std::nullopt;
  std::vector<std::string> arguments;
  for (int index = 1; index < count; ++index) arguments.push_back(ToUtf8(wide.get()[index]));

  SetConsoleOutputCP(CP_UTF8);
  // Output is the same bytes on every platform.
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
  return arguments;
}

}  // namespace sorvex
