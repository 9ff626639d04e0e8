// Every destination socket, with both strategies, against every fault of its destination.
//
// With SORVEX_RELIABILITY_TABLE naming a file, each case appends what it measured to it as a row of
// docs/reliability.md.
#include "Receiver.h"
#include "platform/SocketErrors.h"

#include <support/BlackHole.h>
#include <support/MakeDestination.h>
#include <support/RecordingLogger.h>
#include <support/SkippingTime.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using VaroCommunicationAPI::SocketServices;
using WindowsAgentCommon::ISocket;

enum class Strategy { Blocking, Queued };

const char* Name(Strategy strategy) { return strategy == Strategy::Blocking ? "blocking" : "queued"; }

class FaultMatrix;

/// A fault, the transports and strategies that it can happen to, and what is done and expected there.
struct Fault {
  const char* m_name;
  void (FaultMatrix::*m_test)();
  bool (*m_canHappen)(Transport, Strategy);
};

struct Cell {
  Transport transport;
  Strategy strategy;
  const Fault* fault;
};

void PrintTo(const Cell& cell, std::ostream* out) {
  *out << Name(cell.transport) << ", " << Name(cell.strategy) << ", " << cell.fault->m_name;
}

/// The observations of a case.
struct Measured {
  std::uint32_t accepted = 0;  ///< sends that returned the payload's bytes
  std::uint32_t refused = 0;   ///< sends that returned -1
  std::chrono::milliseconds longestAccepted{0};
  std::chrono::milliseconds shortestRefused = std::chrono::hours(1);
  std::chrono::milliseconds longestRefused{0};
  std::chrono::milliseconds shutdown{0};
  Reception::Verdict reception;
};

class FaultMatrix : public testing::TestWithParam<Cell> {
 public:
  void Refused();
  void Reset() { EndedByPeer(true); }
  void OrderlyClose() { EndedByPeer(false); }
  void IntoBlackHole();
  void IntoReceiverThatNeverReads();
  void IntoReceiverThatReadsByteByByte();
  void IntoReceiverThatClosesInHandshake();
  void IntoReceiverWithWrongCertificate();
  void IntoNameThatNeverResolves();
  void IntoNameThatResolvesLater();
  void IntoReceiverThatRestarts();
  void IntoFullQueue();
  void WhileClockIsSetBack();
  void IntoReceiverThatTalksBack();
  void IntoReceiverThatIsSlowAtTheStop();
  void IntoReceiverThatClosesAtOnce();
  void WithTwoStops();
  void IntoReceiverThatIsBackBeforeTheStop();

 protected:
  static Transport TestedTransport() { return GetParam().transport; }
  static bool IsUdp() { return TestedTransport() == Transport::Udp; }
  static bool IsTls() { return TestedTransport() == Transport::Tls; }
  static bool IsQueued() { return GetParam().strategy == Strategy::Queued; }

  void Create() { m_pSocket = MakeDestination(TestedTransport(), Services()); }

  /// The case's clock; a resolver and a system for datagrams that fail while the case says so.
  SocketServices Services() {
    SocketServices services;
    services.m_pTime = m_pTime;
    services.m_resolveHost = [this](const auto&... question) {
      ResolvedHost failed;
      failed.m_error = SocketError(m_resolveError);
      return failed.m_error ? failed : ResolveHost(question...);
    };
    services.m_sendDatagrams = [this](ACE_HANDLE handle, std::span<const std::span<const char>> datagrams) {
      const SocketError error(m_datagramError);
      return error ? DatagramOutcome{0, error} : SendDatagrams(handle, datagrams);
    };
    return services;
  }

  void Initialize(std::uint16_t port, WindowsAgentCommon::ParameterBlock parameters = {}) {
    if (!m_pSocket) Create();
    parameters.emplace("TargetPort", std::to_string(port));
    parameters.emplace("Socket.BlockingSendStrategy", IsQueued() ? "false" : "true");
    if (IsTls()) parameters.emplace("Certificate", ToBase64(ServerIdentity().CertificatePem()));
    m_pSocket->Initialize(parameters);
  }

