#include <CheckConfiguration.h>

#include <Certificate.h>
#include <FileContent.h>
#include <Output.h>
#include <platform/Platform.h>

#include <settings/Settings.h>

#include <string>

namespace sorvex::agent {

int RunCommand(const CheckConfigurationCommand& command) {
  const std::string content = ReadFileContent(ArgumentToPath(command.file), settings::maxSettingsBytes);
  try {
    const settings::Settings settings = settings::ReadSettings(content, EncodeCertificate);
    PrintNumber("inputs", static_cast<std::int64_t>(settings.inputs.size()));
    PrintNumber("destinations", static_cast<std::int64_t>(settings.destinations.size()));
    PrintNumber("components", static_cast<std::int64_t>(settings.components.size()));
    return 0;
  } catch (const settings::SettingsError& error) {
    PrintError(command.file + ": " + error.what());
    return 1;
  }
}

}  // namespace sorvex::agent
