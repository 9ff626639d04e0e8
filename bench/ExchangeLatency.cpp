// How long a wire protocol exchange takes over loopback, compared with the round trip of its bytes.
//
//   exchange_latency [EXCHANGES]
//
// A thread answers each UpdateStatus request, recognised by its length, with the response in one write. In turns, over
// TCP and over TLS 1.2, each on its own connection:
//   - the request's bytes in one write and the response's in one read, on a socket without delay;
//   - the client on the same plain calls: shows the cost of writing and reading the protocol in pieces;
//   - the client on the raw socket, as the agent runs it;
//   - the same with the delay that the raw socket switches off: the request's first piece goes at once, the others
//     when the server's system has acknowledged it. Fewer of these, because each may take 40 ms.
// All of them with client and server on one processor, where only work counts, and on two, where waking the other does
// too. Prints median, 99th percentile and the ratio of the medians to the bare round trip.
#include "CertificateFile.h"
#include "ConnectedSocket.h"
#include "LoopbackServer.h"
#include "Quantile.h"
#include "WireData.h"

#include "sockets/SSLTCPRawSocket.h"
#include "sockets/TCPRawSocket.h"
#include "wire/SSLConfigServerAPIClient_v2.h"

#include <host/Text.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sorvex::bench {
namespace {

using SSLConfigServerProto::SSLConfigServerAPIClient_v2;
using SSLConfigServerProto::UpdateStatusRequest;
using SSLConfigServerProto::UpdateStatusResponse;
using SSLConfigServerProto::WireProtocol;
using VaroCommunicationAPI::SocketSerializer;
using VaroCommunicationAPI::SSLProtocolList;
using VaroCommunicationAPI::SSLTCPRawSocket;
using VaroCommunicationAPI::TCPRawSocket;
using WindowsAgentCommon::IRawSocket;

/// The agent always sets a limit; a socket waits differently without one.
constexpr std::uint32_t readTimeoutMs = 60'000;
constexpr int rounds = 10;
constexpr int delayedShare = 50;  ///< one exchange in this many is made with the delay

template <class Record>
std::string BytesOf() {
  Record record;
  CompleteRecord(record, WireProtocol::Version2);
  return EncodeRecord(record);
}

const std::string& RequestBytes() {
  static const std::string bytes = BytesOf<UpdateStatusRequest>();
  return bytes;
}

const std::string& ResponseBytes() {
  static const std::string bytes = BytesOf<UpdateStatusResponse>();
  return bytes;
}

void SetDelay(int connection, bool bDelay) {
  const int withoutDelay = bDelay ? 0 : 1;
  if (setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &withoutDelay, sizeof withoutDelay) != 0) {
    ThrowSystemError("setsockopt");
  }
}

/// The processors available to this process.
std::vector<int> Processors() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) != 0) ThrowSystemError("sched_getaffinity");
  std::vector<int> processors;
  for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (CPU_ISSET(static_cast<unsigned>(processor), &set)) processors.push_back(processor);
  }
  return processors;
}

void StayOn(int processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<unsigned>(processor), &set);
  if (pthread_setaffinity_np(pthread_self(), sizeof set, &set) != 0) throw std::runtime_error("cannot stay");
}

/// One end of a connection, by plain calls of the system or the TLS library; closes it. Sends without delay.
class BareSocket : public ConnectedSocket {
 public:
  /// Plain TCP without a context. Otherwise performs the handshake, as the client unless `bServer`.
  BareSocket(int connection, SSL_CTX* context, bool bServer) : m_connection(connection) {
    SetDelay(connection, false);
    if (context == nullptr) return;
    m_pSession.reset(SSL_new(context));
    SSL_set_fd(m_pSession.get(), connection);
    if ((bServer ? SSL_accept(m_pSession.get()) : SSL_connect(m_pSession.get())) != 1) {
      close(connection);
      throw std::runtime_error("no TLS connection");
    }
  }
  ~BareSocket() override { close(m_connection); }
  BareSocket(const BareSocket&) = delete;
  BareSocket& operator=(const BareSocket&) = delete;

