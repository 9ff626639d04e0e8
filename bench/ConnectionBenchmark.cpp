// What many agents' connections to one configuration server cost, compared with bare TLS connections to it.
//
//   connection_benchmark [AGENTS [THREADS]]   (default: 2000 4)
//
// Starts sorvex-configserver and has each agent register, report its status and ask for its fingerprint: three
// connections of two exchanges each. The contestants take turns:
//   - bare TLS connections by OpenSSL, with one context for all;
//   - the same with a context each, as the module makes them;
//   - the same with the agents' exchanges, each request in one write;
//   - the raw TLS socket, opened and closed;
//   - the module's connection, with its exchanges;
//   - the same, by fewer agents, with the environment naming the system's bundle of certificates.
// Then 200 connections send one byte of a request each second, and the module's are measured again. Processor time is
// that of the threads acting as agents, and of the server's process. Prints Markdown tables.
#include "AgentInstallation.h"
#include "Quantile.h"
#include "WireData.h"

#include "connection/SSLConfigServerConnection.h"
#include "sockets/SSLTCPRawSocket.h"

#include <integration/configserver/ConfigServerProcess.h>

#include <malloc.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace sorvex::bench {
namespace {

using SSLConfigServerProto::WireProtocol;
using VaroCommunicationAPI::SSLConfigServerConnection;
using VaroCommunicationAPI::SSLProtocolList;
using VaroCommunicationAPI::SSLTCPRawSocket;

constexpr int rounds = 5;
constexpr int connectionsPerAgent = 3;
constexpr int exchangesPerConnection = 2;
constexpr int dribblingConnections = 200;
constexpr int openAtOnce = 100;
/// Connections with the bundle take twenty times as long, so only one agent in twenty makes them.
constexpr int bundleStep = 20;

std::string AgentName(int agent) { return "agent-" + std::to_string(agent); }

// --- Bare TLS

using Context = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;

/// Trusts the file and negotiates what the module does.
Context MakeContext(const std::string& trusted) {
  Context context(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
  SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  if (SSL_CTX_load_verify_locations(context.get(), trusted.c_str(), nullptr) != 1) {
    throw std::runtime_error("no trusted certificate");
  }
  return context;
}

class BareConnection {
 public:
  BareConnection(std::uint16_t port, SSL_CTX* context) : m_session(SSL_new(context), &SSL_free) {
    m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    SSL_set_fd(m_session.get(), m_socket);
    if (connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        SSL_connect(m_session.get()) != 1) {
      close(m_socket);
      throw std::runtime_error("no bare connection");
    }
  }
  ~BareConnection() {
    SSL_shutdown(m_session.get());
    close(m_socket);
  }
  BareConnection(const BareConnection&) = delete;
  BareConnection& operator=(const BareConnection&) = delete;

  void Send(const std::string& bytes) const {
    if (SSL_write(m_session.get(), bytes.data(), static_cast<int>(bytes.size())) <= 0) {
      throw std::runtime_error("the server takes nothing");
    }
  }

  /// Sends a request and reads as much of a response as its header says.
  void Exchange(const std::string& request) const {
    Send(request);
    const std::string header = Receive(8);
    std::size_t size = 0;
    for (std::size_t i = 4; i < header.size(); ++i) size = size * 256 + static_cast<unsigned char>(header[i]);
    Receive(size);
  }

 private:
  std::string Receive(std::size_t size) const {
    std::string bytes(size, '\0');
    for (std::size_t filled = 0; filled < size;) {
      const int count = SSL_read(m_session.get(), bytes.data() + filled, static_cast<int>(size - filled));
      if (count <= 0) throw std::runtime_error("no response");
      filled += static_cast<std::size_t>(count);
    }
    return bytes;
  }

  const std::unique_ptr<SSL, void (*)(SSL*)> m_session;
  int m_socket;
};

/// The requests of an agent's connections, after the establishment.
std::vector<std::string> RequestBytes() {
  SSLConfigServerProto::RegisterInstanceRequest registration;
  SetWireString(registration.osVersion, "Debian 12");
  SetWireString(registration.agentVersion, "7.2.5");
  SSLConfigServerProto::UpdateStatusRequest status;
  SSLConfigServerProto::ConfigurationUpdateRequest configuration;
  SetWireString(configuration.currentMD5, "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF");
  CompleteRecord(registration, WireProtocol::Version2);
  CompleteRecord(status, WireProtocol::Version2);
  CompleteRecord(configuration, WireProtocol::Version2);
  return {EncodeRecord(registration), EncodeRecord(status), EncodeRecord(configuration)};
}

// --- Measuring

struct Usage {
  double connections = 0;
  double seconds = 0;
  double agentSeconds = 0;   ///< of processor time
  double serverSeconds = 0;  ///< of processor time
};

double ThreadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Of a process with one thread.
double ProcessSeconds(long id) {
  double nanoseconds = 0;
  if (!(std::ifstream("/proc/" + std::to_string(id) + "/schedstat") >> nanoseconds)) {
    throw std::runtime_error("cannot read the server's processor time");
  }
  return nanoseconds / 1e9;
}

using ActAs = std::function<void(int agent)>;

/// Has `threads` threads act as every `step`th of the agents `first` to `last` - 1.
Usage Measure(const ActAs& actAs, int first, int last, int step, int threads, long server) {
  Usage usage;
  std::mutex mutex;
  std::atomic<int> acted{0};
  std::exception_ptr failure;
  const double serverBefore = ProcessSeconds(server);
  const auto begin = std::chrono::steady_clock::now();
  std::vector<std::thread> workers;
  for (int worker = 0; worker < threads; ++worker) {
    workers.emplace_back([&, worker] {
      try {
        for (int agent = first + worker * step; agent < last; agent += threads * step) {
          actAs(agent);
          ++acted;
        }
      } catch (...) {
        const std::lock_guard lock(mutex);
        failure = std::current_exception();
      }
      const std::lock_guard lock(mutex);
      usage.agentSeconds += ThreadSeconds();
    });
  }
  for (std::thread& worker : workers) worker.join();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
  usage.seconds = elapsed.count();
  usage.serverSeconds = ProcessSeconds(server) - serverBefore;
  usage.connections = acted * connectionsPerAgent;
  if (failure) std::rethrow_exception(failure);
  return usage;
}

struct Contestant {
  const char* title;
  int exchanges;  ///< on each connection
  ActAs actAs;
  int step = 1;         ///< one agent in this many acts
  bool bundle = false;  ///< whether the environment names it
  Usage total = {};
  std::vector<double> rates = {};  ///< connections a second in each round

  void Run(int first, int last, int threads, long server) {
    // No other thread of this process reads the environment meanwhile.
    if (bundle) setenv("SSL_CERT_FILE", X509_get_default_cert_file(), 1);
    const Usage usage = Measure(actAs, first, last, step, threads, server);
    unsetenv("SSL_CERT_FILE");
    total.connections += usage.connections;

    total.agentSeconds += usage.agentSeconds;
    total.serverSeconds += usage.serverSeconds;
    rates.push_back(usage.connections / usage.seconds);
  }

  double AgentMicroseconds() const { return total.agentSeconds / total.connections * 1e6; }
  double ServerMicroseconds() const { return total.serverSeconds / total.connections * 1e6; }
};

/// Connections that send a byte of their request each second.
class Dribble {
 public:
  Dribble(std::uint16_t port, SSL_CTX* context) : m_request(EstablishmentBytes("dribbling", agentToken)) {
    for (int i = 0; i < dribblingConnections; ++i) {
      m_connections.push_back(std::make_unique<BareConnection>(port, context));
    }
    m_thread = std::thread([this] { Run(); });
  }
  ~Dribble() {
    {
      const std::lock_guard lock(m_mutex);
      m_isEnded = true;
    }
    m_changed.notify_all();
    m_thread.join();
  }
  Dribble(const Dribble&) = delete;
  Dribble& operator=(const Dribble&) = delete;

  /// How many bytes each has sent.
  std::size_t Said() const {
    const std::lock_guard lock(m_mutex);
    return m_said;
  }

 private:
  void Run() {
    std::unique_lock lock(m_mutex);
    while (!m_isEnded && m_said < m_request.size()) {
      for (const auto& connection : m_connections) connection->Send(m_request.substr(m_said, 1));
      ++m_said;
      m_changed.wait_for(lock, std::chrono::seconds(1), [this] { return m_isEnded; });
    }
  }

  const std::string m_request;
  std::vector<std::unique_ptr<BareConnection>> m_connections;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_isEnded = false;
  std::size_t m_said = 0;
  std::thread m_thread;
};

/// What `make` allocates for each of many connections open at once, in KiB.
template <class Make>
double KibibytesOfEach(Make make) {
  const auto used = [] {
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
  };
  make();
  const double before = used();
  std::vector<decltype(make())> open;
  for (int i = 0; i < openAtOnce; ++i) open.push_back(make());
  return (used() - before) / openAtOnce / 1024;
}

void PrintTable(const std::vector<Contestant>& contestants, const Contestant& baseline) {
  std::puts(
      "| Connections | Connections/s | Exchanges/s | Agents' CPU (µs a connection) | Server's CPU (µs a connection) | "
      "Times the agents' CPU of bare connections |\n"
      "| --- | ---: | ---: | ---: | ---: | ---: |");
  for (const Contestant& contestant : contestants) {
    std::printf("| %s | %.0f | %.0f | %.0f | %.0f | %.2f |\n", contestant.title, Median(contestant.rates),
                Median(contestant.rates) * contestant.exchanges, contestant.AgentMicroseconds(),
                contestant.ServerMicroseconds(), contestant.AgentMicroseconds() / baseline.AgentMicroseconds());
  }
}

void Run(int agents, int threads) {
  unsetenv("SSL_CERT_FILE");
  unsetenv("SSL_CERT_DIR");
  const AgentInstallation installation;
  // The agents have a configuration, as they do from their first minute on.
  installation.Directory().Write("AgentConfig.md5", "0123456789abcdef0123456789abcdef");
  const AgentHost host(installation);
  test::ConfigServer server({"--request-timeout", "600"});
  const std::uint16_t port = server.Port();
  const std::string trusted = installation.TrustedFile();
  const Context kept = MakeContext(trusted);
  const std::vector<std::string> requests = RequestBytes();

  const auto actAsAgent = [port](int agent) {
    SSLConfigServerConnection connection;
    connection.Initialize(AgentHost::Parameters(port, AgentName(agent)));
    bool bBlocked = false;
    if (!connection.RegisterInstance("Debian 12", "7.2.5") ||
        !connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1)) ||
        !connection.Connect() || connection.GetConfigurationFingerprint(bBlocked).empty()) {
      throw std::runtime_error("an agent failed: " + connection.GetLastErrorMessage());
    }
    connection.Disconnect();
  };
  const auto makeRawSocket = [port] {
    auto socket = std::make_unique<SSLTCPRawSocket>(SSLProtocolList());
    socket->Open(L"127.0.0.1", port);
    if (!socket->IsConnected()) throw std::runtime_error("no connection of the raw socket");
    return socket;
  };

