#include "Peers.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace sorvex::soak {

namespace {

using namespace std::chrono_literals;
using boost::system::error_code;

/// Problems beyond these are only counted.
constexpr std::uint64_t shownProblems = 20;

/// A port that somebody else has taken for a moment is tried again.
constexpr auto bindPause = 100ms;

/// A slow receiver reads that much, that often: about 400 kB a second.
constexpr std::size_t slowBytes = 8192;
constexpr auto slowPause = 20ms;

/// More than a black hole's queue of waiting connections holds.
constexpr int fillers = 4;

}  // namespace

Peer::Peer(boost::asio::io_context& context, std::string name, std::uint32_t seed)
    : m_context(context), m_random(seed), m_faultTimer(context), m_bindTimer(context), m_name(std::move(name)) {}

std::string Peer::Faults() const {
  std::string text;
  for (const auto& [fault, count] : m_faults) text += ' ' + fault + ' ' + std::to_string(count);
  return text;
}

void Peer::TakePayload(std::string_view payload) {
  const std::string problem = m_journal.Take(payload);
  if (problem.empty() || ++m_problems > shownProblems) return;
  std::fprintf(stderr, "soak: %s: %s\n", m_name.c_str(), problem.c_str());
}

void Peer::StopTimers() {
  m_bFinishing = true;
  m_faultTimer.cancel();
  m_bindTimer.cancel();
}

std::chrono::milliseconds Peer::Random(std::chrono::milliseconds least, std::chrono::milliseconds most) {
  return std::chrono::milliseconds(std::uniform_int_distribution<std::int64_t>(least.count(), most.count())(m_random));
}

/// One connection.
class StreamPeer::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(StreamPeer& peer, tcp::socket socket)
      : m_peer(peer),
        m_stream(std::move(socket), peer.m_pTls ? *peer.m_pTls : *peer.m_plain),
        m_bReady(!peer.m_pTls),
        m_slowTimer(peer.m_context) {}

  /// Continues with the handshake or with reading, if the peer wants it.
  void Continue() {
    if (m_bBusy || m_bClosed || !m_peer.m_bReading) return;
    m_bBusy = true;
    const auto done = [self = shared_from_this()](const error_code& error, std::size_t count = 0) {
      self->Complete(error, count);
    };
    if (!m_bReady) {
      m_stream.async_handshake(boost::asio::ssl::stream_base::server, done);
      return;
    }
    const auto buffer = boost::asio::buffer(m_buffer.data(), m_peer.m_bSlow ? slowBytes : m_buffer.size());
    if (m_peer.m_pTls) {
      m_stream.async_read_some(buffer, done);
    } else {
      m_stream.next_layer().async_read_some(buffer, done);
    }
  }

  void Reset() {
    error_code ignored;
    m_stream.next_layer().set_option(boost::asio::socket_base::linger(true, 0), ignored);
    Close();
  }

  /// Over TLS with a close_notify.
  void CloseOrderly() {
    if (!m_peer.m_pTls || !m_bReady) return Close();
    SSL_shutdown(m_stream.native_handle());
    m_stream.async_write_some(boost::asio::buffer("", 0),
                              [self = shared_from_this()](const error_code&, std::size_t) { self->Close(); });
  }

 private:
  void Complete(const error_code& error, std::size_t count) {
    m_bBusy = false;
    // What a cut connection still held is lost with it.
    if (m_bClosed) return;
    if (m_bReady) {
      m_text.append(m_buffer, 0, count);
      TakeLines();
    }
    if (error) return Close();
    m_bReady = true;
    if (m_peer.m_bTalking && count > 0) Answer();
    if (!m_peer.m_bSlow) return Continue();
    m_slowTimer.expires_after(slowPause);
    m_slowTimer.async_wait([self = shared_from_this()](const error_code&) { self->Continue(); });
  }

  /// Sends a few bytes, which nobody reads; one answer at a time.
  void Answer() {
    if (std::exchange(m_bAnswering, true)) return;
    const auto done = [self = shared_from_this()](const error_code&, std::size_t) { self->m_bAnswering = false; };
    static constexpr std::string_view answer = "ok\n";
    if (m_peer.m_pTls) {
      boost::asio::async_write(m_stream, boost::asio::buffer(answer), done);
    } else {
      boost::asio::async_write(m_stream.next_layer(), boost::asio::buffer(answer), done);
    }
  }

  void TakeLines() {
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = m_text.find('\n', begin)) != std::string::npos; begin = end + 1) {
      m_peer.TakePayload(std::string_view(m_text).substr(begin, end - begin));
    }
    m_text.erase(0, begin);
  }

  void Close() {
    m_bClosed = true;
    m_slowTimer.cancel();
    error_code ignored;
    m_stream.next_layer().close(ignored);
    m_peer.m_sessions.erase(shared_from_this());
  }

  StreamPeer& m_peer;
  boost::asio::ssl::stream<tcp::socket> m_stream;
  bool m_bReady;
  bool m_bBusy = false;
  bool m_bClosed = false;
  bool m_bAnswering = false;
  boost::asio::steady_timer m_slowTimer;
  std::string m_buffer = std::string(65536, '\0');
  std::string m_text;
};

StreamPeer::StreamPeer(boost::asio::io_context& context, std::string name, std::uint32_t seed,
                       boost::asio::ssl::context* tls)
    : Peer(context, std::move(name), seed),
      m_plain(std::make_unique<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server)),
      m_pTls(tls),
      m_acceptor(context) {
  Listen();
  After(m_faultTimer, Random(500ms, 3s), [this] { Injected(); });
}

