// How fast the raw TLS socket receives as much as a download at a time, compared with the TLS library's own client.
//
//   receive_benchmark [REPETITIONS]
//
// A child process serves 100 MiB over TLS 1.2 to each client. SSLTCPRawSocket reads them in one Receive, and "openssl
// s_client" writes them to /dev/null, in turns. The server measures both over the whole connection, so that starting a
// program counts for neither. Prints the rates and the ratio of their medians.
#include "sockets/SSLTCPRawSocket.h"

#include "CertificateFile.h"
#include "LoopbackServer.h"
#include "Quantile.h"

#include <host/Text.h>

#include <fcntl.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace sorvex::bench {
namespace {

using VaroCommunicationAPI::SSLProtocolList;
using VaroCommunicationAPI::SSLTCPRawSocket;

constexpr std::uint32_t downloadBytes = 100 * 1024 * 1024;
constexpr std::uint32_t noTimeout = 0xFFFFFFFF;

/// One child process that serves one connection after another until it is destroyed.
class Server {
 public:
  explicit Server(const test::TlsIdentity& identity) : m_listener(BindLoopback(SOCK_STREAM, m_port)) {
    if (listen(m_listener, 16) != 0) ThrowSystemError("listen");
    if (pipe2(m_report, O_CLOEXEC) != 0) ThrowSystemError("pipe2");
    m_process = fork();
    if (m_process < 0) ThrowSystemError("fork");
    if (m_process == 0) Serve(identity);
  }
  ~Server() {
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::uint16_t Port() const { return m_port; }

  /// Waits for the end of the next connection and returns how long it lasted.
  double WaitForSeconds() const {
    double seconds = 0;
    if (read(m_report[0], &seconds, sizeof seconds) != sizeof seconds) ThrowSystemError("server");
    return seconds;
  }

 private:
  [[noreturn]] void Serve(const test::TlsIdentity& identity) const {
    signal(SIGPIPE, SIG_IGN);
    const auto context = MakeServerContext(identity);
    std::vector<char> download(downloadBytes);
    for (std::size_t i = 0; i < download.size(); ++i) download[i] = static_cast<char>(i * 31 >> 8);
    for (;;) {
      const int connection = accept(m_listener, nullptr, nullptr);
      if (connection < 0) _exit(1);
      const auto begin = std::chrono::steady_clock::now();
      ServeOne(connection, context.get(), download);
      close(connection);
      const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
      const double seconds = elapsed.count();
      if (write(m_report[1], &seconds, sizeof seconds) != sizeof seconds) _exit(1);
    }
  }

  /// Returns when the client has read everything and closed.
  static void ServeOne(int connection, SSL_CTX* context, const std::vector<char>& download) {
    const std::unique_ptr<SSL, void (*)(SSL*)> session(SSL_new(context), &SSL_free);
    SSL_set_fd(session.get(), connection);
    std::size_t written = 0;
    if (SSL_accept(session.get()) != 1) return;
    if (SSL_write_ex(session.get(), download.data(), download.size(), &written) != 1) return;
    SSL_shutdown(session.get());
    shutdown(connection, SHUT_WR);
    char farewell[256];
    while (read(connection, farewell, sizeof farewell) > 0) {
    }
  }

  std::uint16_t m_port = 0;
  int m_listener;
  int m_report[2] = {};
  pid_t m_process = -1;
};

void DownloadByRawSocket(std::uint16_t port, const std::string& certificate, std::vector<char>& buffer) {
  SSLTCPRawSocket socket{SSLProtocolList()};
  socket.SetCertificateFile(WindowsAgentCommon::Utf8ToWide(certificate));
  socket.Open(L"127.0.0.1", port);
  if (socket.Receive(buffer.data(), downloadBytes, noTimeout) != static_cast<std::int32_t>(downloadBytes)) {
    throw std::runtime_error("the raw socket failed: " + std::to_string(socket.GetLastResultCode()));
  }
  socket.Close();
}

void DownloadByClient(std::uint16_t port, const std::string& certificate) {
  const std::string target = "127.0.0.1:" + std::to_string(port);
  const pid_t client = fork();
  if (client < 0) ThrowSystemError("fork");
  if (client == 0) {
    const int nothing = open("/dev/null", O_RDWR);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, standard);
    // Quiet: it reads until the server ends, whatever is on its standard input.
    execlp("openssl", "openssl", "s_client", "-quiet", "-tls1_2", "-CAfile", certificate.c_str(), "-connect",
           target.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  if (waitpid(client, &status, 0) != client || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("openssl s_client failed");
  }
}

void Run(int repetitions) {
  const test::TlsIdentity identity("download");
  const Server server(identity);
  const CertificateFile certificate(identity);
  // Touched once, because the cost of the pages is the caller's.
  std::vector<char> buffer(downloadBytes, 1);
  const auto rate = [&server] { return downloadBytes / 1e6 / server.WaitForSeconds(); };
  const auto byRawSocket = [&] {
    DownloadByRawSocket(server.Port(), certificate.Name(), buffer);
    return rate();
  };
  const auto byClient = [&] {
    DownloadByClient(server.Port(), certificate.Name());
    return rate();
  };
  std::vector<double> raw;
  std::vector<double> client;
  std::puts("| Run | SSLTCPRawSocket (MB/s) | openssl s_client (MB/s) |\n| ---: | ---: | ---: |");
  for (int run = 1; run <= repetitions; ++run) {
    raw.push_back(byRawSocket());
    client.push_back(byClient());
    std::printf("| %d | %.0f | %.0f |\n", run, raw.back(), client.back());
  }
  std::printf("\n%u bytes over TLS 1.2 (%s), medians: %.0f MB/s and %.0f MB/s, %.2f times the client's.\n",
              downloadBytes, cipherList, Median(raw), Median(client), Median(raw) / Median(client));
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  const int repetitions = argc > 1 ? std::atoi(argv[1]) : 5;
  if (repetitions < 1) {
    std::fputs("usage: receive_benchmark [REPETITIONS]\n", stderr);
    return 2;
  }
  try {
    sorvex::bench::Run(repetitions);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "receive_benchmark: %s\n", error.what());
    return 1;
  }
}
