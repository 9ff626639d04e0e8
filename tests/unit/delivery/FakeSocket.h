// A queued destination socket that delivers when the test says so.
#pragma once

#include <host/ISocket.h>
#include <host/ITCPSocket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sorvex::test {

template <class Interface>
class FakeSocketOf : public Interface {
 public:
  // For the test.

  /// Sends so many queued lines, or drops them.
  void Deliver(std::size_t lines) {
    const std::lock_guard lock(m_mutex);
    for (; lines > 0 && !m_queue.empty(); --lines) SendFirst();
  }
  void Drop(std::size_t lines) {
    const std::lock_guard lock(m_mutex);
    for (; lines > 0 && !m_queue.empty(); --lines) DropFirst();
  }
  /// How often opening fails before it succeeds; with a message it throws.
  void FailToOpen(int times, const std::string& message = {}) {
    const std::lock_guard lock(m_mutex);
    m_openFailures = times;
    m_strOpenError = message;
  }
  /// Holds `Initialize` before it opens the socket until `LetOpen`, then before its end until `LetOpeningEnd`.
  void HoldOpening() { m_openingStep = 0; }
  void LetOpen() { m_openingStep = 1; }
  void LetOpeningEnd() { m_openingStep = 2; }
  void Refuse(bool refuses) {
    const std::lock_guard lock(m_mutex);
    m_bRefuses = refuses;
  }
  /// How many of the queued lines a shutdown still delivers.
  void DeliverAtShutdown(std::size_t lines) {
    const std::lock_guard lock(m_mutex);
    m_deliveredAtShutdown = lines;
  }
  /// Makes a shutdown last until `Close` was called so often, or until `LetShutdownEnd`. Until then the socket is open.
  void HangInShutdown(int closes = 1) {
    const std::lock_guard lock(m_mutex);
    m_closesAwaited = closes;
  }
  void LetShutdownEnd() { HangInShutdown(0); }
  /// Calls `atEnd` at the end of each shutdown.
  void AtEndOfShutdown(std::function<void()> atEnd) { m_atEndOfShutdown = std::move(atEnd); }
  std::vector<std::string> Sent() const {
    const std::lock_guard lock(m_mutex);
    return m_sentLines;
  }
  WindowsAgentCommon::Event LastEvent() const {
    const std::lock_guard lock(m_mutex);
    return m_event;
  }
  int Closes() const {
    const std::lock_guard lock(m_mutex);
    return m_closes;
  }
  int OpenAttempts() const {
    const std::lock_guard lock(m_mutex);
    return m_openAttempts;
  }
  int Shutdowns() const {
    const std::lock_guard lock(m_mutex);
    return m_shutdowns;
  }
  WindowsAgentCommon::ParameterBlock Parameters() const {
    const std::lock_guard lock(m_mutex);
    return m_parameters;
  }
  /// An open socket may be without a connection.
  void Disconnect() { m_bDisconnected = true; }
  /// What a line takes up in the queue.
  void SetLineSize(std::size_t bytes) { m_lineBytes = bytes; }

  // For the channel.

  void Initialize(const WindowsAgentCommon::ParameterBlock& parameters) override {
    NoteAttempt(parameters);
    WaitForOpeningStep(1);
    TryToOpen();
    WaitForOpeningStep(2);
  }
  std::int32_t SendEvent(const WindowsAgentCommon::Event& event) override {
    const std::lock_guard lock(m_mutex);
    if (!m_bOpen || m_bRefuses) return -1;
    m_event = event;
    m_queue.push_back(event.m_strText);
    return static_cast<std::int32_t>(event.m_strText.size());
  }
  int Shutdown() override {
    {
      const std::lock_guard lock(m_mutex);
      m_shutdowns += 1;
    }
    while (!TryToShutDown()) std::this_thread::yield();
    m_atEndOfShutdown();
    return 0;
  }
  void Close() override {
    const std::lock_guard lock(m_mutex);
    m_closes += 1;
  }
  bool IsOpen() const override {
    const std::lock_guard lock(m_mutex);
    return m_bOpen;
  }
  bool IsConnected() const override { return IsOpen() && !m_bDisconnected; }
  std::uint32_t GetMessagesSent() const override {
    const std::lock_guard lock(m_mutex);
    return m_sent;
  }
  std::uint32_t GetMessagesDropped() const override {
    const std::lock_guard lock(m_mutex);
    return m_dropped;
  }
  std::uint32_t GetMessagesTruncated() const override { return 3; }
  std::size_t GetQueueSize() const override {
    const std::lock_guard lock(m_mutex);
    return m_queue.size() * m_lineBytes;
  }

