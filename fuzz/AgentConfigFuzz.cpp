// A configuration from a server or an administrator.
#include <settings/Settings.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvex::settings;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto takeCertificate = [](const std::string& certificate) { return certificate; };
  try {
    const Settings settings = ReadSettings(text, takeCertificate);
    // Reading it again gives the same result.
    if (ReadSettings(text, takeCertificate).destinations != settings.destinations) std::abort();
    for (const DestinationSettings& destination : settings.destinations) {
      if (destination.parameters.count("TargetPort") != 1 || destination.Url().empty()) std::abort();
    }
    for (const ComponentSettings& component : settings.components) {
      if (component.name.empty() || component.name.find_first_of("/\\:") != std::string::npos) std::abort();
    }
  } catch (const SettingsError& error) {
    if (!std::string_view(error.what()).starts_with("line ")) std::abort();
  }
  return 0;
}