  /// Sends the next payload, of about `bytes` bytes, and notes the result.
  bool Send(std::size_t bytes = 100) {
    const std::string payload = Reception::PayloadOf(m_next++, bytes);
    const auto now = [] { return std::chrono::steady_clock::now() + SkippingTime::SkippedInPauses(); };
    const auto begin = now();
    const std::int32_t result = m_pSocket->Send(payload.data(), static_cast<std::uint32_t>(payload.size()));
    const auto duration = std::chrono::duration_cast<std::chrono::milliseconds>(now() - begin);
    const std::lock_guard lock(m_mutex);
    if (result == -1) {
      ++m_measured.refused;
      m_measured.shortestRefused = std::min(m_measured.shortestRefused, duration);
      m_measured.longestRefused = std::max(m_measured.longestRefused, duration);
      return false;
    }
    EXPECT_EQ(result, static_cast<std::int32_t>(payload.size()) + (IsUdp() ? 0 : 1));
    ++m_measured.accepted;
    m_measured.longestAccepted = std::max(m_measured.longestAccepted, duration);
    return true;
  }

  void SendSome(int count) {
    for (int i = 0; i < count; ++i) Send();
  }

  bool WaitForText(const std::string& text) {
    return WaitUntil([&] {
      const std::vector<std::string> texts = Texts();
      return std::find(texts.begin(), texts.end(), text) != texts.end();
    });
  }