  // Operations that nobody calls.

  void Open(const std::wstring&, std::uint32_t) override {}
  bool Connect() override { return true; }
  std::int32_t Send(const void*, std::uint32_t) override { return -1; }
  std::int32_t Receive(void*, std::uint32_t, std::uint32_t) override { return -1; }
  std::wstring GetHost() const override { return {}; }
  std::uint32_t GetPort() const override { return 0; }
  std::int32_t GetLastResultCode() const override { return 0; }
  std::uint32_t GetBytesSent() const override { return 0; }
  std::uint32_t GetBytesSubmitted() const override { return 0; }
  std::uint32_t GetMessagesSubmitted() const override { return 0; }
  std::uint32_t GetBytesTruncated() const override { return 0; }
  std::uint32_t GetBytesDropped() const override { return 0; }

 private:
  void WaitForOpeningStep(int step) const {
    while (m_openingStep < step) std::this_thread::yield();
  }
  void NoteAttempt(const WindowsAgentCommon::ParameterBlock& parameters) {
    const std::lock_guard lock(m_mutex);
    m_parameters = parameters;
    m_openAttempts += 1;
  }
  void TryToOpen() {
    const std::lock_guard lock(m_mutex);
    m_bOpen = m_openFailures == 0;
    if (m_bOpen) return;
    m_openFailures -= 1;
    if (!m_strOpenError.empty()) throw std::runtime_error(m_strOpenError);
  }
  bool TryToShutDown() {
    const std::lock_guard lock(m_mutex);
    if (m_closes < m_closesAwaited) return false;
    m_bOpen = false;
    for (; m_deliveredAtShutdown > 0 && !m_queue.empty(); --m_deliveredAtShutdown) SendFirst();
    while (!m_queue.empty()) DropFirst();
    return true;
  }
  void SendFirst() {
    m_sentLines.push_back(m_queue.front());
    m_queue.pop_front();
    m_sent += 1;
  }
  void DropFirst() {
    m_queue.pop_front();
    m_dropped += 1;
  }

  mutable std::mutex m_mutex;
  std::deque<std::string> m_queue;
  std::vector<std::string> m_sentLines;
  WindowsAgentCommon::Event m_event;
  WindowsAgentCommon::ParameterBlock m_parameters;
  std::atomic<std::size_t> m_lineBytes{10};
  std::atomic<int> m_openingStep{2};
  std::atomic<bool> m_bDisconnected{false};
  std::uint32_t m_sent = 0;
  std::uint32_t m_dropped = 0;
  std::size_t m_deliveredAtShutdown = 0;
  std::string m_strOpenError;
  int m_openFailures = 0;
  int m_openAttempts = 0;
  int m_shutdowns = 0;
  int m_closes = 0;
  int m_closesAwaited = 0;
  bool m_bOpen = false;
  bool m_bRefuses = false;
  std::function<void()> m_atEndOfShutdown = [] {};
};

using FakeSocket = FakeSocketOf<WindowsAgentCommon::ISocket>;

/// It says since when it has been connected.
class FakeTcpSocket : public FakeSocketOf<WindowsAgentCommon::ITCPSocket> {
 public:
  ACE_Time_Value GetLastConnectAttemptTime() const override { return ACE_Time_Value(400); }
  ACE_Time_Value GetConnectedSinceTime() const override { return ACE_Time_Value(300); }
  ACE_Time_Value GetLastConnectFailureTime() const override { return ACE_Time_Value(200); }
  ACE_Time_Value GetNextReconnectTime() const override { return ACE_Time_Value(100); }
};

}  // namespace sorvex::test
