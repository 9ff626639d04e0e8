#include "connection/RequestText.h"

#include "factory/ModuleVersion.h"

#include <host/Log.h>

namespace VaroCommunicationAPI {

std::string AutoCreationText(const WindowsAgentCommon::EnvironmentBlockHelper& parameters,
                             const std::function<std::string(const std::string&)>& encode) {
  std::string text;
  for (const auto& [name, value] : parameters.GetValuesForMatchingName("AutoCreation\\.(.*)")) {
    text += '&' + encode(name) + '=' + encode(value);
  }
  return text;
}

std::string ComponentList(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    if (!text.empty()) text += ',';
    text += WindowsAgentCommon::Format("x64_%d%d_%s", versionMajor, versionMinor, name);
  }
  return text;
}

}  // namespace VaroCommunicationAPI
