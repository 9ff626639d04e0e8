// One destination of an agent: its socket, and how far that has come.
#pragma once

#include <settings/Settings.h>

#include <host/Event.h>
#include <host/ISocket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace sorvex::delivery {

/// What is told of a destination.
struct ChannelStatistics {
  std::string url;
  std::uint64_t submitted = 0;  ///< lines that the socket took
  std::uint64_t sent = 0;
  std::uint64_t queued = 0;
  std::uint64_t truncated = 0;
  std::uint64_t dropped = 0;
  bool isConnected = false;
  std::optional<std::chrono::system_clock::time_point> connectedSince;  ///< where the socket tells
};

/// Follows a counter of 32 bits that wraps, looked at often enough.
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

/// Used by one thread. Opening and closing, which may take their time, go on in threads of the channel's own.
class Channel {
 public:
  /// Begins to open the queued `socket`, and tries again until that succeeds; calls `opened` from another thread then.
  Channel(settings::DestinationSettings settings, std::shared_ptr<WindowsAgentCommon::ISocket> socket,
          std::function<void()> opened);
  /// Closes as `Abandon` does.
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  const settings::DestinationSettings& Settings() const { return m_settings; }

  /// Whether `Submit` would not have to wait.
  bool HasRoom();

  /// Queues the event; returns whether the socket took it. Events are delivered in this order.
  bool Submit(const WindowsAgentCommon::Event& event);

  /// Events that the socket is done with, from the first one on: sent, or dropped because no datagram holds them. What
  /// is dropped from `BeginClose` on does not count.
  std::uint64_t Done();

  /// Begins to deliver what is queued, as far as the destination takes it, and to close.
  void BeginClose();
  bool IsClosed() const { return m_bClosed; }

  /// Makes a closing that is under way give up what is still queued. To be called again until it is closed.
  void Abandon();

  ChannelStatistics GetStatistics();

 private:
  void Open(const std::stop_token& stop);
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

  std::mutex m_mutex;
  std::condition_variable_any m_wakeUp;
  std::atomic<bool> m_bOpened{false};
  std::atomic<bool> m_bOpenerEnded{false};
  std::atomic<bool> m_bClosed{false};
  std::jthread m_opener;  ///< these use the others until they are joined
  std::jthread m_closer;
};

/// Closes the channels side by side. What they cannot deliver within `patience` is given up.
void CloseChannels(const std::vector<Channel*>& channels, std::chrono::milliseconds patience);

}  // namespace sorvex::delivery