  void Shutdown() {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_pSocket->Shutdown(), 0);
    m_measured.shutdown =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
  }

  /// Waits until the receiver has got the last payload that was sent.
  void WaitForLast() {
    EXPECT_TRUE(WaitUntil([&] { return m_reception.HasPayload(m_next - 1); }));
  }

  /// What holds in every case, and the row for the table. A stop may take longer than two seconds only while the
  /// receiver takes data; on a machine that is busy with other tests it gets twice as long.
  void Conclude(std::chrono::seconds longestStop = 4s) {
    EXPECT_LT(m_measured.shutdown, longestStop);
    m_measured.reception = m_reception.Judge();
    EXPECT_EQ(m_measured.reception.complaint, "");
    // Refused at once: submitted, but not taken.
    const std::uint32_t submitted = m_pSocket->GetMessagesSubmitted();
    const std::uint32_t refusedOpen = submitted - m_measured.accepted;
    EXPECT_LE(refusedOpen, m_measured.refused);
    EXPECT_EQ(m_pSocket->GetQueueSize(), 0u);
    EXPECT_EQ(submitted, m_pSocket->GetMessagesSent() + m_pSocket->GetMessagesDropped() + refusedOpen);
    EXPECT_EQ(m_pSocket->GetMessagesSent() + m_pSocket->GetMessagesDropped(), m_measured.accepted);
    EXPECT_LE(m_measured.reception.whole, m_pSocket->GetMessagesSent());
    if (IsQueued()) {
      EXPECT_EQ(m_log->Count("Info Thread running..."), 1u);
      EXPECT_EQ(m_log->Count("Info Thread exiting"), 1u);
    }
    WriteRow();
  }

  void ExpectAllDelivered() const {
    EXPECT_EQ(m_measured.refused, 0u);
    EXPECT_EQ(m_measured.reception.whole, m_measured.accepted);
    EXPECT_EQ(m_pSocket->GetMessagesSent(), m_measured.accepted);
  }
  void ExpectAllDropped() const {
    EXPECT_EQ(m_measured.refused, 0u);
    EXPECT_EQ(m_pSocket->GetMessagesDropped(), m_measured.accepted);
  }
  void ExpectAcceptedAtOnce() const { EXPECT_LT(m_measured.longestAccepted, 900ms); }
  void ExpectRefusedAfterASecond() const {
    EXPECT_GE(m_measured.shortestRefused, 1s);
    EXPECT_LT(m_measured.longestRefused, 5s);
  }
  void ExpectRefusedAtOnce() const { EXPECT_LT(m_measured.longestRefused, 500ms); }

  /// The logged texts, each once, in the order of their first appearance, without details.
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const std::string& line : m_log->Lines("Code.")) {
      std::string text = line.substr(0, line.find(" Reason: "));
      const std::string port = ':' + std::to_string(m_pSocket->GetPort());
      if (const std::size_t found = text.find(port); found != std::string::npos)
        text.replace(found, port.size(), ":PORT");
      if (text.starts_with("Debug UDPSocket addr:") || text.starts_with("Info Thread ")) continue;
      if (text.starts_with("Debug Connected to server using")) text = "Debug Connected to server using ...";
      for (const char* const start : {"Error Error sending data", "Warn Socket connection problem"}) {
        if (text.starts_with(start)) text = std::string(start) + " ...";
      }
      if (std::find(texts.begin(), texts.end(), text) == texts.end()) texts.push_back(text);
    }
    return texts;
  }

  std::string RefusedText() const {
    return IsTls() ? "Error Cannot connect to server (10061)"
                   : "Warn The target server actively refused the TCP syslog connection.";
  }
  static std::vector<std::string> WithConnected(std::vector<std::string> texts, std::size_t position = 0) {
    if (IsTls()) {
      texts.insert(texts.begin() + static_cast<std::ptrdiff_t>(position), "Debug Connected to server using ...");
    }
    return texts;
  }

  void EndedByPeer(bool isReset);

  RecordingLogger m_log;
  std::shared_ptr<SkippingTime> m_pTime = std::make_shared<SkippingTime>();
  std::atomic<std::int32_t> m_resolveError{0};
  std::atomic<std::int32_t> m_datagramError{0};
  Reception m_reception;
  std::unique_ptr<ISocket> m_pSocket;
  std::mutex m_mutex;
  Measured m_measured;
  int m_next = 0;

  static constexpr const char* reconnecting = "Debug Socket isn't connected; calling reconnect...";
  static constexpr const char* reconnected = "Info Reconnect succeeded.";
  static constexpr const char* reconnectFailed = "Warn Reconnect failed; will try again later.";
  static constexpr const char* connectionProblem = "Warn Socket connection problem ...";
  static constexpr const char* sendError = "Error Error sending data ...";

 private:
  void WriteRow() const {
    const char* const file = std::getenv("SORVEX_RELIABILITY_TABLE");
    if (!file) return;
    std::ostringstream send;
    const auto seconds = [](std::chrono::milliseconds duration) {
      std::ostringstream text;
      text.setf(std::ios::fixed);
      text.precision(1);
      text << static_cast<double>(duration.count()) / 1000 << " s";
      return text.str();
    };
    if (m_measured.accepted > 0) {
      send << m_measured.accepted << " taken within " << seconds(m_measured.longestAccepted);
    }
    if (m_measured.refused > 0) {
      send << (m_measured.accepted > 0 ? ", " : "") << m_measured.refused << " × -1 after "
           << seconds(m_measured.shortestRefused) << " to " << seconds(m_measured.longestRefused);
    }
    std::string texts;
    for (const std::string& text : Texts()) texts += (texts.empty() ? "" : "; ") + text;
    std::ofstream(file, std::ios::app) << "| " << GetParam().fault->m_name << " | " << Name(TestedTransport()) << " | "
                                       << Name(GetParam().strategy) << " | " << send.str() << " | "
                                       << m_pSocket->GetMessagesSubmitted() << " = " << m_pSocket->GetMessagesSent()
                                       << " + " << m_pSocket->GetMessagesDropped() << " + 0 + "
                                       << m_pSocket->GetMessagesSubmitted() - m_measured.accepted << " | "
                                       << m_measured.reception.whole << " | " << seconds(m_measured.shutdown) << " | "
                                       << texts << " |\n";
  }
};

// --- The faults.

void FaultMatrix::Refused() {
  Initialize(IsUdp() ? UnusedUdpPort() : UnusedPort());
  SendSome(4);
  if (!IsUdp()) {
    EXPECT_TRUE(WaitForText(reconnectFailed));
  }
  Shutdown();
  Conclude();
  if (IsUdp()) {
    // Not every system tells a sender of datagrams that nobody is there.
    if (m_measured.refused > 0) ExpectRefusedAfterASecond();
    return;
  }
  if (IsQueued()) {
    ExpectAllDropped();
    ExpectAcceptedAtOnce();
  } else {
    EXPECT_EQ(m_measured.refused, 4u);
    ExpectRefusedAfterASecond();
  }
  EXPECT_THAT(Texts(), ElementsAre(RefusedText(), reconnecting, reconnectFailed));
}

