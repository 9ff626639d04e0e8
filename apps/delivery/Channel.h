// One destination of an agent: its socket and its progress.
#pragma once

#include <schedule/StoppableThread.h>
#include <settings/Settings.h>

#include <host/Event.h>
#include <host/ISocket.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace sorvex::delivery {

/// What is reported about a destination.
struct ChannelStatistics {
  std::string url;
  std::uint64_t submitted = 0;  ///< lines that the socket accepted
  std::uint64_t sent = 0;
  std::uint64_t queued = 0;
  std::uint64_t truncated = 0;
  std::uint64_t dropped = 0;
  bool isConnected = false;
  std::optional<std::chrono::system_clock::time_point> connectedSince;  ///< where the socket reports it
};

/// Follows a wrapping 32-bit counter that is read often enough.
class WideCounter {
 public:
  std::uint64_t Follow(std::uint32_t counter) {
    m_total += counter - m_last;
    m_last = counter;
    return m_total;
  }

 private:
  std::uint32_t m_last = 0;
  std::uint64_t m_total = 0;
};

/// One thread. Opening and closing, which may take time, run in the channel's own threads.
class Channel {
 public:
  /// Starts to open the queued `socket` and retries until that succeeds; then calls `opened` from another thread.
  Channel(settings::DestinationSettings settings, std::shared_ptr<WindowsAgentCommon::ISocket> socket,
          std::function<void()> opened);
  /// Closes as `Abandon` does.
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  const settings::DestinationSettings& Settings() const { return m_settings; }

  /// Whether `Submit` would not have to wait.
  bool HasRoom();

  /// Queues the event; returns whether the socket accepted it. Events are delivered in this order.
  bool Submit(const WindowsAgentCommon::Event& event);

  /// The number of events, from the first on, that the socket is done with: sent, or dropped because they fit no
  /// datagram. What is dropped from `BeginClose` on does not count.
  std::uint64_t Done();

  /// Starts to deliver the queue, as far as the destination accepts it, and to close. Does so at once, which may take
  /// seconds, when the system gives no more threads.
  void BeginClose();
  bool IsClosed() const { return m_bClosed; }

  /// Makes a pending close give up the rest of the queue. Call it again until the channel is closed.
  void Abandon();

  ChannelStatistics GetStatistics();

 private:
  void Open();
  void Close();

  const settings::DestinationSettings m_settings;
  const std::string m_strUrl;
  const std::shared_ptr<WindowsAgentCommon::ISocket> m_pSocket;
  const std::function<void()> m_opened;
  std::size_t m_maxQueuedBytes = 0;
  std::size_t m_maxQueuedEvents = 0;

  std::uint64_t m_submitted = 0;
  WideCounter m_sent;
  WideCounter m_dropped;
  WideCounter m_truncated;
  std::optional<std::uint64_t> m_droppedBeforeClose;

  std::atomic<bool> m_bOpened{false};
  std::atomic<bool> m_bOpenerEnded{false};
  std::atomic<bool> m_bClosed{false};
  schedule::StoppableThread m_opener;  ///< these use the others until they are joined
  std::jthread m_closer;
};

/// Closes the channels in parallel. What they cannot deliver within `patience` is given up.
void CloseChannels(const std::vector<Channel*>& channels, std::chrono::milliseconds patience);

}  // namespace sorvex::delivery
