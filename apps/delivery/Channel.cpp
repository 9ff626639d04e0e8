#include <delivery/Channel.h>

#include <schedule/Schedule.h>

#include <host/EnvironmentBlockHelper.h>
#include <host/ITCPSocket.h>
#include <host/LoggerFactory.h>

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

namespace sorvex::delivery {
namespace {

using namespace WindowsAgentCommon;
using namespace std::chrono_literals;

/// A socket's queue is also full when its number of payloads reaches a sixteenth of its high water mark.
constexpr std::size_t bytesPerQueuedEvent = 16;

/// Between attempts to open a socket that cannot be opened, for example because its name is unknown.
constexpr auto firstOpenPause = 1s;
constexpr auto longestOpenPause = 60s;

/// Between two checks of closing channels.
constexpr auto lookInterval = 5ms;

}  // namespace

Channel::Channel(settings::DestinationSettings settings, std::shared_ptr<ISocket> socket, std::function<void()> opened)
    : m_settings(std::move(settings)),
      m_strUrl(m_settings.Url()),
      m_pSocket(std::move(socket)),
      m_opened(std::move(opened)) {
  std::uint32_t highWaterMark = 0;
  EnvironmentBlockHelper(m_settings.parameters).GetUInt32Value("Socket.QueueHighWaterMark", highWaterMark, 1'000'000);
  m_maxQueuedBytes = highWaterMark;
  m_maxQueuedEvents = std::max<std::size_t>(highWaterMark / bytesPerQueuedEvent, 1);
  m_opener.Start([this] { Open(); });
}

Channel::~Channel() { CloseChannels({this}, 0ms); }

void Channel::Open() {
  schedule::GrowingPause pause(firstOpenPause, longestOpenPause);
  while (!m_opener.MustStop()) {
    try {
      m_pSocket->Initialize(m_settings.parameters);
    } catch (const std::exception& error) {
      LoggerFactory::GetLogger("Code.Agent").Error("The destination %s cannot be opened: %s", m_strUrl, error.what());
    }
    if (m_pSocket->IsOpen()) {
      m_bOpened = true;
      m_opened();
      break;
    }
    m_opener.WaitForStop(pause.Next());
  }
  m_bOpenerEnded = true;
}

bool Channel::HasRoom() {
  return m_bOpened && !m_droppedBeforeClose && m_pSocket->IsOpen() && m_submitted - Done() < m_maxQueuedEvents &&
         m_pSocket->GetQueueSize() < m_maxQueuedBytes;
}

bool Channel::Submit(const Event& event) {
  if (m_pSocket->SendEvent(event) < 0) return false;
  m_submitted += 1;
  return true;
}

std::uint64_t Channel::Done() {
  // In this order: what is dropped between the two reads is found by the next call.
  const std::uint64_t dropped =
      m_droppedBeforeClose ? *m_droppedBeforeClose : m_dropped.Follow(m_pSocket->GetMessagesDropped());
  return dropped + m_sent.Follow(m_pSocket->GetMessagesSent());
}

void Channel::BeginClose() {
  if (m_droppedBeforeClose) return;
  m_droppedBeforeClose = m_dropped.Follow(m_pSocket->GetMessagesDropped());
  m_opener.RequestStop();
  try {
    m_closer = std::jthread([this] { Close(); });
  } catch (const std::system_error&) {
    // A half-closed channel would take no more lines, and a destructor must not throw. The socket limits its shutdown.
    Close();
  }
}

/// An opener that had not reached its socket opens it after the first shutdown.
void Channel::Close() {
  for (;;) {
    const bool hasOpenerEnded = m_bOpenerEnded;
    m_pSocket->Shutdown();
    if (hasOpenerEnded) break;
    std::this_thread::sleep_for(lookInterval);
  }
  m_bClosed = true;
}

void Channel::Abandon() { m_pSocket->Close(); }

ChannelStatistics Channel::GetStatistics() {
  ChannelStatistics statistics;
  statistics.url = m_strUrl;
  statistics.submitted = m_submitted;
  statistics.dropped = m_dropped.Follow(m_pSocket->GetMessagesDropped());
  statistics.sent = m_sent.Follow(m_pSocket->GetMessagesSent());
  statistics.queued = m_submitted - std::min(m_submitted, statistics.sent + statistics.dropped);
  statistics.truncated = m_truncated.Follow(m_pSocket->GetMessagesTruncated());
  statistics.isConnected = m_pSocket->IsConnected();
  const auto* const tcp = dynamic_cast<const ITCPSocket*>(m_pSocket.get());
  if (tcp != nullptr && statistics.isConnected) {
    statistics.connectedSince = std::chrono::system_clock::from_time_t(tcp->GetConnectedSinceTime().sec());
  }
  return statistics;
}

void CloseChannels(const std::vector<Channel*>& channels, std::chrono::milliseconds patience) {
  for (Channel* const channel : channels) channel->BeginClose();
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!std::ranges::all_of(channels, [](const Channel* channel) { return channel->IsClosed(); })) {
    if (std::chrono::steady_clock::now() >= deadline) {
      for (Channel* const channel : channels) channel->Abandon();
    }
    std::this_thread::sleep_for(lookInterval);
  }
}

}  // namespace sorvex::delivery