/// The connection's end finds the first payload read; the others come after it.
void FaultMatrix::EndedByPeer(bool isReset) {
  std::atomic<bool> hasEnded{false};
  std::optional<Receiver> receiver(std::in_place, TestedTransport(), m_reception,
                                   [&](Receiver& self, PeerSession& session, int index) {
                                     if (index > 0) return self.KeepAllOf(session);
                                     self.KeepOne(session);
                                     if (isReset) {
                                       session.Reset();
                                     } else {
                                       session.Close();
                                     }
                                     hasEnded = true;
                                   });
  const std::uint16_t port = receiver->Port();
  Initialize(port);
  Send();
  WaitForLast();
  if (IsUdp()) {
    receiver.reset();
    SendSome(2);
    receiver.emplace(TestedTransport(), m_reception, Receiver::KeepAll, port);
  } else {
    ASSERT_TRUE(WaitUntil([&] { return hasEnded.load(); }));
    // The send thread checks a connection after a silence; a blocking socket is to write into the reset one.
    if (!isReset || IsQueued()) m_pTime->Advance(2s);
  }
  SendSome(4);
  // The last of a blocking socket may have been refused.
  while (!Send()) {
  }
  WaitForLast();
  Shutdown();
  Conclude();
  if (IsUdp()) return;
  if (isReset && !IsQueued()) {
    EXPECT_EQ(m_measured.refused, 1u);
    ExpectRefusedAtOnce();
    EXPECT_EQ(m_measured.reception.whole, m_measured.accepted);
    EXPECT_THAT(Texts(), ElementsAreArray(WithConnected({sendError, connectionProblem, reconnecting, reconnected})));
  } else {
    ExpectAllDelivered();
    EXPECT_THAT(Texts(), ElementsAreArray(WithConnected({connectionProblem, reconnecting, reconnected})));
  }
}

void FaultMatrix::IntoBlackHole() {
  const std::uint16_t port = IsUdp() ? UnusedUdpPort() : UnusedPort();
  std::optional<BlackHole> blackHole;
  std::optional<DatagramBlackHole> datagramBlackHole;
  if (IsUdp()) {
    datagramBlackHole.emplace(port);
    Initialize(port);
    SendSome(4);
    Shutdown();
    Conclude();
    EXPECT_EQ(m_measured.refused, 0u);
    EXPECT_EQ(m_pSocket->GetMessagesSent(), 4u);
    EXPECT_THAT(Texts(), IsEmpty());
    return;
  }
  // The first connect is refused; the second is swallowed.
  Initialize(port);
  blackHole.emplace(port);
  std::thread sender([&] { Send(); });
  EXPECT_TRUE(WaitForText(reconnecting));
  Shutdown();
  sender.join();
  Conclude();
  if (IsQueued()) {
    ExpectAllDropped();
    ExpectAcceptedAtOnce();
  } else {
    EXPECT_EQ(m_measured.refused, 1u);
  }
  EXPECT_EQ(Texts()[1], reconnecting);
}

void FaultMatrix::IntoReceiverThatNeverReads() {
  if (IsUdp()) return IntoBlackHole();
  Receiver receiver(TestedTransport(), m_reception, [](Receiver& self, PeerSession&, int) { self.HoldUntilStopped(); },
                    0, {.receiveBufferBytes = 4096});
  Initialize(receiver.Port(), {{"Socket.QueueHighWaterMark", "100000000"}});
  if (IsQueued()) {
    for (int i = 0; i < 500; ++i) Send(30000);
    Shutdown();
  } else {
    std::thread sender([&] {
      while (Send(30000)) {
      }
    });
    // Nothing more is accepted for a while: the sender waits for room.
    std::uint32_t sent = 0;
    EXPECT_TRUE(WaitUntil([&] {
      std::this_thread::sleep_for(200ms);
      return std::exchange(sent, m_pSocket->GetMessagesSubmitted()) == m_pSocket->GetMessagesSubmitted() && sent > 0;
    }));
    Shutdown();
    sender.join();
  }
  Conclude();
  if (IsQueued()) {
    EXPECT_EQ(m_measured.refused, 0u);
    EXPECT_GT(m_pSocket->GetMessagesDropped(), 0u);
    ExpectAcceptedAtOnce();
  } else {
    EXPECT_EQ(m_measured.refused, 1u);
  }
  EXPECT_THAT(Texts(), ElementsAreArray(WithConnected({sendError, connectionProblem})));
}

