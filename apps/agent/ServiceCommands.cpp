#include <ServiceCommands.h>

#include <Output.h>
#include <platform/Service.h>

namespace sorvex::agent {

int RunCommand(const ServiceInstallCommand& command) {
  std::filesystem::create_directories(command.stateDirectory);
  InstallService(command.arguments);
  PrintValue("installed", GetServiceName());
  return 0;
}

int RunCommand(const ServiceRemoveCommand&) {
  RemoveService();
  PrintValue("removed", GetServiceName());
  return 0;
}

}  // namespace sorvex::agent
