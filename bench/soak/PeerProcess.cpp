#include "PeerProcess.h"

#include "LoopbackServer.h"
#include "Peers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace sorvex::soak {

namespace {

using bench::ThrowSystemError;

/// Connections that the sender has ended reach the peers at once; after this time one has been left open.
constexpr std::chrono::seconds finishLimit{20};

struct PeerKind {
  const char* name;
  bool isDatagram;
  bool isTls;
};

constexpr PeerKind peerKinds[] = {
    {"TCP-queued", false, false},   {"TLS-queued", false, true},   {"UDP-queued", true, false},
    {"TCP-blocking", false, false}, {"TLS-blocking", false, true}, {"UDP-blocking", true, false},
};

/// Runs the peers until `input` ends. Returns the exit status.
int RunPeers(std::uint32_t seed, int input, int output) {
  signal(SIGPIPE, SIG_IGN);
  boost::asio::io_context context(1);
  const test::TlsIdentity identity("soak");
  boost::asio::ssl::context tls(boost::asio::ssl::context::tls_server);
  SSL_CTX_use_certificate(tls.native_handle(), identity.Certificate());
  SSL_CTX_use_PrivateKey(tls.native_handle(), identity.Key());
  std::vector<std::unique_ptr<Peer>> peers;
  for (const PeerKind& kind : peerKinds) {
    ++seed;
    if (kind.isDatagram) {
      peers.push_back(std::make_unique<DatagramPeer>(context, kind.name, seed));
    } else {
      peers.push_back(std::make_unique<StreamPeer>(context, kind.name, seed, kind.isTls ? &tls : nullptr));
    }
    dprintf(output, "%s %u\n", kind.name, peers.back()->Port());
  }
  boost::asio::posix::stream_descriptor end(context, input);
  char nothing = 0;
  end.async_read_some(boost::asio::buffer(&nothing, 1), [&](const boost::system::error_code&, std::size_t) {
    for (const auto& peer : peers) peer->Finish();
    // What does not end by itself ends with the context.
    context.stop();
  });
  context.run();
  context.restart();
  const auto begin = std::chrono::steady_clock::now();
  context.run_for(finishLimit);
  bool isGood = true;
  if (std::chrono::steady_clock::now() - begin >= finishLimit) {
    std::fputs("soak: a connection has not ended\n", stderr);
    isGood = false;
  }
  for (const auto& peer : peers) {
    dprintf(output, "%s %llu\n", peer->Name().c_str(), static_cast<unsigned long long>(peer->Payloads()));
    std::printf("%-12s received %llu, torn, doubled or out of order %llu; faults:%s\n", peer->Name().c_str(),
                static_cast<unsigned long long>(peer->Payloads()), static_cast<unsigned long long>(peer->Problems()),
                peer->Faults().c_str());
    isGood = isGood && peer->Problems() == 0;
  }
  std::fflush(stdout);
  return isGood ? 0 : 1;
}

/// Reads "peer number" lines, one for each peer.
template <class Number>
void ReadNumbers(std::FILE* input, std::map<std::string, Number>& numbers) {
  for ([[maybe_unused]] const PeerKind& kind : peerKinds) {
    char name[32];
    unsigned long long number = 0;
    if (std::fscanf(input, "%31s %llu", name, &number) != 2) throw std::runtime_error("the peers have failed");
    numbers[name] = static_cast<Number>(number);
  }
}

}  // namespace

PeerProcess::PeerProcess(std::uint32_t seed) {
  int toPeers[2];
  int fromPeers[2];
  if (pipe2(toPeers, O_CLOEXEC) != 0 || pipe2(fromPeers, O_CLOEXEC) != 0) ThrowSystemError("pipe2");
  m_process = fork();
  if (m_process < 0) ThrowSystemError("fork");
  if (m_process == 0) {
    close(toPeers[1]);
    close(fromPeers[0]);
    int status = 1;
    try {
      status = RunPeers(seed, toPeers[0], fromPeers[1]);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "soak: peers: %s\n", error.what());
    }
    _exit(status);
  }
  close(toPeers[0]);
  close(fromPeers[1]);
  m_toPeers = toPeers[1];
  m_pFromPeers = fdopen(fromPeers[0], "r");
  ReadNumbers(m_pFromPeers, m_ports);
}

PeerProcess::~PeerProcess() {
  if (m_process > 0) {
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
  }
  if (m_toPeers >= 0) close(m_toPeers);
  std::fclose(m_pFromPeers);
}

bool PeerProcess::Finish(std::map<std::string, std::uint64_t>& received) {
  close(std::exchange(m_toPeers, -1));
  ReadNumbers(m_pFromPeers, received);
  int status = 0;
  if (waitpid(m_process, &status, 0) != m_process) ThrowSystemError("waitpid");
  m_process = -1;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace sorvex::soak