void FaultMatrix::IntoReceiverThatReadsByteByByte() {
  Receiver receiver(TestedTransport(), m_reception,
                    [](Receiver& self, PeerSession& session, int) { self.KeepAllOf(session, 1); });
  Initialize(receiver.Port());
  SendSome(30);
  WaitForLast();
  Shutdown();
  Conclude();
  ExpectAllDelivered();
  ExpectAcceptedAtOnce();
  EXPECT_THAT(Texts(), ElementsAreArray(WithConnected({})));
}

void FaultMatrix::IntoReceiverThatClosesInHandshake() {
  Receiver receiver(TestedTransport(), m_reception, Receiver::KeepAll, 0, {.unansweredHandshakes = 2});
  Initialize(receiver.Port());
  SendSome(2);
  EXPECT_TRUE(WaitForText(reconnectFailed));
  m_pTime->Advance(15s);
  SendSome(3);
  WaitForLast();
  Shutdown();
  Conclude();
  if (IsQueued()) {
    ExpectAllDelivered();
    ExpectAcceptedAtOnce();
  } else {
    EXPECT_EQ(m_measured.refused, 2u);
    ExpectRefusedAfterASecond();
    EXPECT_EQ(m_measured.reception.whole, 3u);
  }
  EXPECT_THAT(Texts(), ElementsAre("Error Cannot connect to server (10101)",
                                   "Debug The TLS library's reason: unexpected eof while reading", reconnecting,
                                   reconnectFailed, "Debug Connected to server using ...", reconnected));
}

void FaultMatrix::IntoReceiverWithWrongCertificate() {
  const TlsIdentity expired("another host", nullptr, -3600);
  Receiver receiver(TestedTransport(), m_reception, Receiver::KeepAll, 0, {.identity = &expired});
  Initialize(receiver.Port());
  SendSome(5);
  WaitForLast();
  Shutdown();
  Conclude();
  // A destination's certificate is not verified.
  ExpectAllDelivered();
  EXPECT_THAT(Texts(), ElementsAreArray(WithConnected({})));
}

void FaultMatrix::IntoNameThatNeverResolves() {
  m_resolveError = ErrorHostNotFound.Number();
  Initialize(514);
  SendSome(3);
  if (!IsUdp()) {
    EXPECT_TRUE(WaitForText(reconnectFailed));
  }
  Shutdown();
  Conclude();
  if (IsUdp()) {
    EXPECT_EQ(m_measured.refused, 3u);
    EXPECT_EQ(m_pSocket->GetMessagesSubmitted(), 0u);
    ExpectRefusedAtOnce();
    EXPECT_THAT(Texts(), ElementsAre("Error Unable to open UDPSocket 127.0.0.1:PORT errorno 11001"));
    return;
  }
  if (IsQueued()) {
    ExpectAllDropped();
    ExpectAcceptedAtOnce();
  } else {
    EXPECT_EQ(m_measured.refused, 3u);
    ExpectRefusedAfterASecond();
  }
  if (IsTls()) {
    EXPECT_THAT(Texts(), ElementsAre("Error Cannot connect to server (11001)", reconnecting, reconnectFailed));
  } else {
    EXPECT_THAT(Texts(), ElementsAre(reconnecting, reconnectFailed));
  }
}

