#include <ServerCommands.h>

#include <ConnectionMode.h>
#include <HtmlPage.h>
#include <Output.h>
#include <ServerAnswer.h>

#include <ace/Time_Value.h>

#include <string>

namespace sorvex::agent {
using namespace WindowsAgentCommon;

int RunCommand(const InfoCommand&, IConnectionFactory& factory) {
  PrintValue("version", factory.GetVersion());
  if (factory.IsInitialized()) {
    PrintValue("mode", NameOf(GetConnectionMode(factory)));
    PrintBoolean("stand-alone-mode", factory.IsStandAloneMode());
  }
  return 0;
}

int RunCommand(const ParameterCommand& command, IConnectionFactory& factory) {
  int status = 0;
  for (const std::string& name : command.names) {
    std::string value;
    if (factory.GetParameter(name, value)) {
      PrintValue(name, value);
    } else {
      PrintError("there is no parameter " + name);
      status = 1;
    }
  }
  return status;
}

int RunCommand(const FingerprintCommand&, const ServerConnection& connection) {
  std::string fingerprint;
  bool updateBlocked = false;
  if (connection->Connect()) fingerprint = connection->GetConfigurationFingerprint(updateBlocked);
  PrintValue("fingerprint", fingerprint);
  PrintBoolean("update-blocked", updateBlocked);
  // Before Disconnect, whose own codes would replace those of the operation.
  PrintLastError(connection);
  const ServerAnswer answer = LastAnswer(connection);
  const bool answered = (answer == ServerAnswer::Success && !fingerprint.empty() && !IsHtmlPage(fingerprint)) ||
                        answer == ServerAnswer::NoUpdate || answer == ServerAnswer::UpdatesDisabled;
  connection->Disconnect();
  return answered ? 0 : 1;
}

int RunCommand(const HeartbeatCommand&, const ServerConnection& connection) {
  return PrintResult(connection->PostHeartbeat(), connection);
}

int RunCommand(const TestConnectionCommand&, const ServerConnection& connection) {
  return PrintResult(connection->TestConnection(), connection);
}

int RunCommand(const RegisterCommand& command, const ServerConnection& connection) {
  return PrintResult(connection->RegisterInstance(command.osVersion, command.agentVersion), connection);
}

int RunCommand(const UpdateStatusCommand& command, const ServerConnection& connection) {
  const ACE_Time_Value time(static_cast<time_t>(command.seconds));
  return PrintResult(connection->UpdateStatus(static_cast<AgentUpdateStatus>(command.status), time), connection);
}

}  // namespace sorvex::agent
