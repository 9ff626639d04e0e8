// Typed look-ups in arbitrary parameters. The first line is the pattern and the key, the rest are entries.
#include "install/InstallLines.h"

#include <host/EnvironmentBlockHelper.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  const std::string name = input.substr(0, end);
  WindowsAgentCommon::ParameterBlock parameters;
  VaroCommunicationAPI::AddInstallLines(std::string_view(input).substr(end), {}, parameters);
  parameters.emplace(name, input.substr(end));

  const WindowsAgentCommon::EnvironmentBlockHelper helper(parameters);
  std::string text;
  std::wstring wide;
  bool flag = false;
  std::uint32_t number32 = 0;
  std::uint16_t number16 = 0;
  if (!helper.GetStringValue(name, text, "") || !helper.GetWideStringValue(name, wide, L"")) std::abort();
  helper.GetBooleanValue(name, flag, false);
  helper.GetUInt32Value(name, number32, 0);
  if (helper.GetUInt16Value(name, number16, 0) && number32 != number16) std::abort();
  if (helper.GetValuesForMatchingName(name).size() > parameters.size()) std::abort();
  return 0;
}