void FaultMatrix::IntoNameThatResolvesLater() {
  Receiver receiver(TestedTransport(), m_reception);
  m_resolveError = ErrorHostNotFound.Number();
  Initialize(receiver.Port());
  if (IsUdp()) {
    // A closed UDP socket counts what it refuses.
    SendSome(499);
    EXPECT_FALSE(m_pSocket->IsOpen());
    m_resolveError = 0;
    Send();
    EXPECT_TRUE(WaitUntil([&] { return m_pSocket->IsOpen(); }));
  } else {
    Send();
    EXPECT_TRUE(WaitForText(reconnectFailed));
    m_resolveError = 0;
    m_pTime->Advance(15s);
  }
  SendSome(5);
  WaitForLast();
  Shutdown();
  Conclude();
  if (IsUdp()) {
    EXPECT_EQ(m_measured.refused, 500u);
    ExpectRefusedAtOnce();
    EXPECT_EQ(m_measured.reception.whole, 5u);
    EXPECT_THAT(Texts(), ElementsAre("Error Unable to open UDPSocket 127.0.0.1:PORT errorno 11001",
                                     "Info Attempting reconnect for UDP connection 127.0.0.1:PORT...",
                                     "Info Reconnect for UDP connection 127.0.0.1:PORT succeeded."));
  } else if (IsQueued()) {
    ExpectAllDelivered();
  } else {
    EXPECT_EQ(m_measured.refused, 1u);
    EXPECT_EQ(m_measured.reception.whole, 5u);
  }
}

void FaultMatrix::IntoReceiverThatRestarts() {
  std::optional<Receiver> receiver(std::in_place, TestedTransport(), m_reception);
  const std::uint16_t port = receiver->Port();
  Initialize(port);
  std::atomic<bool> isDone{false};
  std::thread producer([&] {
    while (!isDone) {
      Send();
      std::this_thread::sleep_for(1ms);
    }
  });
  for (int restart = 0; restart < 3; ++restart) {
    const std::size_t before = m_reception.Payloads();
    EXPECT_TRUE(WaitUntil([&] { return m_reception.Payloads() > before + 20; })) << "nothing after restart " << restart;
    receiver->Kill();
    receiver.reset();
    std::this_thread::sleep_for(30ms);  // an outage in which sends and reconnects find nobody
    receiver.emplace(TestedTransport(), m_reception, Receiver::KeepAll, port);
    m_pTime->Advance(15s);
  }
  const std::size_t before = m_reception.Payloads();
  EXPECT_TRUE(WaitUntil([&] { return m_reception.Payloads() > before + 20; }));
  isDone = true;
  producer.join();
  while (!Send()) {
  }
  WaitForLast();
  Shutdown();
  Conclude();
  if (IsQueued()) {
    EXPECT_EQ(m_measured.refused, 0u);
    EXPECT_EQ(m_pSocket->GetMessagesDropped(), 0u);
  }
}

void FaultMatrix::IntoFullQueue() {
  std::atomic<bool> isReading{false};
  Receiver receiver(TestedTransport(), m_reception,
                    [&](Receiver& self, PeerSession& session, int) {
                      while (!isReading && !self.IsStopped()) std::this_thread::sleep_for(1ms);
                      self.KeepAllOf(session);
                    },
                    0, {.receiveBufferBytes = 65536});
  Initialize(receiver.Port(), {{"Socket.QueueLowWaterMark", "1000"}, {"Socket.QueueHighWaterMark", "2000"}});
  if (IsUdp()) m_datagramError = 10055;  // datagrams are not waited for: the system has no room for them
  while (Send(IsUdp() ? 500 : 30000)) {
  }
  isReading = true;
  m_datagramError = 0;
  EXPECT_TRUE(WaitUntil([&] { return m_pSocket->GetQueueSize() == 0; }));
  Send();
  WaitForLast();
  Shutdown();
  Conclude();
  EXPECT_EQ(m_measured.refused, 1u);
  EXPECT_EQ(m_measured.reception.whole, m_measured.accepted);
  EXPECT_GE(m_measured.longestRefused, 4900ms);
  EXPECT_LT(m_measured.longestRefused, 6s);
}