  static std::shared_ptr<BareSocket> ConnectTo(std::uint16_t port, SSL_CTX* context) {
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      ThrowSystemError("connect");
    }
    return std::make_shared<BareSocket>(connection, context, false);
  }

  std::int32_t Send(const void* buffer, std::uint32_t length) override {
    const auto size = static_cast<int>(length);
    return m_pSession ? SSL_write(m_pSession.get(), buffer, size)
                      : static_cast<std::int32_t>(send(m_connection, buffer, length, MSG_NOSIGNAL));
  }

  /// A short read is the end of the connection.
  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t) override {
    std::int32_t filled = 0;
    while (filled < static_cast<std::int32_t>(length)) {
      char* const next = static_cast<char*>(buffer) + filled;
      const auto left = static_cast<std::int32_t>(length) - filled;
      const auto count = m_pSession
                             ? SSL_read(m_pSession.get(), next, left)
                             : static_cast<std::int32_t>(recv(m_connection, next, static_cast<std::size_t>(left), 0));
      if (count <= 0) break;
      filled += count;
    }
    return filled;
  }

 private:
  const int m_connection;
  std::unique_ptr<SSL, void (*)(SSL*)> m_pSession{nullptr, &SSL_free};
};

/// Answers every request of one connection.
class Server {
 public:
  Server(std::shared_ptr<SSL_CTX> context, int processor)
      : m_listener(BindLoopback(SOCK_STREAM, m_port)), m_pContext(std::move(context)), m_processor(processor) {
    if (listen(m_listener, 1) != 0) ThrowSystemError("listen");
    m_thread = std::thread([this] { Answer(); });
  }
  /// Requires that the client has closed or never connected.
  ~Server() {
    shutdown(m_listener, SHUT_RDWR);
    m_thread.join();
    close(m_listener);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::uint16_t Port() const { return m_port; }

 private:
  void Answer() const {
    const int connection = accept(m_listener, nullptr, nullptr);
    if (connection < 0) return;
    try {
      StayOn(m_processor);
      BareSocket socket(connection, m_pContext.get(), true);
      std::string request(RequestBytes().size(), '\0');
      const auto requestBytes = static_cast<std::uint32_t>(request.size());
      while (socket.Receive(request.data(), requestBytes, 0) == static_cast<std::int32_t>(requestBytes)) {
        socket.Send(ResponseBytes().data(), static_cast<std::uint32_t>(ResponseBytes().size()));
      }
    } catch (const std::exception& error) {
      // The client fails as well.
      std::fprintf(stderr, "exchange_latency: server: %s\n", error.what());
    }
  }

  std::uint16_t m_port = 0;
  const int m_listener;
  const std::shared_ptr<SSL_CTX> m_pContext;
  const int m_processor;
  std::thread m_thread;
};

/// Returns this process's connection to one of its own ports.
int ConnectionTo(std::uint16_t port) {
  for (int handle = 0; handle < static_cast<int>(sysconf(_SC_OPEN_MAX)); ++handle) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(handle, reinterpret_cast<sockaddr*>(&peer), &length) == 0 && ntohs(peer.sin_port) == port) {
      return handle;
    }
  }
  throw std::runtime_error("no connection to the server");
}

/// A way to make the exchange, with its own server.
struct Contestant {
  const char* m_title;
  std::unique_ptr<Server> m_pServer;
  std::function<void()> m_exchange;  ///< owns the connection, which has to end before the server
  int m_share = 1;                   ///< makes one exchange in this many
  std::vector<double> m_microseconds = {};

  void Run(int exchanges) {
    for (int i = 0; i < exchanges; i += m_share) {
      const auto begin = std::chrono::steady_clock::now();
      m_exchange();
      const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - begin;
      m_microseconds.push_back(elapsed.count());
    }
  }
};

struct Transport {
  const char* m_title;
  std::shared_ptr<SSL_CTX> m_pServerContext;  ///< none over plain TCP; the same holds below
  std::shared_ptr<SSL_CTX> m_pClientContext;
  std::function<std::shared_ptr<IRawSocket>()> m_newRawSocket;

  std::shared_ptr<IRawSocket> ConnectBare(const Server& server) const {
    return BareSocket::ConnectTo(server.Port(), m_pClientContext.get());
  }

  std::shared_ptr<IRawSocket> ConnectRaw(const Server& server) const {
    auto socket = m_newRawSocket();
    socket->Open(L"127.0.0.1", server.Port());
    if (!socket->IsConnected()) {
      throw std::runtime_error("no connection: " + std::to_string(socket->GetLastResultCode()));
    }
    return socket;
  }
};

