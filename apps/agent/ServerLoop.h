// The agent's dealings with its configuration server, in a separate thread.
#pragma once

#include <CommandLine.h>
#include <ConfigurationStore.h>
#include <ServerConnection.h>

#include <schedule/Schedule.h>
#include <schedule/StoppableThread.h>
#include <settings/Settings.h>

#include <host/IConnectionFactory.h>
#include <host/Log.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace sorvex::agent {

/// The state of the loop.
struct ServerReport {
  bool isRegistered = false;
  std::optional<std::chrono::system_clock::time_point> reached;    ///< the last time that everything succeeded
  std::optional<std::chrono::system_clock::time_point> awaySince;  ///< nothing while everything succeeds
  std::int32_t errorCode = 0;                                      ///< of the last failure
  std::string errorText;
  std::string refused;  ///< why the server's last configuration, or the agent's own, is not in force; empty when it is
};

/// A configuration that is in force.
struct Configuration {
  settings::Settings settings;
  std::string digest;  ///< MD5 of the file
};

/// Registers the agent; every interval reports its status and checks for a new configuration and patches. The first
/// round comes after a random pause; pauses grow after failures. Only a stop of the program ends a wait for the server;
/// destroying the loop waits for its thread.
class ServerLoop {
 public:
  /// The loop's thread calls `apply` with each new configuration, already stored.
  using Apply = std::function<void(std::shared_ptr<const Configuration> configuration)>;

  /// `current` is the configuration in force, or nothing; `refused` says why the agent's own file is refused, if it is.
  ServerLoop(const RunLoopOptions& options, WindowsAgentCommon::IConnectionFactory& factory, ConfigurationStore store,
             std::shared_ptr<const Configuration> current, std::string refused, Apply apply);
  ~ServerLoop();
  ServerLoop(const ServerLoop&) = delete;
  ServerLoop& operator=(const ServerLoop&) = delete;

  /// Makes the thread report to a reachable server that the agent stops, and end.
  void RequestStop() { m_thread.RequestStop(); }

  /// Says that the last configuration passed to `apply` cannot be used; the server is asked for it again. Any thread.
  void NoteNotApplied(const std::string& reason);

  /// Any thread.
  ServerReport GetReport() const;

 private:
  enum class PatchOutcome {
    Settled,     ///< it waits, or the server has none
    Unusable,    ///< the server answered, but not with a patch that can be used
    NotReceived  ///< the exchange failed
  };

  void Run();
  bool RunRound();
  WindowsAgentCommon::AgentUpdateStatus Status() const;
  bool Register();
  bool ReportStatus(WindowsAgentCommon::AgentUpdateStatus status);
  bool Update();
  bool FetchConfiguration();
  void KeepCurrent();
  bool RetrieveConfiguration(const std::string& fingerprint);
  bool TakeConfiguration(const std::string& content, const std::string& digest);
  void Refuse(const std::string& digest, const std::string& reason);
  void SetRefused(const std::string& reason);
  bool FetchPatches();
  PatchOutcome FetchPatch(const settings::ComponentSettings& component);
  bool IsHttps() const { return m_connection.Mode() == ConnectionMode::Https; }
  bool Fail(const std::string& operation, const std::string& reason = {});
  void NoteSuccess();
  void SayOnce(const std::string& text);

  const RunLoopOptions m_options;
  WindowsAgentCommon::IConnectionFactory& m_factory;
  const ConfigurationStore m_store;
  const Apply m_apply;
  const WindowsAgentCommon::Log m_log;
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();

  // The thread's own.
  ServerConnection m_connection;
  schedule::Schedule m_schedule;
  std::shared_ptr<const Configuration> m_pCurrent;
  std::optional<std::string> m_refusedDigest;  ///< of the last configuration received, if it was refused
  std::set<std::string> m_said;

  std::atomic<bool> m_bAsksAgain{false};  ///< the stored configuration is not in force
  mutable std::mutex m_mutex;
  ServerReport m_report;               ///< under the mutex
  schedule::StoppableThread m_thread;  ///< last: it uses the others until it is joined
};

}  // namespace sorvex::agent
