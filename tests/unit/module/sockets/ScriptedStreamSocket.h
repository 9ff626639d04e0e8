// A destination socket over a stream that does what the test has written down, on a clock that the test sets.
#pragma once

#include "sockets/StreamDestinationSocket.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sorvex::test {

using VaroCommunicationAPI::SocketError;

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
  SocketError error;
};

class ScriptedStreamSocket : public VaroCommunicationAPI::StreamDestinationSocket {
 public:
  ScriptedStreamSocket()
      : StreamDestinationSocket(
            {.m_loggerName = "Code.ScriptedStreamSocket",
             .m_className = "ScriptedStreamSocket",
             .m_receiveFunction = "Receive",
             .m_keepAliveWarning = "keep-alive failed: %s",
             .m_makeStream = [this](const WindowsAgentCommon::Log&) { return std::make_unique<Stream>(*this); },
             .m_readParameters = {}},
            Services()) {}
  ~ScriptedStreamSocket() override { EndLife(); }

  FakeSocketTime& Time() { return static_cast<FakeSocketTime&>(*m_state.m_services.m_pTime); }

  // The script; what is not written down succeeds.
  void NextConnects(std::initializer_list<SocketError> errors) { Add(m_connects, errors); }
  /// What connects do when nothing is written down for them.
  void OtherwiseConnect(SocketError error) {
    const std::lock_guard lock(m_mutex);
    m_otherwiseConnect = error;
  }
  void NextWrites(std::initializer_list<ScriptedWrite> writes) { Add(m_writes, writes); }
  void NextPeerStates(std::initializer_list<SocketError> states) { Add(m_peerStates, states); }
  void NextResolveErrors(std::initializer_list<SocketError> errors) { Add(m_resolveErrors, errors); }
  void FailKeepAlive(SocketError error) { m_keepAliveError = error; }
  /// Called at the start of each write, in the writing thread, without a lock.
  void OnWrite(std::function<void()> callback) { m_onWrite = std::move(callback); }
  /// Called at the start of each connect, in the connecting thread, without a lock. An error is the connect's.
  void OnConnect(std::function<SocketError()> callback) { m_onConnect = std::move(callback); }
  /// What the peer has taken, as the system would tell.
  void SetProgress(std::uint64_t progress) {
    const std::lock_guard lock(m_mutex);
    m_progress = progress;
  }
  /// Whether a wait for the peer would have to end now. To be asked from the callbacks.
  bool MustEndWait() { return (*m_pIsInterrupted)(); }
  bool IsStopping() const { return m_state.m_life.IsStopping(); }
  /// The next start of the send thread fails.
  void FailNextThread() { m_bNextThreadFails = true; }
  int activate(long flags, int threads, int force, long priority, int group, ACE_Task_Base* task,
               ACE_hthread_t handles[], void* stacks[], size_t stackSizes[], ACE_thread_t ids[],
               const char* names[]) override {
    if (!std::exchange(m_bNextThreadFails, false)) {
      return StreamDestinationSocket::activate(flags, threads, force, priority, group, task, handles, stacks,
                                               stackSizes, ids, names);
    }
    ACE_OS::last_error(EAGAIN);
    return -1;
  }
  /// Called when the target's name is asked for, without a lock.
  void OnResolve(std::function<void()> callback) { m_onResolve = std::move(callback); }

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

 private:
  class Stream final : public VaroCommunicationAPI::ISocketStream {
   public:
    explicit Stream(ScriptedStreamSocket& script) : m_script(script) {}
    ~Stream() override { Close(); }

