// The reference configuration server, running.
#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"
#include "support/TlsIdentity.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sorvex::test {

/// The server as a process, with its own data folder.
class ConfigServer {
 public:
  enum class Certificate { OfTheTest, OfItsOwn };

  explicit ConfigServer(const std::vector<std::string>& arguments = {},
                        Certificate certificate = Certificate::OfTheTest) {
    if (certificate == Certificate::OfTheTest) {
      // Making a key takes time; the test makes one for all its servers.
      Write("certificate.pem", ServerIdentity().CertificatePem());
      Write("key.pem", ServerIdentity().KeyPem());
    }
    Start(arguments);
  }

  /// Starts it again on the same folder.
  void Start(const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> all{"--data", Folder().string(), "--wire-port", "0", "--https-port",
                                 "0",      "--listen",        "127.0.0.1"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    m_pProcess = std::make_unique<ChildProcess>(SORVEX_CONFIGSERVER_PROGRAM, all);
    m_port = PortAfter("listening on 127.0.0.1 port ");
    m_httpsPort = PortAfter("listening for HTTPS on 127.0.0.1 port ");
  }

  std::filesystem::path Folder() const { return m_directory.Path() / "data"; }
  std::filesystem::path Write(const std::string& relative, std::string_view content) const {
    return m_directory.Write("data/" + relative, content);
  }
  std::string Read(const std::string& relative) const { return TemporaryDirectory::Read(Folder() / relative); }
  bool Has(const std::string& relative) const { return std::filesystem::exists(Folder() / relative); }

  std::uint16_t Port() const { return m_port; }
  std::uint16_t HttpsPort() const { return m_httpsPort; }
  ChildProcess& Process() { return *m_pProcess; }
  std::string Log() const { return m_pProcess->Output(); }

  /// Waits until the log has this text.
  void WaitForLog(const std::string& text) const {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (Log().find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > end) {
        throw std::runtime_error("the log has no '" + text + "':\n" + Log() + m_pProcess->Errors());
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

 private:
  std::uint16_t PortAfter(const std::string& line) const {
    WaitForLog(line);
    const std::string log = Log();
    return static_cast<std::uint16_t>(std::stoi(log.substr(log.find(line) + line.size())));
  }

  TemporaryDirectory m_directory{"configserver"};
  std::unique_ptr<ChildProcess> m_pProcess;
  std::uint16_t m_port = 0;
  std::uint16_t m_httpsPort = 0;
};

}  // namespace sorvex::test
