#include "Receivers.h"

#include "support/LoopbackTcpServer.h"
#include "support/TlsIdentity.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;

/// Long enough for a daemon on a busy machine.
constexpr auto daemonPatience = 60s;

std::string GetEnvironment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::filesystem::path FindProgram(Daemon daemon) {
  if (daemon == Daemon::Rsyslog) return "/usr/sbin/rsyslogd";
  // Where script/bootstrap unpacks it: its package conflicts with the other daemon's.
  const std::string cache = GetEnvironment("XDG_CACHE_HOME");
  const std::filesystem::path base = cache.empty() ? GetEnvironment("HOME") + "/.cache" : cache;
  return base / "communicationapi" / "syslog-ng" / "run";
}

/// A receiver that asks for more than the system allows gets what is allowed.
constexpr const char* receiveBuffer = "8388608";

class Rsyslog : public Receiver {
 public:
  Rsyslog(Transport transport, Writing writing, StreamFraming framing) : Receiver(transport) {
    const std::string directory = Directory().Path().string();
    // Without octet counting a line may begin with a digit; every byte is kept unchanged.
    const std::string format = writing == Writing::Raw ? "%rawmsg%" : "%hostname%|%app-name%|%msg%";
    Directory().Write("rsyslog.conf", "global(workDirectory=\"" + directory +
                                          "\" maxMessageSize=\"64k\" processInternalMessages=\"off\"\n"
                                          "  parser.escapeControlCharactersOnReceive=\"off\" net.enableDNS=\"off\"" +
                                          (transport == Transport::Tls ? TlsFiles() : "") + ")\n" + Module(transport) +
                                          "template(name=\"line\" type=\"string\" string=\"" + format +
                                          "\\n\")\n"
                                          "ruleset(name=\"received\") {\n"
                                          "  action(type=\"omfile\" file=\"" +
                                          OutputFile().string() +
                                          "\" template=\"line\")\n"
                                          "}\n" +
                                          Input(transport, framing));
    Start(FindProgram(Daemon::Rsyslog),
          {"-n", "-f", (Directory().Path() / "rsyslog.conf").string(), "-i", (Directory().Path() / "pid").string()});
  }

 private:
  std::string TlsFiles() const {
    return "\n  defaultNetstreamDriverCAFile=\"" + CertificateFile().string() + "\" defaultNetstreamDriverCertFile=\"" +
           CertificateFile().string() + "\"\n  defaultNetstreamDriverKeyFile=\"" + KeyFile().string() + "\"";
  }

  static std::string Module(Transport transport) {
    switch (transport) {
      case Transport::Udp: return "module(load=\"imudp\")\n";
      case Transport::Tls:
        return "module(load=\"imtcp\" streamDriver.name=\"ossl\" streamDriver.mode=\"1\" "
               "streamDriver.authMode=\"anon\")\n";
      case Transport::Tcp: break;
    }
    return "module(load=\"imtcp\")\n";
  }

  std::string Input(Transport transport, StreamFraming framing) const {
    const std::string common = "address=\"127.0.0.1\" port=\"0\" ruleset=\"received\" ";
    if (transport == Transport::Udp) {
      return "input(type=\"imudp\" " + common + "rcvbufSize=\"" + receiveBuffer + "\")\n";
    }
    // Run by an ordinary user with port 0, it does not listen without a port file.
    return "input(type=\"imtcp\" " + common + "supportOctetCountedFraming=\"" +
           (framing == StreamFraming::OctetCounting ? "on" : "off") + "\" listenPortFileName=\"" +
           (Directory().Path() / "port").string() + "\")\n";
  }
};

class SyslogNg : public Receiver {
 public:
  SyslogNg(Transport transport, Writing writing, StreamFraming framing) : Receiver(transport) {
    const bool raw = writing == Writing::Raw;
    Directory().Write("syslog-ng.conf",
                      std::string("@version: 3.38\n"
                                  "options { keep-hostname(yes); stats-freq(0); log-msg-size(65536); use-dns(no); };\n"
                                  "source received { ") +
                          // The syslog driver counts octets over streams.
                          (framing == StreamFraming::OctetCounting ? "syslog" : "network") +
                          "(ip(\"127.0.0.1\") port(0) " + TransportOptions(transport) + " flags(" +
                          (raw ? "no-parse" : "syslog-protocol") +
                          ")); };\n"
                          "destination file { file(\"" +
                          OutputFile().string() + "\" template(\"" + (raw ? "$MSG" : "$HOST|$PROGRAM|$MSG") +
                          "\\n\")); };\n"
                          "log { source(received); destination(file); flags(flow-control); };\n");
    const auto file = [this](const char* name) { return (Directory().Path() / name).string(); };
    Start(FindProgram(Daemon::SyslogNg),
          {"--foreground", "--no-caps", "--cfgfile=" + file("syslog-ng.conf"), "--persist-file=" + file("persist"),
           "--pidfile=" + file("pid"), "--control=" + file("control")});
  }