    SocketError Connect(const std::vector<ACE_INET_Addr>&, const std::wstring&,
                        const VaroCommunicationAPI::IsInterrupted& isInterrupted) override {
      m_script.m_pIsInterrupted = &isInterrupted;
      if (const SocketError error = m_script.m_onConnect ? m_script.m_onConnect() : SocketError()) return error;
      const std::lock_guard lock(m_script.m_mutex);
      ++m_script.m_connectCount;
      const SocketError error = Take(m_script.m_connects, m_script.m_otherwiseConnect);
      m_bConnected = !error;
      return error;
    }
    void ReportConnect(const WindowsAgentCommon::Log&, SocketError) const override {}
    VaroCommunicationAPI::Platform::WriteOutcome Write(const char* data, std::size_t length,
                                                       const VaroCommunicationAPI::IsInterrupted& isInterrupted,
                                                       const std::function<void()>& onProgress) override {
      m_script.m_pIsInterrupted = &isInterrupted;
      if (m_script.m_onWrite) m_script.m_onWrite();
      const std::lock_guard lock(m_script.m_mutex);
      const ScriptedWrite write = Take(m_script.m_writes, ScriptedWrite{});
      const std::size_t taken = std::min(write.bytes.value_or(length), length);
      m_script.m_written.emplace_back(data, taken);
      if (taken > 0) onProgress();
      return {taken, write.error};
    }
    SocketError Read(char*, std::size_t, const ACE_Time_Value*) override {
      return VaroCommunicationAPI::Platform::ErrorNotConnected;
    }
    SocketError PeerState() override {
      const std::lock_guard lock(m_script.m_mutex);
      ++m_script.m_peerStateCount;
      return Take(m_script.m_peerStates, SocketError());
    }
    void Finish(const VaroCommunicationAPI::IsInterrupted&) override {
      const std::lock_guard lock(m_script.m_mutex);
      ++m_script.m_finishCount;
    }
    void Close() override {
      if (!std::exchange(m_bConnected, false)) return;
      const std::lock_guard lock(m_script.m_mutex);
      ++m_script.m_closeCount;
    }
    ACE_HANDLE Handle() const override { return ACE_INVALID_HANDLE; }

   private:
    ScriptedStreamSocket& m_script;
    bool m_bConnected = false;
  };

  VaroCommunicationAPI::SocketServices Services() {
    using namespace VaroCommunicationAPI::Platform;
    VaroCommunicationAPI::SocketServices services;
    services.m_pTime = std::make_shared<FakeSocketTime>();
    services.m_resolveHost = [this](const std::wstring&, std::uint32_t port, AddressFamily,
                                    const VaroCommunicationAPI::IsInterrupted&) {
      if (m_onResolve) m_onResolve();
      const std::lock_guard lock(m_mutex);
      ++m_resolveCount;
      ResolvedHost target;
      target.m_error = Take(m_resolveErrors, SocketError());
      if (!target.m_error) target.m_addresses.emplace_back(static_cast<u_short>(port), "127.0.0.1");
      return target;
    };
    services.m_setKeepAlive = [this](ACE_HANDLE, std::uint32_t timeMs, std::uint32_t intervalMs) {
      const std::lock_guard lock(m_mutex);
      m_keepAlive = {timeMs, intervalMs};
      return m_keepAliveError;
    };
    services.m_peerProgress = [this](ACE_HANDLE) {
      const std::lock_guard lock(m_mutex);
      return m_progress;
    };
    return services;
  }

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

  bool m_bNextThreadFails = false;
  std::function<void()> m_onWrite;
  std::function<SocketError()> m_onConnect;
  std::function<void()> m_onResolve;
  /// Of the operation that is under way.
  const VaroCommunicationAPI::IsInterrupted* m_pIsInterrupted = nullptr;
  mutable std::mutex m_mutex;
  std::deque<SocketError> m_connects;
  std::deque<ScriptedWrite> m_writes;
  std::deque<SocketError> m_peerStates;
  std::deque<SocketError> m_resolveErrors;
  std::vector<std::string> m_written;
  SocketError m_otherwiseConnect;
  int m_connectCount = 0;
  int m_finishCount = 0;
  int m_closeCount = 0;
  std::optional<std::uint64_t> m_progress;
  int m_resolveCount = 0;
  int m_peerStateCount = 0;
  SocketError m_keepAliveError;
  std::optional<std::pair<std::uint32_t, std::uint32_t>> m_keepAlive;
};

}  // namespace sorvex::test
