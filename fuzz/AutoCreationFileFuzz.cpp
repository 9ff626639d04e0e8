// The log-source auto-creation file: UTF-16 to UTF-8, then lines.
#include "FuzzFile.h"

#include "install/AutoCreationFile.h"

#include <host/Text.h>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const sorvex::test::FuzzFile file;
  WindowsAgentCommon::ParameterBlock parameters;
  if (!VaroCommunicationAPI::ProcessAutoCreationFile(file.Write(data, size), parameters, {})) std::abort();
  for (const auto& entry : parameters) {
    if (!entry.first.starts_with("AutoCreation.")) std::abort();
    // What came from UTF-16 is valid UTF-8, and so it survives the way to wide text and back.
    if (WindowsAgentCommon::WideToUtf8(WindowsAgentCommon::Utf8ToWide(entry.second)) != entry.second) std::abort();
  }
  return 0;
}
