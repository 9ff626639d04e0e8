#include "install/ApplicationToken.h"

#include <host/EnvironmentBlockHelper.h>

#include <string>

namespace VaroCommunicationAPI {

Platform::SecretText ReadApplicationToken(const WindowsAgentCommon::ParameterBlock& parameters) {
  // The host's look-up fills a plain string.
  Platform::PlainSecret<std::string> plain;
  WindowsAgentCommon::EnvironmentBlockHelper(parameters).GetStringValue(applicationTokenKey, *plain, "");
  return Platform::SecretText(*plain);
}

void WipeApplicationToken(WindowsAgentCommon::ParameterBlock& parameters) {
  const auto [first, last] = parameters.equal_range(applicationTokenKey);
  for (auto token = first; token != last; ++token) Platform::WipePlain(token->second);
}

}  // namespace VaroCommunicationAPI
