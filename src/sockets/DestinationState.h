// What a destination socket and its sender share.
#pragma once

#include "sockets/Framing.h"
#include "sockets/SocketServices.h"

#include <host/Log.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace VaroCommunicationAPI {

using Platform::SocketError;

/// A number that one thread writes and others may read at any time.
template <class T>
class RelaxedValue {
 public:
  explicit RelaxedValue(T value = T{}) : m_value(value) {}
  void operator=(T value) { m_value.store(value, std::memory_order_relaxed); }
  operator T() const { return m_value.load(std::memory_order_relaxed); }
  void operator+=(T amount) { m_value.fetch_add(amount, std::memory_order_relaxed); }

 private:
  std::atomic<T> m_value;
};

/// Counts messages and their bytes. Any thread.
class MessageCounter {
 public:
  void Add(std::size_t messages, std::size_t bytes) {
    m_messages += static_cast<std::uint32_t>(messages);
    m_bytes += static_cast<std::uint32_t>(bytes);
  }
  std::uint32_t Messages() const { return m_messages; }
  std::uint32_t Bytes() const { return m_bytes; }

 private:
  RelaxedValue<std::uint32_t> m_messages{0};
  RelaxedValue<std::uint32_t> m_bytes{0};
};

/// Memory in which threads build payloads, kept from one payload to the next. A text belongs to whoever takes it. Takes
/// no lock. Any thread.
class SpareTexts {
 public:
  SpareTexts() = default;
  ~SpareTexts();
  SpareTexts(const SpareTexts&) = delete;
  SpareTexts& operator=(const SpareTexts&) = delete;

  /// Returns a text with arbitrary content.
  std::unique_ptr<std::string> Take();

  /// Keeps a text, unless there are several already.
  void Keep(std::unique_ptr<std::string> text);

 private:
  std::array<std::atomic<std::string*>, 8> m_texts{};
};

/// Target, counters, life and services of one socket.
class DestinationState {
 public:
  explicit DestinationState(SocketServices services) : m_services(std::move(services)) {}

  SteadyTime Now() const { return m_services.m_pTime->Now(); }

  /// Resolves the target's name again each time: the target may have moved, or the network may only be up now.
  Platform::ResolvedHost ResolveTarget(Platform::AddressFamily family,
                                       const std::function<bool()>& isInterrupted) const;

  /// Whether waiting for the peer has to end: the socket is stopping and nothing has moved for a while, or another
  /// thread claims the connection. Only for the holder of the turn.
  bool MustGiveUp() const;

  /// Notes that bytes have moved. Only for the holder of the turn.
  void NoteProgress();

  /// When bytes last moved, and its change where what was noted turns out to be none. Only for the holder of the turn.
  SteadyTime LastProgress() const { return m_lastProgress; }
  void SetLastProgress(SteadyTime progress) { m_lastProgress = progress; }

  /// Waits in the sending thread; less if a stop begins.
  void Pause(std::chrono::milliseconds duration);

  const SocketServices m_services;
  SocketLife m_life;
  ConnectionTurn m_turn;

  // Set while nobody sends, except for the last error.
  WindowsAgentCommon::Log m_log;
  std::wstring m_strHost;
  std::uint32_t m_port = 0;
  Framing m_framing;

  RelaxedValue<std::int32_t> m_lastResultCode{0};
  MessageCounter m_submitted;
  MessageCounter m_sent;
  MessageCounter m_truncated;
  MessageCounter m_dropped;

 private:
  /// Belongs to the holder of the turn.
  SteadyTime m_lastProgress;
};

}  // namespace VaroCommunicationAPI