void FaultMatrix::WhileClockIsSetBack() {
  const std::uint16_t port = IsUdp() ? UnusedUdpPort() : UnusedPort();
  std::optional<Receiver> receiver;
  if (IsUdp()) receiver.emplace(TestedTransport(), m_reception, Receiver::KeepAll, port);
  Initialize(port);
  m_pTime->SetWallClock(-1h);
  Send();
  if (!IsUdp()) {
    EXPECT_TRUE(WaitForText(reconnectFailed));
    m_pTime->SetWallClock(-24h);
    receiver.emplace(TestedTransport(), m_reception, Receiver::KeepAll, port);
    m_pTime->Advance(15s);
  }
  SendSome(4);
  WaitForLast();
  Shutdown();
  Conclude();
  if (IsUdp() || IsQueued()) {
    ExpectAllDelivered();
  } else {
    EXPECT_EQ(m_measured.refused, 1u);
    ExpectRefusedAfterASecond();
    EXPECT_EQ(m_measured.reception.whole, 4u);
  }
  ExpectAcceptedAtOnce();
}

/// What counts as sent arrives although the receiver answers and nobody reads its answers.
void FaultMatrix::IntoReceiverThatTalksBack() {
  Receiver receiver(TestedTransport(), m_reception, [](Receiver& self, PeerSession& session, int) {
    session.Write("220 welcome\n");
    self.KeepAllOf(session, 65536, [&] { session.Write("ok\n"); });
    session.Close();
  });
  Initialize(receiver.Port());
  for (int i = 0; i < 1000; ++i) Send(2000);
  Shutdown();
  WaitForLast();
  Conclude();
  ExpectAllDelivered();
  EXPECT_THAT(Texts(), ElementsAreArray(WithConnected({})));
}

/// The receiver takes 500 kB a second all the time, which is less progress than a stop's patience wants to see.
void FaultMatrix::IntoReceiverThatIsSlowAtTheStop() {
  Receiver receiver(TestedTransport(), m_reception,
                    [](Receiver& self, PeerSession& session, int) {
                      self.KeepAllOf(session, 8192, [] { std::this_thread::sleep_for(16ms); });
                    },
                    0, {.receiveBufferBytes = 16384});
  Initialize(receiver.Port(), {{"Socket.QueueHighWaterMark", "100000000"}});
  const int payloads = IsQueued() ? 1750 : 100;
  for (int i = 0; i < payloads; ++i) Send(2000);
  Shutdown();
  WaitForLast();
  Conclude(60s);
  ExpectAllDelivered();
  EXPECT_THAT(Texts(), ElementsAreArray(WithConnected({})));
}

/// Each connection accepts what the system buffers before it is found closed, and that is lost: the immediate reconnect
/// after a connection was up is deliberate.
void FaultMatrix::IntoReceiverThatClosesAtOnce() {
  std::atomic<int> connections{0};
  Receiver receiver(TestedTransport(), m_reception, [&](Receiver&, PeerSession& session, int) {
    session.Close();
    ++connections;
  });
  Initialize(receiver.Port());
  constexpr int payloads = 20;
  for (int i = 0; i < payloads; ++i) {
    EXPECT_TRUE(WaitUntil([&] { return connections == i + 1; }));
    m_pTime->Advance(2s);
    Send();
    EXPECT_TRUE(WaitUntil([&] { return m_pSocket->GetMessagesSent() == m_measured.accepted; }));
  }
  EXPECT_TRUE(WaitUntil([&] { return connections == payloads + 1; }));
  Shutdown();
  Conclude();
  EXPECT_EQ(m_measured.refused, 0u);
  EXPECT_EQ(m_pSocket->GetMessagesSent(), static_cast<std::uint32_t>(payloads));
}

void FaultMatrix::WithTwoStops() {
  Receiver receiver(TestedTransport(), m_reception);
  Initialize(receiver.Port());
  const int payloads = IsUdp() ? 50 : 3000;
  for (int i = 0; i < payloads; ++i) Send();
  std::thread other([this] { EXPECT_EQ(m_pSocket->Shutdown(), 0); });
  Shutdown();
  other.join();
  WaitForLast();
  Conclude();
  ExpectAllDelivered();
}

