// A destination socket over a stream that does what the test has written down, on a clock that the test sets.
#pragma once

#include "platform/SocketErrors.h"
#include "sockets/StreamDestinationSocket.h"

#include <host/Exceptions.h>
#include <host/LoggerFactory.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sorvex::test {

/// Clocks that stand still but for pauses and `Advance`. Thread-safe.
class FakeSocketTime : public VaroCommunicationAPI::ISocketTime {
 public:
  VaroCommunicationAPI::SteadyTime Now() const override {
    const std::lock_guard lock(m_mutex);
    return VaroCommunicationAPI::SteadyTime(m_elapsed);
  }
  ACE_Time_Value WallClock() const override {
    const std::lock_guard lock(m_mutex);
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(m_elapsed + m_wallOffset).count();
    return ACE_Time_Value(static_cast<time_t>(microseconds / 1'000'000),
                          static_cast<suseconds_t>(microseconds % 1'000'000));
  }
  void Pause(std::chrono::milliseconds duration, VaroCommunicationAPI::SocketLife& life) override {
    if (life.IsStopping()) return;
    const std::lock_guard lock(m_mutex);
    m_elapsed += duration;
    m_pauses.push_back(duration);
  }

  void Advance(std::chrono::milliseconds duration) {
    const std::lock_guard lock(m_mutex);
    m_elapsed += duration;
  }

  /// Sets the wall clock, as an administrator would; the monotonic one goes on.
  void SetWallClock(std::chrono::seconds sinceEpoch) {
    const std::lock_guard lock(m_mutex);
    m_wallOffset = sinceEpoch - m_elapsed;
  }

  std::vector<std::chrono::milliseconds> Pauses() const {
    const std::lock_guard lock(m_mutex);
    return m_pauses;
  }

 private:
  mutable std::mutex m_mutex;
  // Not at the epoch: a time of zero means "never" to some.
  std::chrono::nanoseconds m_elapsed = std::chrono::hours(100);
  std::chrono::nanoseconds m_wallOffset = std::chrono::hours(24 * 365 * 50);
  std::vector<std::chrono::milliseconds> m_pauses;
};

/// One scripted write: how many bytes it takes (all when empty) and what error follows.
struct ScriptedWrite {
  std::optional<std::size_t> bytes;
  int error = 0;
};

class ScriptedStreamSocket : public VaroCommunicationAPI::StreamDestinationSocket {
 public:
  explicit ScriptedStreamSocket(std::shared_ptr<FakeSocketTime> time = std::make_shared<FakeSocketTime>())
      : StreamDestinationSocket(time), m_pFakeTime(std::move(time)) {}
  ~ScriptedStreamSocket() override { EndLife(); }

  std::int32_t Receive(void*, std::uint32_t, std::uint32_t) override {
    throw WindowsAgentCommon::OperationNotSupportedException("ScriptedStreamSocket", "Receive", __LINE__);
  }

  FakeSocketTime& Time() { return *m_pFakeTime; }

  // The script; what is not written down succeeds.
  void NextConnects(std::initializer_list<int> errors) { Add(m_connects, errors); }
  /// What connects do when nothing is written down for them.
  void OtherwiseConnect(int error) {
    const std::lock_guard lock(m_mutex);
    m_otherwiseConnect = error;
  }
  void NextWrites(std::initializer_list<ScriptedWrite> writes) { Add(m_writes, writes); }
  void NextPeerStates(std::initializer_list<int> states) { Add(m_peerStates, states); }
  void NextResolveErrors(std::initializer_list<int> errors) { Add(m_resolveErrors, errors); }
  void FailKeepAlive(int error) { m_keepAliveError = error; }
  /// Called at the start of each write, in the writing thread, without a lock.
  void OnWrite(std::function<void()> callback) { m_onWrite = std::move(callback); }
  /// Called at the start of each connect, in the connecting thread, without a lock. A result other than 0 is the
  /// connect's.
  void OnConnect(std::function<int()> callback) { m_onConnect = std::move(callback); }
  /// What the peer has taken, as the system would tell.
  void SetProgress(std::uint64_t progress) {
    const std::lock_guard lock(m_mutex);
    m_progress = progress;
  }
  /// Whether a wait for the peer would have to end now. To be asked from the callbacks.
  bool MustEndWait() { return MustGiveUp(); }
  bool IsStopping() const { return m_life.IsStopping(); }

