#include <ConnectionMode.h>

#include <host/EnvironmentBlockHelper.h>

#include <string>

namespace sorvex::agent {

using namespace WindowsAgentCommon;

ConnectionMode GetConnectionMode(const IConnectionFactory& factory) {
  std::string server;
  if (!factory.GetParameter("ConfigurationServer", server) || server.empty()) return ConnectionMode::StandAlone;

  ParameterBlock parameters;
  std::string text;
  const std::string name = "ForceHTTPSConfigServerConnection";
  if (factory.GetParameter(name, text)) parameters.emplace(name, text);
  bool https = false;
  EnvironmentBlockHelper(parameters).GetBooleanValue(name, https, false);
  return https ? ConnectionMode::Https : ConnectionMode::DirectTls;
}

const char* NameOf(ConnectionMode mode) {
  switch (mode) {
    case ConnectionMode::StandAlone: return "stand-alone";
    case ConnectionMode::DirectTls: return "direct-tls";
    case ConnectionMode::Https: return "https";
  }
  return "unknown";
}

}  // namespace sorvex::agent