void FaultMatrix::IntoReceiverThatIsBackBeforeTheStop() {
  const std::uint16_t port = UnusedPort();
  Initialize(port);
  Send();
  EXPECT_TRUE(WaitForText(reconnectFailed));
  SendSome(4);
  Receiver receiver(TestedTransport(), m_reception, Receiver::KeepAll, port);
  Shutdown();
  WaitForLast();
  Conclude();
  ExpectAllDelivered();
  EXPECT_THAT(Texts(), ElementsAreArray(WithConnected({RefusedText(), reconnecting, reconnectFailed, reconnected}, 3)));
}

bool Anywhere(Transport, Strategy) { return true; }
bool InHandshake(Transport transport, Strategy) { return transport == Transport::Tls; }
bool OfConnection(Transport transport, Strategy) { return transport != Transport::Udp; }
bool OfQueue(Transport, Strategy strategy) { return strategy == Strategy::Queued; }
bool OfQueueOverConnection(Transport transport, Strategy strategy) {
  return OfConnection(transport, strategy) && OfQueue(transport, strategy);
}

constexpr Fault faults[] = {
    {"refused", &FaultMatrix::Refused, Anywhere},
    {"reset", &FaultMatrix::Reset, Anywhere},
    {"orderly close", &FaultMatrix::OrderlyClose, Anywhere},
    {"black hole", &FaultMatrix::IntoBlackHole, Anywhere},
    {"accepts and never reads", &FaultMatrix::IntoReceiverThatNeverReads, Anywhere},
    {"reads one byte at a time", &FaultMatrix::IntoReceiverThatReadsByteByByte, Anywhere},
    {"closes inside the handshake", &FaultMatrix::IntoReceiverThatClosesInHandshake, InHandshake},
    {"wrong certificate", &FaultMatrix::IntoReceiverWithWrongCertificate, InHandshake},
    {"name does not resolve", &FaultMatrix::IntoNameThatNeverResolves, Anywhere},
    {"resolves later", &FaultMatrix::IntoNameThatResolvesLater, Anywhere},
    {"restarts under load", &FaultMatrix::IntoReceiverThatRestarts, Anywhere},
    {"full queue", &FaultMatrix::IntoFullQueue, OfQueue},
    {"clock set back", &FaultMatrix::WhileClockIsSetBack, Anywhere},
    {"talks back", &FaultMatrix::IntoReceiverThatTalksBack, OfConnection},
    {"slow at the stop", &FaultMatrix::IntoReceiverThatIsSlowAtTheStop, OfConnection},
    {"accepts and closes at once", &FaultMatrix::IntoReceiverThatClosesAtOnce, OfConnection},
    {"two stops at once", &FaultMatrix::WithTwoStops, Anywhere},
    {"back just before the stop", &FaultMatrix::IntoReceiverThatIsBackBeforeTheStop, OfQueueOverConnection},
};

TEST_P(FaultMatrix, LosesNothingUnsaid) { (this->*GetParam().fault->m_test)(); }

std::vector<Cell> AllCells() {
  std::vector<Cell> cells;
  for (const Fault& fault : faults) {
    for (const Transport transport : {Transport::Tcp, Transport::Tls, Transport::Udp}) {
      for (const Strategy strategy : {Strategy::Blocking, Strategy::Queued}) {
        if (fault.m_canHappen(transport, strategy)) cells.push_back({transport, strategy, &fault});
      }
    }
  }
  return cells;
}

INSTANTIATE_TEST_SUITE_P(Cells, FaultMatrix, testing::ValuesIn(AllCells()),
                         [](const testing::TestParamInfo<Cell>& test) {
                           std::string name;
                           bool isStart = true;
                           for (const char c : std::string(test.param.fault->m_name) + ' ' +
                                                   Name(test.param.transport) + ' ' + Name(test.param.strategy)) {
                             if (c != ' ') name += static_cast<char>(isStart ? std::toupper(c) : c);
                             isStart = c == ' ';
                           }
                           return name;
                         });

}  // namespace
}  // namespace sorvex::test
