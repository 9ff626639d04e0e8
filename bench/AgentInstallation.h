// What an agent needs to talk to the tests' reference configuration server.
#pragma once

#include "factory/ConnectionFactory.h"

#include <support/TemporaryDirectory.h>
#include <support/TlsIdentity.h>
#include <unit/module/FakeComponentFactory.h>

#include <SorvexHost/Directories.h>
#include <host/ParameterBlock.h>

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

namespace sorvex::bench {

constexpr const char* agentToken = "8a2b4c6d-0e1f-4a3b-9c5d-7e8f9a0b1c2d";

/// A configuration directory with the server's certificate and a key pair.
class AgentInstallation {
 public:
  AgentInstallation() {
    m_directory.Write("ConfigurationServer.PEM", test::ServerIdentity().CertificatePem());
    const std::filesystem::path key = m_directory.Write("keys/default.pem", MakeKey());
    chmod(key.c_str(), 0600);
  }

  const test::TemporaryDirectory& Directory() const { return m_directory; }
  std::string TrustedFile() const { return (m_directory.Path() / "ConfigurationServer.PEM").string(); }

 private:
  static std::string MakeKey() {
    const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_RSA_gen(1024), &EVP_PKEY_free);
    const std::unique_ptr<BIO, int (*)(BIO*)> output(BIO_new(BIO_s_mem()), &BIO_free);
    PEM_write_bio_PrivateKey(output.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    char* data = nullptr;
    const long size = BIO_get_mem_data(output.get(), &data);
    return {data, static_cast<std::size_t>(size)};
  }

  const test::TemporaryDirectory m_directory{"agent-benchmark"};
};

/// The host of a module installed there, with the service that makes sockets.
class AgentHost {
 public:
  explicit AgentHost(const AgentInstallation& installation) {
    WindowsAgentCommon::SetConfigPath(installation.Directory().Wide());
    m_components.Offer("IConnectionFactory", [] { return new VaroCommunicationAPI::ConnectionFactory; });
    m_components.LoadService("IConnectionFactory");
  }

  /// Parameters of the module's connection to the server at this loopback port.
  static WindowsAgentCommon::ParameterBlock Parameters(std::uint16_t port, const std::string& identifier) {
    return {{"ConfigurationServer", "127.0.0.1"},
            {"ConfigurationServerPort", std::to_string(port)},
            {"ApplicationIdentifier", identifier},
            {"ApplicationToken", agentToken}};
  }

 private:
  test::FakeComponentFactory m_components;
};

}  // namespace sorvex::bench
