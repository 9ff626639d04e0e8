// The printf-style formatter: any format, any arguments. The first byte chooses the arguments; a zero byte ends the
// format, and what follows it is the text of the arguments.
#include <host/Log.h>
#include <host/Text.h>

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using WindowsAgentCommon::LogArgument;
  if (size == 0) return 0;
  const unsigned int choice = data[0];
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::string format = input.substr(0, input.find('\0'));
  const std::string text = format.size() < input.size() ? input.substr(format.size() + 1) : std::string();
  const std::wstring wide = WindowsAgentCommon::Utf8ToWide(text);
  const auto number = static_cast<std::int64_t>(text.size()) - 3;

  const LogArgument kinds[] = {LogArgument(text),
                               LogArgument(wide),
                               LogArgument(number),
                               LogArgument(static_cast<std::uint8_t>(number)),
                               LogArgument(INT64_MIN),
                               LogArgument(UINT64_MAX),
                               LogArgument(static_cast<const void*>(nullptr)),
                               LogArgument(L'\u9375')};
  const LogArgument arguments[] = {kinds[choice & 7], kinds[choice >> 3 & 7], kinds[choice >> 5]};
  WindowsAgentCommon::FormatText(format.c_str(), arguments, 3, false);

  const std::string escaped = WindowsAgentCommon::FormatText("%s", kinds, 1, true);
  if (escaped.find_first_of("\r\n\t") != std::string::npos) std::abort();
  return 0;
}
