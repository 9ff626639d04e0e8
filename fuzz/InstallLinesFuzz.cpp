// The lines of the installer's files, with and without a prefix.
#include "install/InstallLines.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  WindowsAgentCommon::ParameterBlock all;
  VaroCommunicationAPI::AddInstallLines(text, {}, all);
  WindowsAgentCommon::ParameterBlock some;
  VaroCommunicationAPI::AddInstallLines(text, "AutoCreation.", some);
  // Every line with the prefix is also a line, and no value contains a line end.
  if (some.size() > all.size()) std::abort();
  for (const auto& entry : all) {
    if (entry.first.find('=') != std::string::npos || entry.second.find('\n') != std::string::npos) std::abort();
    if (entry.second.ends_with('\r')) std::abort();
  }
  return 0;
}
