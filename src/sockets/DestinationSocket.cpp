#include "sockets/DestinationSocket.h"

#include "platform/SocketIo.h"

#include <host/IPayloadFactory.h>
#include <host/ITCPSocket.h>
#include <host/IUDPSocket.h>
#include <host/ServiceLookup.h>
#include <host/SystemError.h>

#include <ace/OS_NS_errno.h>
#include <ace/Thread_Manager.h>

#include <algorithm>
#include <thread>
#include <utility>

namespace VaroCommunicationAPI {

namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t defaultLowWaterMark = 999'500;
constexpr std::uint32_t defaultHighWaterMark = 1'000'000;
constexpr std::uint32_t defaultPort = 514;
constexpr const char* defaultBuilder = "SyslogPayloadBuilder";

/// How long the send thread waits for a payload before it looks around.
constexpr auto idlePeriod = 1000ms;
constexpr auto producerPatience = 5000ms;

/// A stop does not wait out the pauses between attempts.
constexpr auto stoppingPause = 20ms;

/// ACE makes its thread manager when somebody first asks for it, and two threads that do so at once race. Here one asks
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

template <class Interface>
DestinationSocket<Interface>::DestinationSocket(std::uint32_t maxPayloadSize, std::shared_ptr<ISocketTime> time)
    : m_pTime(std::move(time)),
      m_defaultMaxPayloadSize(maxPayloadSize),
      m_maxPayloadSize(maxPayloadSize),
      m_pPayloadBuilder(MakeBuilder(defaultBuilder)) {
  thr_mgr(ThreadManager());
  msg_queue(&m_queue);
  m_queue.low_water_mark(defaultLowWaterMark);
  m_queue.high_water_mark(defaultHighWaterMark);
}

template <class Interface>
DestinationSocket<Interface>::~DestinationSocket() = default;

template <class Interface>
void DestinationSocket<Interface>::Initialize(const WindowsAgentCommon::ParameterBlock& parameters) {
  // A send thread that is still there reads what is set here.
  EndLife();
  m_life.SetOpen(false);
  const WindowsAgentCommon::EnvironmentBlockHelper helper(parameters);
  std::uint32_t lowWaterMark = 0;
  std::uint32_t highWaterMark = 0;
  helper.GetUInt32Value("Socket.QueueLowWaterMark", lowWaterMark, defaultLowWaterMark);
  helper.GetUInt32Value("Socket.QueueHighWaterMark", highWaterMark, defaultHighWaterMark);
  m_queue.low_water_mark(lowWaterMark);
  m_queue.high_water_mark(highWaterMark);
  bool isBlocking = true;
  helper.GetBooleanValue("Socket.BlockingSendStrategy", isBlocking, true);
  m_bBlockingSendStrategy = isBlocking;
  std::wstring host;
  std::uint32_t port = 0;
  helper.GetWideStringValue("TargetAddress", host, L"127.0.0.1");
  helper.GetUInt32Value("TargetPort", port, defaultPort);
  helper.GetUInt32Value("MaxPayloadSize", m_maxPayloadSize, m_defaultMaxPayloadSize);
  ReadParameters(helper);
  std::string builderType;
  helper.GetStringValue("PayloadBuilderType", builderType, defaultBuilder);
  AcceptParameters(host, port, m_maxPayloadSize, builderType);
  if (auto builder = MakeBuilder(builderType)) m_pPayloadBuilder = std::move(builder);
  Open(host, port);
}

template <class Interface>
void DestinationSocket<Interface>::Open(const std::wstring& host, std::uint32_t port) {
  const SocketLife::Operation operation(m_life);
  if (!operation) return;
  // A send thread that is running reads these, and logs.
  if (m_log.GetName().empty() || m_strHost != host || m_port != port) {
    m_strHost = host;
    m_port = port;
    NameLogger();
  }
  this->Connect();
  if (!m_life.Start(GetService(), IsOpenWithoutConnection(), [this] { return StartThread(); })) {
    m_log.Error("The send thread could not be started: %s", WindowsAgentCommon::GetLastErrorText(ACE_OS::last_error()));
  }
}

template <class Interface>
bool DestinationSocket<Interface>::StartThread() {
  // The last thread, if there was one, has closed the queue and need only return.
  wait();
  m_queue.activate();
  return activate(0, 1, 0, 0, -1) == 0;
}

template <class Interface>
bool DestinationSocket<Interface>::IsOpen() const {
  return m_life.IsOpen();
}

template <class Interface>
std::int32_t DestinationSocket<Interface>::SendEvent(const WindowsAgentCommon::Event& event) {
  if (!m_pPayloadBuilder) return -1;
  // Each caller builds into a text of its own; the last one used lends it its memory.
  std::string payload;
  {
    const std::lock_guard lock(m_payloadMutex);
    payload.swap(m_strPayload);
  }
  m_pPayloadBuilder->BuildPayload(event, payload);
  const std::int32_t result = Send(payload.data(), static_cast<std::uint32_t>(payload.size()));
  const std::lock_guard lock(m_payloadMutex);
  m_strPayload.swap(payload);
  return result;
}

template <class Interface>
std::int32_t DestinationSocket<Interface>::Send(const void* buffer, std::uint32_t length) {
  if (IsQueued()) return Submit(buffer, length);
  const SocketLife::Operation operation(m_life);
  return operation ? Submit(buffer, length) : -1;
}

template <class Interface>
std::int32_t DestinationSocket<Interface>::Submit(const void* buffer, std::uint32_t length) {
  if (!m_life.IsOpen()) {
    ReportRefusal();
    return -1;
  }
  const std::uint32_t limited = std::min(length, m_maxPayloadSize);
  m_messagesSubmitted += 1;
  m_bytesSubmitted += length;
  if (limited < length) {
    m_messagesTruncated += 1;
    m_bytesTruncated += length - limited;
    ReportTruncation(length, limited);
  }
  const bool isSent = IsQueued() ? m_queue.Put({static_cast<const char*>(buffer), limited}, producerPatience)
                                 : SendPayload(buffer, BlockingLength(length, limited)) > 0;
  return isSent ? static_cast<std::int32_t>(limited + m_framing.AddedBytes(limited)) : -1;
}

template <class Interface>
void DestinationSocket<Interface>::SetFraming(const Framing& framing) {
  m_framing = framing;
  m_queue.SetFraming(framing);
}

template <class Interface>
int DestinationSocket<Interface>::svc() {
  // The thread writes to the network alone: the signal is off for its whole life.
  const Platform::BrokenPipeGuard noSignal;
  m_log.Info("Thread running...");
  bool isAfterIdle = true;
  bool isEnding = false;
  bool isDone = false;
  while (!isDone) {
    FramedPayloads payloads;
    isAfterIdle = isAfterIdle || m_queue.is_empty();
    switch (m_queue.Await(isEnding ? 0ms : idlePeriod, payloads)) {
      case PayloadQueue::Head::Payloads: {
        const std::size_t sent = SendPayloads(payloads, std::exchange(isAfterIdle, false));
        m_queue.Remove(sent);
        isDone = sent < payloads.m_lengths.size() && m_life.IsStopping() && !CanDeliver();
        break;
      }
      case PayloadQueue::Head::HangUp:
        // Producers that were let in before a stop may stand behind it.
        isEnding = m_life.IsStopping();
        isDone = !isEnding;
        break;
      case PayloadQueue::Head::Nothing:
        if (!isEnding) ReportIdle();
        isDone = isEnding;
        break;
      case PayloadQueue::Head::Closed: isDone = true; break;
    }
  }
  m_life.EndService([this] { DropQueued(); });
  m_log.Info("Thread exiting");
  return 0;
}

template <class Interface>
int DestinationSocket<Interface>::Shutdown() {
  const SocketLife::Service service = GetService();
  switch (m_life.BeginStop(service, m_pTime->Now(), [this] { return m_queue.PutHangUp(); })) {
    case SocketLife::StopOutcome::Anothers: return 0;
    case SocketLife::StopOutcome::Refused: return -1;
    case SocketLife::StopOutcome::Begun: break;
  }
  // Producers that wait for room are not to wait for the stop.
  m_queue.pulse();
  m_life.AwaitOperations();
  const int result = wait();
  FinishConnection();
  m_life.EndStop(service);
  return result;
}

template <class Interface>
void DestinationSocket<Interface>::EndLife() {
  if (Shutdown() != -1) return;
  // A thread that could not be told to end does so by itself: its queue is closed.
  wait();
  Shutdown();
}

template <class Interface>
void DestinationSocket<Interface>::DropQueued() {
  const PayloadQueue::Given given = m_queue.GiveUp();
  CountDropped(given.m_payloads, given.m_bytes);
}

template <class Interface>
bool DestinationSocket<Interface>::MustGiveUp() {
  if (m_life.IsStopping()) LookForProgress();
  const SteadyTime now = m_pTime->Now();
  return m_life.MustGiveUp(now, m_lastProgress) || m_turn.MustGiveWay(now) ||
         (m_connectDeadline && now > *m_connectDeadline);
}

template <class Interface>
void DestinationSocket<Interface>::NoteProgress() {
  m_lastProgress = m_pTime->Now();
}

template <class Interface>
void DestinationSocket<Interface>::CountSent(std::size_t messages, std::size_t bytes) {
  m_messagesSent += static_cast<std::uint32_t>(messages);
  m_bytesSent += static_cast<std::uint32_t>(bytes);
}

template <class Interface>
void DestinationSocket<Interface>::CountDropped(std::size_t messages, std::size_t bytes) {
  m_messagesDropped += static_cast<std::uint32_t>(messages);
  m_bytesDropped += static_cast<std::uint32_t>(bytes);
}

template <class Interface>
void DestinationSocket<Interface>::Pause(std::chrono::milliseconds duration) {
  m_pTime->Pause(duration, m_life);
  // What fails at once is not tried without pausing until the stop's patience is over.
  if (m_life.IsStopping()) std::this_thread::sleep_for(stoppingPause);
}

template <class Interface>
std::wstring DestinationSocket<Interface>::GetHost() const {
  return m_strHost;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetPort() const {
  return m_port;
}

template <class Interface>
std::int32_t DestinationSocket<Interface>::GetLastResultCode() const {
  return m_lastResultCode;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetBytesSent() const {
  return m_bytesSent;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetMessagesSent() const {
  return m_messagesSent;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetBytesSubmitted() const {
  return m_bytesSubmitted;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetMessagesSubmitted() const {
  return m_messagesSubmitted;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetBytesTruncated() const {
  return m_bytesTruncated;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetMessagesTruncated() const {
  return m_messagesTruncated;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetBytesDropped() const {
  return m_bytesDropped;
}

template <class Interface>
std::uint32_t DestinationSocket<Interface>::GetMessagesDropped() const {
  return m_messagesDropped;
}

template <class Interface>
std::size_t DestinationSocket<Interface>::GetQueueSize() const {
  // The queue's own measure takes no constant object.
  return const_cast<DestinationSocket*>(this)->m_queue.message_bytes();
}

template class DestinationSocket<WindowsAgentCommon::ITCPSocket>;
template class DestinationSocket<WindowsAgentCommon::IUDPSocket>;

}  // namespace VaroCommunicationAPI
