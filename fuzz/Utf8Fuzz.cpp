// UTF-8 to wide text and back.
#include <host/Text.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace WindowsAgentCommon;
  // Once converted, a text is valid and converts without loss; where wide text can hold bytes, any text does.
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::wstring wide = Utf8ToWide(bytes);
  const std::string narrow = WideToUtf8(wide);
  if (Utf8ToWide(narrow) != wide) std::abort();
  if (sizeof(wchar_t) == 4 && narrow != bytes) std::abort();

  std::wstring units(size / sizeof(wchar_t), L'\0');
  if (!units.empty()) std::memcpy(units.data(), data, units.size() * sizeof(wchar_t));
  const std::string replaced = WideToUtf8(units);
  if (WideToUtf8(Utf8ToWide(replaced)) != replaced) std::abort();
  return 0;
}