  std::vector<Contestant> contestants{
      {"bare, one context for all", 0,
       [&](int) {
         for (int i = 0; i < connectionsPerAgent; ++i) BareConnection(port, kept.get());
       }},
      {"bare, a context each", 0,
       [&](int) {
         for (int i = 0; i < connectionsPerAgent; ++i) BareConnection(port, MakeContext(trusted).get());
       }},
      {"bare, a context each, with the exchanges", exchangesPerConnection,
       [&](int agent) {
         const std::string establishment = EstablishmentBytes(AgentName(agent), agentToken);
         for (const std::string& request : requests) {
           const Context context = MakeContext(trusted);
           const BareConnection connection(port, context.get());
           connection.Exchange(establishment);
           connection.Exchange(request);
         }
       }},
      {"the raw TLS socket", 0,
       [&](int) {
         for (int i = 0; i < connectionsPerAgent; ++i) makeRawSocket();
       }},
      {"the module, with the exchanges", exchangesPerConnection, actAsAgent},
      {"the same, SSL_CERT_FILE set to the system's bundle", exchangesPerConnection, actAsAgent, bundleStep, true}};
  for (int round = 0; round < rounds; ++round) {
    const int first = agents * round / rounds;
    const int last = agents * (round + 1) / rounds;
    for (Contestant& contestant : contestants) contestant.Run(first, last, threads, server.Process().Id());
  }
  PrintTable(contestants, contestants[1]);

