#include "sockets/DestinationSocket.h"

#include "sockets/StreamDestinationSocket.h"
#include "sockets/UDPSocket.h"

#include <host/Exceptions.h>
#include <host/IPayloadFactory.h>
#include <host/LoggerFactory.h>
#include <host/ServiceLookup.h>
#include <host/SystemError.h>

#include <ace/OS_NS_errno.h>
#include <ace/Thread_Manager.h>

#include <algorithm>
#include <utility>

namespace VaroCommunicationAPI {

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t defaultLowWaterMark = 999'500;
constexpr std::uint32_t defaultHighWaterMark = 1'000'000;
constexpr std::uint32_t defaultPort = 514;
constexpr const char* defaultBuilder = "SyslogPayloadBuilder";

/// How long the send thread waits for a payload before it calls `Idle` again.
constexpr auto idlePeriod = 1000ms;
constexpr auto producerPatience = 5000ms;

/// ACE creates its thread manager on first use, and two threads doing so at once race. This function creates it once
/// for all.
ACE_Thread_Manager* ThreadManager() {
  static ACE_Thread_Manager* const manager = ACE_Thread_Manager::instance();
  return manager;
}

std::shared_ptr<WindowsAgentCommon::IPayloadBuilder> MakeBuilder(const std::string& typeName) {
  std::shared_ptr<WindowsAgentCommon::IPayloadBuilder> builder;
  if (auto* const factory = WindowsAgentCommon::GetService<WindowsAgentCommon::IPayloadFactory>()) {
    if (!factory->CreatePayloadBuilder(typeName, builder)) factory->CreatePayloadBuilder(defaultBuilder, builder);
  }
  return builder;
}

}  // namespace

template <class Sender>
void DestinationSocket<Sender>::Prepare() {
  thr_mgr(ThreadManager());
  msg_queue(&Queue());
  Queue().low_water_mark(defaultLowWaterMark);
  Queue().high_water_mark(defaultHighWaterMark);
  m_pPayloadBuilder = MakeBuilder(defaultBuilder);
}

template <class Sender>
DestinationSocket<Sender>::~DestinationSocket() = default;

template <class Sender>
void DestinationSocket<Sender>::Initialize(const WindowsAgentCommon::ParameterBlock& parameters) {
  // Senders and a send thread that is still running read what is set here: none of them begins anew, and those that
  // are under way end first.
  m_state.m_life.SetOpen(false);
  EndLife();
  const WindowsAgentCommon::EnvironmentBlockHelper helper(parameters);
  std::uint32_t lowWaterMark = 0;
  std::uint32_t highWaterMark = 0;
  helper.GetUInt32Value("Socket.QueueLowWaterMark", lowWaterMark, defaultLowWaterMark);
  helper.GetUInt32Value("Socket.QueueHighWaterMark", highWaterMark, defaultHighWaterMark);
  Queue().low_water_mark(lowWaterMark);
  Queue().high_water_mark(highWaterMark);
  bool isBlocking = true;
  helper.GetBooleanValue("Socket.BlockingSendStrategy", isBlocking, true);
  m_bBlockingSendStrategy = isBlocking;
  DestinationParameters common;
  helper.GetWideStringValue("TargetAddress", common.m_strHost, L"127.0.0.1");
  helper.GetUInt32Value("TargetPort", common.m_port, defaultPort);
  helper.GetUInt32Value("MaxPayloadSize", common.m_maxPayloadSize, m_traits.m_defaultMaxPayloadSize);
  helper.GetStringValue("PayloadBuilderType", common.m_strBuilderType, defaultBuilder);
  m_maxPayloadSize = common.m_maxPayloadSize;
  m_sender.Configure(helper, common);
  Queue().SetFraming(m_state.m_framing);
  if (auto builder = MakeBuilder(common.m_strBuilderType)) m_pPayloadBuilder = std::move(builder);
  Open(common.m_strHost, common.m_port);
}

template <class Sender>
void DestinationSocket<Sender>::Open(const std::wstring& host, std::uint32_t port) {
  const SocketLife::Operation operation(m_state.m_life);
  if (!operation) return;
  // A running send thread reads these, and logs.
  if (m_state.m_log.GetName().empty() || m_state.m_strHost != host || m_state.m_port != port) {
    m_state.m_strHost = host;
    m_state.m_port = port;
    m_state.m_log = WindowsAgentCommon::LoggerFactory::GetLogger(WindowsAgentCommon::Format(
        m_traits.m_loggerName, static_cast<const void*>(this), m_state.m_strHost, m_state.m_port));
  }
  m_sender.Connect();
  if (!m_state.m_life.Start(GetService(), m_traits.m_bOpensUnconnected, [this] { return StartThread(); })) {
    m_state.m_log.Error("The send thread could not be started: %s",
                        WindowsAgentCommon::GetLastErrorText(ACE_OS::last_error()));
  }
}

template <class Sender>
SocketLife::Service DestinationSocket<Sender>::GetService() const {
  return IsQueued() ? SocketLife::Service::SendThread : SocketLife::Service::None;
}

template <class Sender>
bool DestinationSocket<Sender>::StartThread() {
  // The previous thread, if any, only needs to return.
  wait();
  return activate(0, 1, 0, 0, -1) == 0;
}

template <class Sender>
bool DestinationSocket<Sender>::IsOpen() const {
  return m_state.m_life.IsOpen();
}

template <class Sender>
void DestinationSocket<Sender>::Close() {
  m_state.m_life.Abandon();
  m_sender.Close();
}

template <class Sender>
bool DestinationSocket<Sender>::IsConnected() const {
  return m_sender.IsConnected();
}

