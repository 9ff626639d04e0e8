// Syslog daemons that write down what they receive.
#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace sorvex::test {

/// What a receiver writes for each message, as one line.
enum class Writing {
  Raw,    ///< the message as it came
  Parsed  ///< "host|application|text" of a message of RFC 5424
};

/// A daemon of its own, unprivileged, in a directory of its own, on a free loopback port. Used by one thread.
class Receiver {
 public:
  virtual ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  /// Waits until the daemon listens and returns its port. Throws `std::runtime_error`, with what the daemon said, when
  /// it does not within a while.
  std::uint16_t WaitForPort();

  /// Waits until `bytes` bytes are written or nothing more comes for long, ends the daemon and returns what it wrote.
  std::string Collect(std::uintmax_t bytes);

 protected:
  Receiver() = default;

  void Start(const std::filesystem::path& program, const std::vector<std::string>& arguments);
  std::filesystem::path OutputFile() const { return m_directory.Path() / "received"; }
  const TemporaryDirectory& Directory() const { return m_directory; }
  const ChildProcess& Process() const { return *m_pProcess; }

  /// The port, or 0 as long as the daemon does not listen.
  virtual std::uint16_t FindPort() const = 0;

 private:
  TemporaryDirectory m_directory{"receiver"};
  std::unique_ptr<ChildProcess> m_pProcess;
};

enum class Daemon { Rsyslog, SyslogNg };

inline void PrintTo(Daemon daemon, std::ostream* out) { *out << (daemon == Daemon::Rsyslog ? "rsyslog" : "syslog-ng"); }

/// Where the daemon's program stands; an empty path when it is not there.
std::filesystem::path FindDaemon(Daemon daemon);

/// Starts a receiver; its program has to be there.
std::unique_ptr<Receiver> StartReceiver(Daemon daemon, Writing writing);

}  // namespace sorvex::test