void StreamPeer::Listen() {
  error_code error;
  m_bindTimer.cancel();
  m_acceptor.close();
  m_acceptor.open(tcp::v4());
  m_acceptor.set_option(tcp::acceptor::reuse_address(true));
  m_acceptor.bind({boost::asio::ip::address_v4::loopback(), m_port}, error);
  if (error) {
    m_acceptor.close();
    return After(m_bindTimer, bindPause, [this] { Listen(); });
  }
  m_acceptor.listen();
  m_port = m_acceptor.local_endpoint().port();
  Accept();
}

void StreamPeer::Accept() {
  m_acceptor.async_accept([this](const error_code& error, tcp::socket socket) {
    if (error) return;
    (*m_sessions.insert(std::make_shared<Session>(*this, std::move(socket))).first)->Continue();
    Accept();
  });
}

void StreamPeer::SetReading(bool isReading) {
  m_bReading = isReading;
  const auto sessions = m_sessions;
  for (const auto& session : sessions) session->Continue();
}

void StreamPeer::CloseAll(bool withReset) {
  const auto sessions = m_sessions;
  for (const auto& session : sessions) withReset ? session->Reset() : session->CloseOrderly();
}

void StreamPeer::Injected() {
  auto pause = Random(500ms, 3s);
  const auto again = [this] { Injected(); };
  const bool withReset = m_random() % 2 == 0;
  switch (m_random() % 8) {
    case 0:
      CountFault("reset");
      CloseAll(true);
      return After(m_faultTimer, pause, again);
    case 1:
      CountFault("close");
      CloseAll(false);
      return After(m_faultTimer, pause, again);
    case 2:
      // Meanwhile a new connection is accepted but gets no handshake.
      CountFault("stop-reading");
      SetReading(false);
      return After(m_faultTimer, Random(500ms, 4s), [=, this] {
        SetReading(true);
        After(m_faultTimer, pause, again);
      });
    case 6:
      CountFault("talk");
      m_bTalking = true;
      return After(m_faultTimer, Random(500ms, 4s), [=, this] {
        m_bTalking = false;
        After(m_faultTimer, pause, again);
      });
    case 7:
      CountFault("slow");
      m_bSlow = true;
      return After(m_faultTimer, Random(500ms, 4s), [=, this] {
        m_bSlow = false;
        After(m_faultTimer, pause, again);
      });
    case 3:
      CountFault("restart");
      m_acceptor.close();
      CloseAll(withReset);
      Listen();
      return After(m_faultTimer, pause, again);
    case 4:
      CountFault("refuse");
      m_acceptor.close();
      CloseAll(withReset);
      return After(m_faultTimer, Random(500ms, 4s), [=, this] {
        Listen();
        After(m_faultTimer, pause, again);
      });
    default:
      CountFault("black-hole");
      m_acceptor.close();
      CloseAll(withReset);
      DigBlackHole();
      return After(m_faultTimer, Random(500ms, 4s), [=, this] {
        m_fillers.clear();
        m_acceptor.close();
        Listen();
        After(m_faultTimer, pause, again);
      });
  }
}

/// Listens without accepting, and fills the queue of waiting connections.
void StreamPeer::DigBlackHole() {
  error_code error;
  const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), m_port);
  m_acceptor.open(tcp::v4());
  m_acceptor.set_option(tcp::acceptor::reuse_address(true));
  m_acceptor.bind(endpoint, error);
  // If somebody else has taken the port, nobody listens.
  if (error) return m_acceptor.close();
  m_acceptor.listen(0);
  for (int i = 0; i < fillers; ++i) {
    m_fillers.push_back(std::make_unique<tcp::socket>(m_context));
    m_fillers.back()->async_connect(endpoint, [](const error_code&) {});
  }
}

void StreamPeer::Finish() {
  StopTimers();
  // The end of a connection comes after all that is still unread.
  m_fillers.clear();
  m_acceptor.close();
  m_bSlow = false;
  SetReading(true);
}

DatagramPeer::DatagramPeer(boost::asio::io_context& context, std::string name, std::uint32_t seed)
    : Peer(context, std::move(name), seed), m_socket(context) {
  Bind();
  After(m_faultTimer, Random(500ms, 3s), [this] { Injected(); });
}

void DatagramPeer::Bind() {
  error_code error;
  m_socket.open(boost::asio::ip::udp::v4());
  m_socket.bind({boost::asio::ip::address_v4::loopback(), m_port}, error);
  if (error) {
    m_socket.close();
    return After(m_bindTimer, bindPause, [this] { Bind(); });
  }
  m_port = m_socket.local_endpoint().port();
  Receive();
}

void DatagramPeer::Receive() {
  m_socket.async_receive(boost::asio::buffer(m_buffer), [this](const error_code& error, std::size_t size) {
    if (error) return;
    TakePayload(std::string_view(m_buffer).substr(0, size));
    Receive();
  });
}

void DatagramPeer::Injected() {
  CountFault("closed-port");
  m_socket.close();
  After(m_faultTimer, Random(200ms, 3s), [this] {
    Bind();
    After(m_faultTimer, Random(500ms, 3s), [this] { Injected(); });
  });
}

void DatagramPeer::Finish() {
  StopTimers();
  m_socket.close();
}

}  // namespace sorvex::soak