template <class Sender>
bool DestinationSocket<Sender>::Connect() {
  const SocketLife::Operation operation(m_state.m_life);
  return operation && m_sender.Connect();
}

template <class Sender>
std::int32_t DestinationSocket<Sender>::SendEvent(const WindowsAgentCommon::Event& event) {
  if (!m_pPayloadBuilder) return -1;
  std::unique_ptr<std::string> payload = m_payloadTexts.Take();
  m_pPayloadBuilder->BuildPayload(event, *payload);
  const std::int32_t result = Send(payload->data(), static_cast<std::uint32_t>(payload->size()));
  m_payloadTexts.Keep(std::move(payload));
  return result;
}

template <class Sender>
std::int32_t DestinationSocket<Sender>::Send(const void* buffer, std::uint32_t length) {
  if (IsQueued()) return Submit(buffer, length);
  const SocketLife::Operation operation(m_state.m_life);
  return operation ? Submit(buffer, length) : -1;
}

template <class Sender>
std::int32_t DestinationSocket<Sender>::Submit(const void* buffer, std::uint32_t length) {
  if (!m_state.m_life.IsOpen()) return -1;
  const std::uint32_t limited = std::min(length, m_maxPayloadSize);
  m_state.m_submitted.Add(1, length);
  if (limited < length) {
    m_state.m_truncated.Add(1, length - limited);
    if (m_traits.m_truncationReport) m_state.m_log.Debug(m_traits.m_truncationReport, length, limited);
  }
  const bool isSent = IsQueued() ? Queue().Put({static_cast<const char*>(buffer), limited}, producerPatience)
                                 : SendPayload(buffer, m_traits.m_bCutsWhenBlocking ? limited : length) > 0;
  return isSent ? static_cast<std::int32_t>(limited + m_state.m_framing.AddedBytes(limited)) : -1;
}

template <class Sender>
std::int32_t DestinationSocket<Sender>::SendPayload(const void* buffer, std::uint32_t length) {
  return m_sender.SendPayload({static_cast<const char*>(buffer), length});
}

template <class Sender>
std::int32_t DestinationSocket<Sender>::Receive(void*, std::uint32_t, std::uint32_t) {
  throw WindowsAgentCommon::OperationNotSupportedException(m_traits.m_className, m_traits.m_receiveFunction, __LINE__);
}

template <class Sender>
int DestinationSocket<Sender>::svc() {
  // This thread only writes to the network, so the signal is off for its whole life.
  const Platform::BrokenPipeGuard noSignal;
  m_state.m_log.Info("Thread running...");
  m_sender.Idle();
  PayloadQueue& queue = Queue();
  bool isDone = false;
  while (!isDone) {
    FramedPayloads payloads;
    if (queue.is_empty()) m_sender.Idle();
    switch (queue.Await(idlePeriod, payloads)) {
      case PayloadQueue::Head::Payloads: {
        const std::size_t sent = m_sender.SendPayloads(payloads);
        queue.Remove(sent);
        isDone = sent < payloads.m_lengths.size() && m_state.m_life.IsStopping() && !m_sender.CanDeliver();
        break;
      }
      case PayloadQueue::Head::Nothing: break;
      case PayloadQueue::Head::HangUp:
      case PayloadQueue::Head::Closed: isDone = true; break;
    }
  }
  const PayloadQueue::Given given = m_state.m_life.EndService();
  m_state.m_dropped.Add(given.m_payloads, given.m_bytes);
  m_state.m_log.Info("Thread exiting");
  return 0;
}

template <class Sender>
int DestinationSocket<Sender>::Shutdown() {
  const SocketLife::Service service = GetService();
  switch (m_state.m_life.BeginStop(service, m_state.Now())) {
    case SocketLife::StopOutcome::Anothers: return 0;
    case SocketLife::StopOutcome::Refused: return -1;
    case SocketLife::StopOutcome::Begun: break;
  }
  m_state.m_life.AwaitOperations();
  const int result = wait();
  m_sender.Finish();
  m_state.m_life.EndStop(service);
  return result;
}

template <class Sender>
void DestinationSocket<Sender>::EndLife() {
  if (Shutdown() != -1) return;
  // A thread that could not be asked to end does so by itself: its queue is closed.
  wait();
  Shutdown();
}

template <class Sender>
std::wstring DestinationSocket<Sender>::GetHost() const {
  return m_state.m_strHost;
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetPort() const {
  return m_state.m_port;
}

template <class Sender>
std::int32_t DestinationSocket<Sender>::GetLastResultCode() const {
  return m_state.m_lastResultCode;
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetBytesSent() const {
  return m_state.m_sent.Bytes();
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetMessagesSent() const {
  return m_state.m_sent.Messages();
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetBytesSubmitted() const {
  return m_state.m_submitted.Bytes();
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetMessagesSubmitted() const {
  return m_state.m_submitted.Messages();
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetBytesTruncated() const {
  return m_state.m_truncated.Bytes();
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetMessagesTruncated() const {
  return m_state.m_truncated.Messages();
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetBytesDropped() const {
  return m_state.m_dropped.Bytes();
}

template <class Sender>
std::uint32_t DestinationSocket<Sender>::GetMessagesDropped() const {
  return m_state.m_dropped.Messages();
}

template <class Sender>
std::size_t DestinationSocket<Sender>::GetQueueSize() const {
  // The queue's own function is not const.
  return const_cast<DestinationSocket*>(this)->Queue().message_bytes();
}

template class DestinationSocket<StreamSender>;
template class DestinationSocket<DatagramSender>;

}  // namespace VaroCommunicationAPI