std::function<void()> RoundTrip(std::shared_ptr<IRawSocket> socket) {
  return [socket = std::move(socket), response = ResponseBytes()]() mutable {
    const auto bytes = static_cast<std::uint32_t>(response.size());
    socket->Send(RequestBytes().data(), static_cast<std::uint32_t>(RequestBytes().size()));
    if (socket->Receive(response.data(), bytes, readTimeoutMs) != static_cast<std::int32_t>(bytes)) {
      throw std::runtime_error("no response");
    }
  };
}

std::function<void()> ClientExchange(std::shared_ptr<IRawSocket> socket) {
  const auto serializer = std::make_shared<SocketSerializer>(std::move(socket));
  serializer->SetReadTimeout(readTimeoutMs);
  const auto client = std::make_shared<SSLConfigServerAPIClient_v2>("bench", "token", *MakeFilledBlock(publicKeyBytes));
  return [serializer, client] {
    if (client->UpdateStatus(*serializer, 0, 0) != 0) throw std::runtime_error("no success");
  };
}

void Compare(const Transport& transport, int processors, int serverProcessor, int exchanges) {
  std::vector<Contestant> contestants;
  const auto add = [&](const char* title, const auto& connect, int share = 1) {
    auto server = std::make_unique<Server>(transport.m_pServerContext, serverProcessor);
    auto exchange = connect(*server);
    contestants.push_back({title, std::move(server), std::move(exchange), share});
    // Warm-up.
    contestants.back().Run(exchanges / rounds);
    contestants.back().m_microseconds.clear();
  };
  add("bare round trip", [&](const Server& server) { return RoundTrip(transport.ConnectBare(server)); });
  add("client on the plain calls", [&](const Server& server) { return ClientExchange(transport.ConnectBare(server)); });
  add("client on the raw socket", [&](const Server& server) { return ClientExchange(transport.ConnectRaw(server)); });
  add(
      "the same with delay",
      [&](const Server& server) {
        auto exchange = ClientExchange(transport.ConnectRaw(server));
        SetDelay(ConnectionTo(server.Port()), true);
        return exchange;
      },
      delayedShare);
  for (int round = 0; round < rounds; ++round) {
    for (Contestant& contestant : contestants) contestant.Run(exchanges / rounds);
  }
  const double bare = Median(contestants.front().m_microseconds);
  for (const Contestant& contestant : contestants) {
    const double median = Median(contestant.m_microseconds);
    std::printf("| %s | %d | %s | %zu | %.1f | %.1f | %.2f |\n", transport.m_title, processors, contestant.m_title,
                contestant.m_microseconds.size(), median, Quantile(contestant.m_microseconds, 0.99), median / bare);
  }
}

void Run(int exchanges) {
  const test::TlsIdentity identity("exchange");
  const CertificateFile certificate(identity);
  const Transport tcp{"TCP", nullptr, nullptr, [] { return std::make_shared<TCPRawSocket>(); }};
  const Transport tls{"TLS", MakeServerContext(identity),
                      std::shared_ptr<SSL_CTX>(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free), [&certificate] {
                        auto socket = std::make_shared<SSLTCPRawSocket>(SSLProtocolList());
                        socket->SetCertificateFile(WindowsAgentCommon::Utf8ToWide(certificate.Name()));
                        return socket;
                      }};
  std::puts(
      "| Transport | Processors | Exchange | Number | Median (µs) | 99th percentile (µs) | Times the bare round trip "
      "|\n"
      "| --- | ---: | --- | ---: | ---: | ---: | ---: |");
  const std::vector<int> processors = Processors();
  StayOn(processors[0]);
  for (const Transport* transport : {&tcp, &tls}) {
    Compare(*transport, 1, processors[0], exchanges);
    if (processors.size() > 1) Compare(*transport, 2, processors[1], exchanges);
  }
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  const int exchanges = argc > 1 ? std::atoi(argv[1]) : 5000;
  if (exchanges < sorvex::bench::rounds) {
    std::fputs("usage: exchange_latency [EXCHANGES]\n", stderr);
    return 2;
  }
  signal(SIGPIPE, SIG_IGN);
  try {
    sorvex::bench::Run(exchanges);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "exchange_latency: %s\n", error.what());
    return 1;
  }
}
