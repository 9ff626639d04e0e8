#include <Agent.h>

#include <platform/Platform.h>

#include <SorvexHost/Directories.h>
#include <SorvexHost/LogSinks.h>
#include <host/IPayloadFactory.h>
#include <host/LoggerFactory.h>
#include <host/ServiceLookup.h>
#include <host/Text.h>

#include <stdexcept>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;

constexpr const char* className = "ConnectionFactory";

std::filesystem::path GetModulePath(const Options& options) {
  return options.module.empty() ? GetProgramDirectory() / SORVEX_MODULE_FILE_NAME : ArgumentToPath(options.module);
}

}  // namespace

void OpenLog(const Options& options) {
  LoggerFactory::SetSink(options.logFile.empty() ? CreateStandardErrorSink(options.logLevel)
                                                 : CreateFileSink(ArgumentToPath(options.logFile), options.logLevel));
}

Agent::Agent(const Options& options) {
  if (!options.configDirectory.empty()) SetConfigPath(Utf8ToWide(options.configDirectory));
  if (!options.patchDirectory.empty()) SetPatchPath(Utf8ToWide(options.patchDirectory));

  const std::filesystem::path module = GetModulePath(options);
  m_componentFactory.RegisterBuiltInServices();
  m_componentFactory.RegisterService(IConnectionFactory::GetServiceName(), module, className);
  m_componentFactory.Install();

  ServiceConfig core;
  core.m_strName = "AgentCore";
  core.m_strDisplayName = "Agent core";
  core.m_strDescription = "The agent itself";
  m_componentFactory.SetServiceConfig(core);

  m_moduleConfig.m_strName = className;
  m_moduleConfig.m_strDisplayName = "Connection factory";
  m_moduleConfig.m_strDescription = "Everything of the agent that crosses the network";
  m_moduleConfig.m_strModule = WideToUtf8(PathToWide(module));
  m_moduleConfig.m_strEntryPoint = std::string("_make_") + className;
  m_moduleConfig.m_parameters = options.parameters;
}

Agent::~Agent() {
  if (m_pConnectionFactory == nullptr) return;
  m_pConnectionFactory->Shutdown();
  m_componentFactory.UnloadService(IConnectionFactory::GetServiceName());
}

void Agent::Load() {
  // The module finds its payload builders through the host and does not load them itself.
  m_componentFactory.LoadService(IPayloadFactory::GetServiceName());
  const bool loaded = m_componentFactory.LoadService(IConnectionFactory::GetServiceName());
  m_pConnectionFactory = loaded ? GetService<IConnectionFactory>() : nullptr;
  if (m_pConnectionFactory == nullptr) {
    throw std::runtime_error("cannot load the module " + m_moduleConfig.m_strModule +
                             (loaded ? ": it holds no connection factory" : ""));
  }
}

int Agent::Initialize() { return m_pConnectionFactory->Initialize(m_moduleConfig); }

}  // namespace sorvex::agent
