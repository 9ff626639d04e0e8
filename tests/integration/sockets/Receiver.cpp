#include "Receiver.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace sorvex::test {

std::string Reception::PayloadOf(int number, std::size_t bytes) {
  std::string payload = std::to_string(number) + ' ' + std::to_string(bytes) + ' ';
  if (payload.size() < bytes) payload.append(bytes - payload.size(), static_cast<char>('a' + number % 26));
  return payload;
}

std::size_t Reception::AddConnection() {
  const std::lock_guard lock(m_mutex);
  m_connections.emplace_back();
  return m_connections.size() - 1;
}

void Reception::Add(std::size_t connection, std::string_view bytes) {
  const std::lock_guard lock(m_mutex);
  m_connections[connection] += bytes;
}

bool Reception::HasPayload(int number) const {
  const std::string start = std::to_string(number) + ' ';
  const std::lock_guard lock(m_mutex);
  for (const std::string& connection : m_connections) {
    // It is among the last: check the end first.
    std::size_t end = connection.size();
    while (end > 0) {
      if (connection[end - 1] != '\n') {
        end = connection.rfind('\n', end - 1);
        if (end == std::string::npos) break;
        ++end;
        continue;
      }
      const std::size_t previous = end >= 2 ? connection.rfind('\n', end - 2) : std::string::npos;
      const std::size_t begin = previous == std::string::npos ? 0 : previous + 1;
      if (connection.compare(begin, start.size(), start) == 0) return true;
      end = begin;
    }
  }
  return false;
}

std::size_t Reception::Payloads() const {
  const std::lock_guard lock(m_mutex);
  std::size_t payloads = 0;
  for (const std::string& connection : m_connections) {
    payloads += static_cast<std::size_t>(std::count(connection.begin(), connection.end(), '\n'));
  }
  return payloads;
}

std::string Reception::Text() const {
  const std::lock_guard lock(m_mutex);
  std::string text;
  for (const std::string& connection : m_connections) text += connection;
  return text;
}

Reception::Verdict Reception::Judge() const {
  Verdict verdict;
  int previous = -1;
  const auto complain = [&](std::string_view what, std::string_view payload) {
    if (verdict.complaint.empty()) verdict.complaint = std::string(what) + ": " + std::string(payload.substr(0, 80));
  };
  const std::lock_guard lock(m_mutex);
  for (const std::string& connection : m_connections) {
    std::string_view rest = connection;
    while (!rest.empty()) {
      const std::size_t end = rest.find('\n');
      const std::string_view payload = rest.substr(0, end);
      rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);

      int number = 0;
      std::size_t bytes = 0;
      const char* const last = payload.data() + payload.size();
      const auto afterNumber = std::from_chars(payload.data(), last, number);
      const auto afterBytes = afterNumber.ptr == last ? afterNumber : std::from_chars(afterNumber.ptr + 1, last, bytes);
      const bool isHeadWhole = afterBytes.ec == std::errc() && afterBytes.ptr != last;
      const std::string expected = isHeadWhole ? PayloadOf(number, bytes) : std::string();
      if (payload != expected) {
        // The connection's end, and no head of a payload to compare with, or the beginning of one.
        const bool isCut = end == std::string_view::npos && (!isHeadWhole || expected.starts_with(payload));
        if (!isCut) complain("torn", payload);
        continue;
      }
      if (number <= previous) complain("doubled, or out of order", payload);
      if (number > previous + 1) ++verdict.gaps;
      previous = number;
      ++verdict.whole;
    }
  }
  return verdict;
}

namespace {

class TcpPeerSession : public PeerSession {
 public:
  explicit TcpPeerSession(ServerConnection& connection) : m_connection(connection) {}
  bool ReadSome(std::string& text, std::size_t limit) override { return m_connection.ReadSome(text, limit); }
  void Write(const std::string& text) override { m_connection.Write(text); }
  ServerConnection& Connection() override { return m_connection; }

 private:
  ServerConnection& m_connection;
};

class TlsPeerSession : public PeerSession {
 public:
  explicit TlsPeerSession(TlsServerSession& session) : m_session(session) {}
  bool ReadSome(std::string& text, std::size_t limit) override { return m_session.ReadSome(text, limit); }
  void Write(const std::string& text) override { m_session.Write(text); }
  ServerConnection& Connection() override { return m_session.Connection(); }

 private:
  TlsServerSession& m_session;
};

}  // namespace

Receiver::Receiver(Transport transport, Reception& reception, Behaviour behaviour, std::uint16_t port,
                   TlsServerOptions options)
    : m_reception(reception), m_behaviour(std::move(behaviour)) {
  switch (transport) {
    case Transport::Tcp:
      m_pTcp = std::make_unique<LoopbackTcpServer>(
          [this](LoopbackTcpServer&, ServerConnection& connection, int index) {
            TcpPeerSession session(connection);
            Serve(session, index);
          },
          port, options.receiveBufferBytes);
      break;
    case Transport::Tls:
      options.port = port;
      m_pTls = std::make_unique<LoopbackTlsServer>(
          [this](LoopbackTlsServer&, TlsServerSession& tls, int index) {
            TlsPeerSession session(tls);
            Serve(session, index);
          },
          options);
      break;
    case Transport::Udp:
      m_pUdp = std::make_unique<LoopbackUdpServer>(
          [this, connection = reception.AddConnection()](std::string_view datagram) {
            m_reception.Add(connection, std::string(datagram) + '\n');
          },
          port);
      break;
  }
}

Receiver::~Receiver() {
  // The members are there until the last behaviour has ended.
  if (!m_pUdp) Tcp().Stop();
}

void Receiver::Serve(PeerSession& session, int index) {
  session.m_number = m_reception.AddConnection();
  m_behaviour(*this, session, index);
}

LoopbackTcpServer& Receiver::Tcp() { return m_pTls ? m_pTls->Tcp() : *m_pTcp; }

std::uint16_t Receiver::Port() const { return m_pUdp ? m_pUdp->Port() : Tcp().Port(); }

void Receiver::KeepAllOf(PeerSession& session, std::size_t readLimit, const std::function<void()>& afterRead) {
  bool more = true;
  while (more) {
    std::string part;
    more = session.ReadSome(part, readLimit);
    m_reception.Add(session.m_number, part);
    afterRead();
  }
}

void Receiver::KeepOne(PeerSession& session) {
  std::string part;
  while (part.find('\n') == std::string::npos && session.ReadSome(part, 1)) {
  }
  m_reception.Add(session.m_number, part);
}

void Receiver::HoldUntilStopped() { Tcp().HoldUntilStopped(); }

bool Receiver::IsStopped() const { return Tcp().IsStopped(); }

void Receiver::Kill() {
  if (!m_pUdp) Tcp().Kill();
}

}  // namespace sorvex::test