  // What happened.
  std::vector<std::string> Written() const {
    const std::lock_guard lock(m_mutex);
    return m_written;
  }
  std::string AllWritten() const {
    std::string all;
    for (const std::string& part : Written()) all += part;
    return all;
  }
  int ConnectCount() const {
    const std::lock_guard lock(m_mutex);
    return m_connectCount;
  }
  int FinishCount() const {
    const std::lock_guard lock(m_mutex);
    return m_finishCount;
  }
  int CloseCount() const {
    const std::lock_guard lock(m_mutex);
    return m_closeCount;
  }
  int ResolveCount() const {
    const std::lock_guard lock(m_mutex);
    return m_resolveCount;
  }
  int PeerStateCount() const {
    const std::lock_guard lock(m_mutex);
    return m_peerStateCount;
  }
  std::optional<std::pair<std::uint32_t, std::uint32_t>> KeepAlive() const {
    const std::lock_guard lock(m_mutex);
    return m_keepAlive;
  }

 protected:
  void NameLogger() override { m_log = WindowsAgentCommon::LoggerFactory::GetLogger("Code.ScriptedStreamSocket"); }
  VaroCommunicationAPI::Platform::ResolvedHost ResolveTarget() override {
    const std::lock_guard lock(m_mutex);
    ++m_resolveCount;
    VaroCommunicationAPI::Platform::ResolvedHost target;
    target.m_error = Take(m_resolveErrors, 0);
    if (target.m_error == 0) target.m_addresses.emplace_back(static_cast<u_short>(m_port), "127.0.0.1");
    return target;
  }
  int OpenStream(const std::vector<ACE_INET_Addr>&) override {
    if (const int error = m_onConnect ? m_onConnect() : 0; error != 0) return error;
    const std::lock_guard lock(m_mutex);
    ++m_connectCount;
    return Take(m_connects, m_otherwiseConnect);
  }
  void CloseStream() override {
    const std::lock_guard lock(m_mutex);
    ++m_closeCount;
  }
  void FinishStream() override {
    const std::lock_guard lock(m_mutex);
    ++m_finishCount;
  }
  std::optional<std::uint64_t> StreamProgress() override {
    const std::lock_guard lock(m_mutex);
    return m_progress;
  }
  VaroCommunicationAPI::Platform::WriteOutcome WriteStream(const char* data, std::size_t length) override {
    if (m_onWrite) m_onWrite();
    const std::lock_guard lock(m_mutex);
    const ScriptedWrite write = Take(m_writes, ScriptedWrite{});
    const std::size_t taken = std::min(write.bytes.value_or(length), length);
    m_written.emplace_back(data, taken);
    if (taken > 0) NoteProgress();
    return {taken, write.error};
  }
  int StreamPeerState() override {
    const std::lock_guard lock(m_mutex);
    ++m_peerStateCount;
    return Take(m_peerStates, 0);
  }
  int SetStreamKeepAlive(std::uint32_t timeMs, std::uint32_t intervalMs) override {
    const std::lock_guard lock(m_mutex);
    m_keepAlive = {timeMs, intervalMs};
    return m_keepAliveError;
  }
  void ReportConnectFailure(int) override {}
  const char* KeepAliveWarning() const override { return "keep-alive failed: %s"; }

 private:
  template <class T>
  void Add(std::deque<T>& queue, std::initializer_list<T> items) {
    const std::lock_guard lock(m_mutex);
    queue.insert(queue.end(), items);
  }
  template <class T>
  static T Take(std::deque<T>& queue, T otherwise) {
    if (queue.empty()) return otherwise;
    T item = queue.front();
    queue.pop_front();
    return item;
  }

  std::shared_ptr<FakeSocketTime> m_pFakeTime;
  std::function<void()> m_onWrite;
  std::function<int()> m_onConnect;
  mutable std::mutex m_mutex;
  std::deque<int> m_connects;
  std::deque<ScriptedWrite> m_writes;
  std::deque<int> m_peerStates;
  std::deque<int> m_resolveErrors;
  std::vector<std::string> m_written;
  int m_otherwiseConnect = 0;
  int m_connectCount = 0;
  int m_finishCount = 0;
  int m_closeCount = 0;
  std::optional<std::uint64_t> m_progress;
  int m_resolveCount = 0;
  int m_peerStateCount = 0;
  int m_keepAliveError = 0;
  std::optional<std::pair<std::uint32_t, std::uint32_t>> m_keepAlive;
};

}  // namespace sorvex::test
