// The log-source auto-creation file: UTF-16 to UTF-8, then lines.
#include "FuzzFile.h"

#include "install/AutoCreationFile.h"

#include <host/Text.h>

#include <algorithm>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const sorvex::test::FuzzFile file;
  WindowsAgentCommon::ParameterBlock parameters;
  if (!VaroCommunicationAPI::ProcessAutoCreationFile(file.Write(data, size), parameters, {})) std::abort();
  for (const auto& entry : parameters) {
    if (!entry.first.starts_with("AutoCreation.")) std::abort();
    // Text converted from UTF-16 is valid UTF-8: it survives conversion to wide text and back, without stray bytes.
    const std::wstring wide = WindowsAgentCommon::Utf8ToWide(entry.second);
    const bool loneBytes = std::any_of(wide.begin(), wide.end(), [](wchar_t unit) {
      return sizeof unit == 4 && unit >= L'\xDC00' && unit <= L'\xDFFF';
    });
    if (loneBytes || WindowsAgentCommon::WideToUtf8(wide) != entry.second) std::abort();
  }
  return 0;
}
