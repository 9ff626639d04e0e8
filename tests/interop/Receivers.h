// Syslog daemons that write down what they receive.
#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"
#include "support/Transport.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace sorvex::test {

/// What a receiver writes for each message, on one line.
enum class Writing {
  Raw,    ///< the message as received
  Parsed  ///< "host|application|text" of an RFC 5424 message
};

/// What separates the messages of a stream.
enum class StreamFraming { LineFeed, OctetCounting };

/// A separate, unprivileged daemon in its own directory, on a free loopback port. One thread.
class Receiver {
 public:
  virtual ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  /// Waits until the daemon listens and returns its port. Throws `std::runtime_error` with the daemon's output if that
  /// takes too long.
  std::uint16_t WaitForPort();

  /// The receiver's certificate.
  std::filesystem::path CertificateFile() const { return m_directory.Path() / "certificate.pem"; }

  /// Waits until `bytes` bytes are written; returns false if nothing more arrives for long.
  bool WaitForBytes(std::uintmax_t bytes) const;

  /// Waits until `bytes` bytes are written or nothing more arrives for long, ends the daemon and returns its output.
  std::string Collect(std::uintmax_t bytes);

 protected:
  explicit Receiver(Transport transport);

  void Start(const std::filesystem::path& program, const std::vector<std::string>& arguments);
  std::filesystem::path OutputFile() const { return m_directory.Path() / "received"; }
  const TemporaryDirectory& Directory() const { return m_directory; }
  std::filesystem::path KeyFile() const { return m_directory.Path() / "key.pem"; }

 private:
  std::uint16_t FindPort() const;

  Transport m_transport;
  TemporaryDirectory m_directory{"receiver"};
  std::unique_ptr<ChildProcess> m_pProcess;
};

enum class Daemon { Rsyslog, SyslogNg };

inline void PrintTo(Daemon daemon, std::ostream* out) { *out << (daemon == Daemon::Rsyslog ? "rsyslog" : "syslog-ng"); }

/// Whether the machine has the daemon and what the transport needs.
bool IsThere(Daemon daemon, Transport transport);

/// Starts a receiver; its program must be installed.
std::unique_ptr<Receiver> StartReceiver(Daemon daemon, Transport transport, Writing writing,
                                        StreamFraming framing = StreamFraming::LineFeed);

}  // namespace sorvex::test
