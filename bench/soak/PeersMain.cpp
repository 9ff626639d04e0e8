// The peers of the soak, in a process of their own, so that their resources do not count as the sockets'.
//
//   soak_peers [SEED]   (default: a random one)
//
// Prints the port on which it waits for `soak`; PeerControl.h describes what the two say. At the end prints what each
// peer got. Exits 0 if every payload that arrived was whole, none came twice, each producer's came in order, and every
// connection ended.
#include "PeerControl.h"
#include "Peers.h"

#include <support/TlsIdentity.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace sorvex::soak {
namespace {

using boost::asio::ip::tcp;

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
static_assert(std::size(peerKinds) == peerCount);

class Program {
 public:
  explicit Program(std::uint32_t seed) : m_tls(boost::asio::ssl::context::tls_server) {
    const test::TlsIdentity identity("soak");
    SSL_CTX_use_certificate(m_tls.native_handle(), identity.Certificate());
    SSL_CTX_use_PrivateKey(m_tls.native_handle(), identity.Key());
    for (const PeerKind& kind : peerKinds) {
      ++seed;
      if (kind.isDatagram) {
        m_peers.push_back(std::make_unique<DatagramPeer>(m_context, kind.name, seed));
      } else {
        m_peers.push_back(std::make_unique<StreamPeer>(m_context, kind.name, seed, kind.isTls ? &m_tls : nullptr));
      }
    }
  }

  /// Returns whether everything was right.
  bool Run() {
    tcp::acceptor acceptor(m_context, {boost::asio::ip::address_v4::loopback(), 0});
    std::cout << acceptor.local_endpoint().port() << std::endl;
    tcp::socket control = acceptor.accept();
    acceptor.close();
    Tell(control, [](const Peer& peer) { return std::to_string(peer.Port()); });
    char command = 0;
    bool isFinished = false;
    control.async_read_some(boost::asio::buffer(&command, 1), [&](const boost::system::error_code& error, std::size_t) {
      isFinished = !error;
      for (const auto& peer : m_peers) peer->Finish();
      // What does not end by itself ends with the context.
      m_context.stop();
    });
    m_context.run();
    if (!isFinished) throw std::runtime_error("the soak has ended early");
    const bool haveEnded = HaveConnectionsEnded();
    Tell(control, [](const Peer& peer) { return std::to_string(peer.Payloads()); });
    return Report() && haveEnded;
  }

 private:
  template <class Value>
  void Tell(tcp::socket& control, Value value) const {
    std::string text;
    for (const auto& peer : m_peers) text += peer->Name() + ' ' + value(*peer) + '\n';
    boost::asio::write(control, boost::asio::buffer(text));
  }

  bool HaveConnectionsEnded() {
    m_context.restart();
    const auto begin = std::chrono::steady_clock::now();
    m_context.run_for(finishLimit);
    if (std::chrono::steady_clock::now() - begin < finishLimit) return true;
    std::fputs("soak: a connection has not ended\n", stderr);
    return false;
  }

  bool Report() const {
    bool isGood = true;
    for (const auto& peer : m_peers) {
      std::printf("%-12s received %llu, torn, doubled or out of order %llu; faults:%s\n", peer->Name().c_str(),
                  static_cast<unsigned long long>(peer->Payloads()), static_cast<unsigned long long>(peer->Problems()),
                  peer->Faults().c_str());
      isGood = isGood && peer->Problems() == 0;
    }
    std::fflush(stdout);
    return isGood;
  }

  boost::asio::io_context m_context{1};
  boost::asio::ssl::context m_tls;
  std::vector<std::unique_ptr<Peer>> m_peers;
};

}  // namespace
}  // namespace sorvex::soak

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  try {
    const auto seed =
        argc > 1 ? static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10)) : std::random_device()();
    return sorvex::soak::Program(seed).Run() ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak: peers: %s\n", error.what());
    return 1;
  }
}