 private:
  std::string TransportOptions(Transport transport) const {
    switch (transport) {
      case Transport::Udp: return std::string("transport(\"udp\") so-rcvbuf(") + receiveBuffer + ")";
      case Transport::Tls:
        return "transport(\"tls\") tls(key-file(\"" + KeyFile().string() + "\") cert-file(\"" +
               CertificateFile().string() + "\") peer-verify(optional-untrusted))";
      case Transport::Tcp: break;
    }
    return "transport(\"tcp\")";
  }
};

}  // namespace

Receiver::Receiver(Transport transport) : m_transport(transport) {
  if (transport != Transport::Tls) return;
  m_directory.Write("certificate.pem", ServerIdentity().CertificatePem());
  m_directory.Write("key.pem", ServerIdentity().KeyPem());
}

Receiver::~Receiver() = default;

void Receiver::Start(const std::filesystem::path& program, const std::vector<std::string>& arguments) {
  m_pProcess = std::make_unique<ChildProcess>(program, arguments);
}

/// Returns the port that the system chose, or 0 while the daemon does not listen. Daemons do not report it: it is the
/// port on which the process listens.
std::uint16_t Receiver::FindPort() const {
  const std::filesystem::path process = "/proc/" + std::to_string(m_pProcess->Id());
  std::set<std::string> sockets;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator(process / "fd", gone)) {
    sockets.insert(std::filesystem::read_symlink(entry.path(), gone).string());
  }
  const bool isUdp = m_transport == Transport::Udp;
  std::ifstream table(process / "net" / (isUdp ? "udp" : "tcp"));
  const char* const listening = isUdp ? "07" : "0A";
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    const std::vector<std::string> fields((std::istream_iterator<std::string>(words)), {});
    if (fields.size() < 10 || fields[3] != listening || !sockets.contains("socket:[" + fields[9] + "]")) continue;
    return static_cast<std::uint16_t>(std::stoul(fields[1].substr(fields[1].find(':') + 1), nullptr, 16));
  }
  return 0;
}

std::uint16_t Receiver::WaitForPort() {
  std::uint16_t port = 0;
  WaitUntil([&] { return (port = FindPort()) != 0 || m_pProcess->Wait(0ms).has_value(); }, daemonPatience);
  if (port == 0) throw std::runtime_error("the receiver does not listen: " + m_pProcess->Errors());
  return port;
}

bool Receiver::WaitForBytes(std::uintmax_t bytes) const {
  std::error_code absent;
  std::uintmax_t size = 0;
  auto lastGrowth = std::chrono::steady_clock::now();
  for (;;) {
    const std::uintmax_t now =
        std::filesystem::exists(OutputFile(), absent) ? std::filesystem::file_size(OutputFile(), absent) : 0;
    if (now >= bytes) return true;
    if (now > size) lastGrowth = std::chrono::steady_clock::now();
    if (std::chrono::steady_clock::now() - lastGrowth > patience) return false;
    size = now;
    std::this_thread::sleep_for(2ms);
  }
}

std::string Receiver::Collect(std::uintmax_t bytes) {
  WaitForBytes(bytes);
  m_pProcess->RequestEnd();
  if (!m_pProcess->Wait(daemonPatience)) throw std::runtime_error("the receiver does not end");
  return TemporaryDirectory::Read(OutputFile());
}

bool IsThere(Daemon daemon, Transport transport) {
  if (!std::filesystem::exists(FindProgram(daemon))) return false;
  if (daemon != Daemon::Rsyslog || transport != Transport::Tls) return true;
  // Its TLS driver is in a separate package.
  std::error_code unreadable;
  const std::filesystem::directory_iterator libraries("/usr/lib", unreadable);
  return std::any_of(begin(libraries), end(libraries), [](const std::filesystem::directory_entry& directory) {
    std::error_code absent;
    return std::filesystem::exists(directory.path() / "rsyslog" / "lmnsd_ossl.so", absent);
  });
}

std::unique_ptr<Receiver> StartReceiver(Daemon daemon, Transport transport, Writing writing, StreamFraming framing) {
  if (daemon == Daemon::Rsyslog) return std::make_unique<Rsyslog>(transport, writing, framing);
  return std::make_unique<SyslogNg>(transport, writing, framing);
}

}  // namespace sorvex::test
