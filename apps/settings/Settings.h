// The agent's configuration, AgentConfig.xml, as docs/configuration.md shows it.
#pragma once

#include <collect/Collector.h>
#include <settings/DestinationNames.h>
#include <settings/XmlDocument.h>

#include <host/ParameterBlock.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::settings {

/// A destination and all settings of its socket. Equal values are the same destination.
struct DestinationSettings {
  DestinationType type = DestinationType::Tcp;
  std::string minTls = "TLSv1";  ///< TLS only
  std::string maxTls = "TLSv1.2";
  WindowsAgentCommon::ParameterBlock parameters;  ///< the socket's complete parameter block

  bool operator==(const DestinationSettings&) const = default;

  /// "tcp://host:514", for people.
  std::string Url() const;
};

/// A component of the agent and the build that it should have.
struct ComponentSettings {
  std::string name;  ///< letters, digits, ".", "_" and "-", and no full stop at its head
  std::uint32_t buildNumber = 0;
};

struct Settings {
  std::vector<collect::InputSettings> inputs;
  std::vector<DestinationSettings> destinations;
  std::vector<ComponentSettings> components;
};

/// Larger ones are refused.
constexpr std::size_t maxSettingsBytes = 1024 * 1024;

/// Converts a certificate's text to the value of the parameter "Certificate". Throws `std::invalid_argument` with the
/// reason when it is not a certificate.
using CertificateReader = std::function<std::string(const std::string& text)>;

/// Reads a configuration. Throws `SettingsError` for the first thing in it that is unknown, missing, duplicate or
/// wrong, so a configuration is used whole or not at all.
Settings ReadSettings(std::string_view text, const CertificateReader& readCertificate);

}  // namespace sorvex::settings
