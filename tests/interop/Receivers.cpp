#include "Receivers.h"

#include "support/LoopbackTcpServer.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;

/// Long enough for a daemon on a busy machine.
constexpr auto daemonPatience = 60s;

std::string GetEnvironment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

class Rsyslog : public Receiver {
 public:
  explicit Rsyslog(Writing writing) {
    const std::string directory = Directory().Path().string();
    // Without octet counting a line may begin with a digit; every byte is kept as it comes.
    const std::string format = writing == Writing::Raw ? "%rawmsg%" : "%hostname%|%app-name%|%msg%";
    Directory().Write("rsyslog.conf", "global(workDirectory=\"" + directory +
                                          "\" maxMessageSize=\"64k\" processInternalMessages=\"off\"\n"
                                          "  parser.escapeControlCharactersOnReceive=\"off\" net.enableDNS=\"off\")\n"
                                          "module(load=\"imtcp\")\n"
                                          "template(name=\"line\" type=\"string\" string=\"" +
                                          format +
                                          "\\n\")\n"
                                          "ruleset(name=\"received\") {\n"
                                          "  action(type=\"omfile\" file=\"" +
                                          OutputFile().string() +
                                          "\" template=\"line\")\n"
                                          "}\n"
                                          "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"0\" ruleset=\"received\"\n"
                                          "  listenPortFileName=\"" +
                                          PortFile().string() + "\" supportOctetCountedFraming=\"off\")\n");
    Start(FindDaemon(Daemon::Rsyslog),
          {"-n", "-f", (Directory().Path() / "rsyslog.conf").string(), "-i", (Directory().Path() / "pid").string()});
  }

 protected:
  std::uint16_t FindPort() const override {
    std::uint16_t port = 0;
    std::ifstream(PortFile()) >> port;
    return port;
  }

 private:
  std::filesystem::path PortFile() const { return Directory().Path() / "port"; }
};

class SyslogNg : public Receiver {
 public:
  explicit SyslogNg(Writing writing) {
    const bool raw = writing == Writing::Raw;
    Directory().Write("syslog-ng.conf",
                      std::string("@version: 3.38\n"
                                  "options { keep-hostname(yes); stats-freq(0); log-msg-size(65536); use-dns(no); };\n"
                                  "source received { network(ip(\"127.0.0.1\") port(0) transport(\"tcp\") flags(") +
                          (raw ? "no-parse" : "syslog-protocol") +
                          ")); };\n"
                          "destination file { file(\"" +
                          OutputFile().string() + "\" template(\"" + (raw ? "$MSG" : "$HOST|$PROGRAM|$MSG") +
                          "\\n\")); };\n"
                          "log { source(received); destination(file); flags(flow-control); };\n");
    const auto file = [this](const char* name) { return (Directory().Path() / name).string(); };
    Start(FindDaemon(Daemon::SyslogNg),
          {"--foreground", "--no-caps", "--cfgfile=" + file("syslog-ng.conf"), "--persist-file=" + file("persist"),
           "--pidfile=" + file("pid"), "--control=" + file("control")});
  }

 protected:
  std::uint16_t FindPort() const override {
    // It does not tell the port that the system chose: that is the one its process listens on.
    const std::filesystem::path process = "/proc/" + std::to_string(Process().Id());
    std::set<std::string> sockets;
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator(process / "fd", gone)) {
      sockets.insert(std::filesystem::read_symlink(entry.path(), gone).string());
    }
    std::ifstream table(process / "net" / "tcp");
    constexpr const char* listening = "0A";
    for (std::string line; std::getline(table, line);) {
      std::istringstream words(line);
      const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
      if (fields.size() < 10 || fields[3] != listening || !sockets.contains("socket:[" + fields[9] + "]")) continue;
      return static_cast<std::uint16_t>(std::stoul(fields[1].substr(fields[1].find(':') + 1), nullptr, 16));
    }
    return 0;
  }
};

}  // namespace

Receiver::~Receiver() = default;

void Receiver::Start(const std::filesystem::path& program, const std::vector<std::string>& arguments) {
  m_pProcess = std::make_unique<ChildProcess>(program, arguments);
}

std::uint16_t Receiver::WaitForPort() {
  std::uint16_t port = 0;
  WaitUntil([&] { return (port = FindPort()) != 0 || m_pProcess->Wait(0ms).has_value(); }, daemonPatience);
  if (port == 0) throw std::runtime_error("the receiver does not listen: " + m_pProcess->Errors());
  return port;
}

std::string Receiver::Collect(std::uintmax_t bytes) {
  std::error_code absent;
  std::uintmax_t size = 0;
  auto lastGrowth = std::chrono::steady_clock::now();
  WaitUntil(
      [&] {
        const std::uintmax_t now =
            std::filesystem::exists(OutputFile(), absent) ? std::filesystem::file_size(OutputFile(), absent) : 0;
        if (now > size) lastGrowth = std::chrono::steady_clock::now();
        size = now;
        return size >= bytes || std::chrono::steady_clock::now() - lastGrowth > patience;
      },
      daemonPatience);
  m_pProcess->RequestEnd();
  if (!m_pProcess->Wait(daemonPatience)) throw std::runtime_error("the receiver does not end");
  return TemporaryDirectory::Read(OutputFile());
}

std::filesystem::path FindDaemon(Daemon daemon) {
  if (daemon == Daemon::Rsyslog) {
    const std::filesystem::path program = "/usr/sbin/rsyslogd";
    return std::filesystem::exists(program) ? program : std::filesystem::path();
  }
  // Where script/bootstrap unpacks it: its package cannot be installed beside the other daemon's.
  const std::string cache = GetEnvironment("XDG_CACHE_HOME");
  const std::filesystem::path base = cache.empty() ? GetEnvironment("HOME") + "/.cache" : cache;
  const std::filesystem::path unpacked = base / "communicationapi" / "syslog-ng" / "run";
  return std::filesystem::exists(unpacked) ? unpacked : std::filesystem::path();
}

std::unique_ptr<Receiver> StartReceiver(Daemon daemon, Writing writing) {
  if (daemon == Daemon::Rsyslog) return std::make_unique<Rsyslog>(writing);
  return std::make_unique<SyslogNg>(writing);
}

}  // namespace sorvex::test