  std::printf("\nHeld by each of %d open connections: %.0f KiB bare, %.0f KiB by the raw TLS socket.\n", openAtOnce,
              KibibytesOfEach([&] { return std::make_unique<BareConnection>(port, MakeContext(trusted).get()); }),
              KibibytesOfEach(makeRawSocket));

  Contestant alone{"", exchangesPerConnection, actAsAgent};
  Contestant besides{"", exchangesPerConnection, actAsAgent};
  std::size_t said = 0;
  for (int round = 0; round < rounds; ++round) {
    const int first = agents * round / rounds;
    const int last = agents * (round + 1) / rounds;
    alone.Run(first, last, threads, server.Process().Id());
    const Dribble dribble(port, kept.get());
    besides.Run(first, last, threads, server.Process().Id());
    said += dribble.Said();
  }
  std::printf(
      "\nThe module beside %d connections that say a byte a second (%zu bytes each in all): %.0f exchanges/s, alone "
      "%.0f, "
      "%.2f times.\n",
      dribblingConnections, said, Median(besides.rates) * exchangesPerConnection,
      Median(alone.rates) * exchangesPerConnection, Median(besides.rates) / Median(alone.rates));
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  const int agents = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int threads = argc > 2 ? std::atoi(argv[2]) : 4;
  if (agents < sorvex::bench::rounds || threads < 1) {
    std::fputs("usage: connection_benchmark [AGENTS [THREADS]]\n", stderr);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  try {
    sorvex::bench::Run(agents, threads);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "connection_benchmark: %s\n", error.what());
    return 1;
  }
}
