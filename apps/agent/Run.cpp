#include <Run.h>

#include <Certificate.h>
#include <ConfigurationStore.h>
#include <ConnectionMode.h>
#include <DeliveredFile.h>
#include <MakeSocket.h>
#include <ServerLoop.h>
#include <StatusReport.h>
#include <platform/InstanceLock.h>
#include <platform/Platform.h>

#include <collect/Collector.h>
#include <delivery/Delivery.h>
#include <schedule/Schedule.h>
#include <settings/TlsRange.h>

#include <host/Digest.h>
#include <host/LoggerFactory.h>
#include <host/Paths.h>
#include <host/Text.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;
using collect::Collector;

/// After the program was asked to end: everything is done by then, unless the server blocks its thread.
constexpr LastWords::Bound endBound{2700ms, 0};

// The time that destinations get to deliver their queues: when the agent ends, and when a new configuration no longer
// has them. Both fit into the limit above.
constexpr auto endPatience = 1700ms;
constexpr auto changePatience = 800ms;

/// Between checks of a local configuration, and between reports to the status file.
constexpr auto lookInterval = 5000ms;

/// The most that is sent twice after the agent was killed.
constexpr auto saveInterval = 1000ms;

// Between checks of destinations that are busy or full.
constexpr auto firstPause = 5ms;
constexpr auto longestPause = 1000ms;

/// Something to do at regular intervals.
class Timer {
 public:
  explicit Timer(std::chrono::milliseconds interval) : m_interval(interval) {}

  bool IsDue(SteadyClock::time_point now) {
    if (now < m_next) return false;
    m_next = now + m_interval;
    return true;
  }
  std::chrono::milliseconds Remaining(SteadyClock::time_point now) const {
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(m_next - now), 0ms);
  }

 private:
  std::chrono::milliseconds m_interval;
  SteadyClock::time_point m_next{};
};

/// A configuration passed from another thread.
class Mailbox {
 public:
  void Put(std::shared_ptr<const Configuration> configuration) {
    const std::lock_guard lock(m_mutex);
    m_pConfiguration = std::move(configuration);
  }
  /// The newest one; null when none has arrived.
  std::shared_ptr<const Configuration> Take() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_pConfiguration, nullptr);
  }

 private:
  std::mutex m_mutex;
  std::shared_ptr<const Configuration> m_pConfiguration;
};

/// Creates the directory if missing, accessible only to its owner.
const std::filesystem::path& MakeStateDirectory(const std::filesystem::path& directory) {
  if (std::filesystem::create_directories(directory)) {
    std::filesystem::permissions(directory, std::filesystem::perms::owner_all);
  }
  return directory;
}

class Runner {
 public:
  Runner(const RunLoopOptions& options, IConnectionFactory& factory)
      : m_options(options),
        m_factory(factory),
        m_lock(GetLockFile(MakeStateDirectory(options.stateDirectory))),
        m_statusFile(options.stateDirectory),
        m_statistics(options.interval),
        m_look(std::min<std::chrono::milliseconds>(lookInterval, options.interval)) {}

  void Run() {
    m_log.Info("The agent starts (version %s).", m_options.agentVersion);
    LookAtLocalFile();
    StartServerLoop();
    m_statistics.IsDue(SteadyClock::now());
    while (!IsInterrupted()) Turn();
    Stop();
  }

  /// Wakes the loop. Any thread.
  void Wake() { m_collector.Wake(); }

 private:
  /// One turn: passes on what is there, does what is due, and waits for more.
  void Turn() {
    if (const auto configuration = m_mailbox.Take()) ApplyOfServer(*configuration);
    const Collector::Progress progress = m_collector.Collect(m_sink);
    const bool hasSettled = m_delivery.Settle();
    const SteadyClock::time_point now = SteadyClock::now();
    if (m_hasTaken && m_save.IsDue(now)) Save();
    if (m_look.IsDue(now)) Look();
    if (m_statistics.IsDue(now)) LogStatistics();

    if (m_sink.HasTakenAny() || hasSettled) m_pause.Reset();
    if (progress == Collector::Progress::More) return;
    std::chrono::milliseconds limit = std::min(m_look.Remaining(now), m_statistics.Remaining(now));
    if (m_hasTaken) limit = std::min(limit, m_save.Remaining(now));
    if (progress == Collector::Progress::Refused || m_delivery.HasInFlight()) limit = std::min(limit, m_pause.Next());
    m_collector.Wait(limit);
  }

  bool IsAlone() const { return m_factory.IsStandAloneMode(); }

  void StartServerLoop() {
    if (IsAlone()) return;
    m_pServerLoop = std::make_unique<ServerLoop>(m_options, m_factory, m_store, m_pCurrent, m_strRefused,
                                                 [this](std::shared_ptr<const Configuration> configuration) {
                                                   m_mailbox.Put(std::move(configuration));
                                                   Wake();
                                                 });
  }

  /// Applies the configuration file when its content has changed. With a server only once: afterwards the server brings
  /// changes.
  void LookAtLocalFile() {
    try {
      // Stays unknown when the file cannot be read: the next one read is looked at, even if it is the same.
      const std::optional<std::string> former = std::exchange(m_localDigest, std::nullopt);
      const std::optional<std::string> content = m_store.Read();
      const std::string digest = content ? MD5Sum(content->data(), content->size()) : std::string();
      m_localDigest = digest;
      if (digest == former) return;
      if (!content) {
        m_strRefused.clear();
        m_log.Info("There is no AgentConfig.xml.");
        return;
      }
      auto configuration = std::make_shared<Configuration>();
      configuration->settings = settings::ReadSettings(*content, EncodeCertificate);
      configuration->digest = digest;
      // The digest does not match a file that was changed by hand, or cut short by a crash.
      const std::string stored = m_store.ReadDigest();
      if (!IsAlone() && LooksLikeDigest(stored) && !AreSameDigest(stored, digest)) m_store.ForgetDigest();
      // One that cannot be applied, for example because the system gives no more threads, is tried again.
      m_localDigest.reset();
      Apply(*configuration);
      m_localDigest = digest;
      m_strRefused.clear();
      m_pCurrent = std::move(configuration);
    } catch (const std::exception& error) {
      if (std::exchange(m_strRefused, error.what()) == error.what()) return;
      m_log.Error("AgentConfig.xml is refused; the previous configuration stays in force: %s", m_strRefused);
      // So that the server sends its own again. A folder that cannot be written is no reason to end.
      std::error_code ignored;
      if (!IsAlone()) m_store.ForgetDigest(ignored);
    }
  }

  static bool LooksLikeDigest(const std::string& text) {
    return text.size() == 32 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  }

  void Apply(const Configuration& configuration) {
    const bool comesAgain = m_delivery.Change(configuration.settings.destinations, changePatience);
    m_collector.Change(configuration.settings.inputs);
    if (comesAgain) m_collector.Rewind();
    if (m_delivery.Lost() > 0) {
      m_log.Warn("%u lines are lost: the configuration has removed destinations that had not received them.",
                 m_delivery.Lost());
    }
    m_strDigest = configuration.digest;
    m_applied = std::chrono::system_clock::now();
    m_log.Info("The configuration %s is in force: %u inputs, %u destinations.", m_strDigest,
               configuration.settings.inputs.size(), configuration.settings.destinations.size());
  }

  /// One that cannot be applied, for example because the system gives no more threads, changes nothing.
  void ApplyOfServer(const Configuration& configuration) {
    try {
      Apply(configuration);
      m_strRefused.clear();
    } catch (const std::exception& error) {
      m_pServerLoop->NoteNotApplied(error.what());
      // It arrives again every time the server is asked.
      if (std::exchange(m_strRefused, error.what()) == error.what()) return;
      m_log.Error("The configuration from the server is refused; the previous one stays in force: %s", m_strRefused);
    }
  }

  void Save() {
    m_collector.Save();
    m_hasTaken = false;
  }

  void Look() {
    if (m_pServerLoop == nullptr) LookAtLocalFile();
    try {
      m_statusFile.Write(FormatStatus(MakeReport()), std::chrono::system_clock::now());
      m_strStatusError.clear();
    } catch (const std::exception& error) {
      if (std::exchange(m_strStatusError, error.what()) == error.what()) return;
      m_log.Warn("The status cannot be written: %s", m_strStatusError);
    }
  }

  StatusReport MakeReport() {
    StatusReport report;
    report.started = m_started;
    report.mode = NameOf(IsAlone() ? ConnectionMode::StandAlone : GetConnectionMode(m_factory));
    report.digest = m_strDigest;
    report.applied = m_applied;
    report.refused = m_strRefused;
    if (m_pServerLoop != nullptr) {
      m_factory.GetParameter("ConfigurationServer", report.server);
      report.connection = m_pServerLoop->GetReport();
      report.refused = report.connection->refused;
    }
    report.destinations = m_delivery.GetStatistics();
    return report;
  }

  void LogStatistics() {
    for (const delivery::ChannelStatistics& statistics : m_delivery.GetStatistics()) {
      m_statisticsLog.Info("%s", FormatStatistics(statistics));
    }
  }

  void Stop() {
    m_log.Info("The agent stops.");
    if (m_pServerLoop != nullptr) m_pServerLoop->RequestStop();
    m_delivery.Close(endPatience);
    m_collector.Save();
    LogStatistics();
    m_statusFile.Remove();
    // Last: it may be waiting for the server, and is abandoned to it when the time is over.
    m_pServerLoop.reset();
  }

  /// Returns whether lines were taken since the last call.
  class NotingSink : public collect::LineSink {
   public:
    explicit NotingSink(collect::LineSink& sink) : m_sink(sink) {}
    bool Take(std::string_view line, collect::Mark mark) override {
      const bool isTaken = m_sink.Take(line, mark);
      m_hasTaken = m_hasTaken || isTaken;
      return isTaken;
    }
    bool HasTakenAny() { return std::exchange(m_hasTaken, false); }

   private:
    collect::LineSink& m_sink;
    bool m_hasTaken = false;
  };

  void LogOfInputs(collect::Severity severity, const std::string& text) const {
    switch (severity) {
      case collect::Severity::Debug: m_log.Debug("%s", text); break;
      case collect::Severity::Info: m_log.Info("%s", text); break;
      case collect::Severity::Warning: m_log.Warn("%s", text); break;
    }
  }

  const RunLoopOptions m_options;
  IConnectionFactory& m_factory;
  const Log m_log = LoggerFactory::GetLogger("Code.Agent");
  const Log m_statisticsLog = LoggerFactory::GetLogger("Statistics.Agent");
  const WallTime m_started = std::chrono::system_clock::now();
  const InstanceLock m_lock;
  const ConfigurationStore m_store{WideToPath(GetConfigPath())};
  StatusFile m_statusFile;
  Timer m_save{saveInterval};
  Timer m_statistics;
  Timer m_look;
  schedule::GrowingPause m_pause{firstPause, longestPause};

  std::optional<std::string> m_localDigest{""};     ///< of the file at the last check; empty without one
  std::shared_ptr<const Configuration> m_pCurrent;  ///< from the file
  std::string m_strRefused;                         ///< why the file is not in force
  std::string m_strDigest;                          ///< of what is in force
  WallTime m_applied;
  std::string m_strStatusError;
  bool m_hasTaken = false;  ///< positions have moved since they were saved

  Mailbox m_mailbox;
  Collector m_collector{{},
                        m_options.stateDirectory / "positions",
                        [this](collect::Severity severity, const std::string& text) { LogOfInputs(severity, text); }};
  delivery::Delivery m_delivery{{[this](const settings::DestinationSettings& destination) {
                                   return MakeSocket(m_factory, destination.type,
                                                     settings::MakeTlsRange(destination.minTls, destination.maxTls),
                                                     destination.Url());
                                 },
                                 [this](std::uint64_t source) { return m_collector.GetName(source); },
                                 [this](collect::Mark mark) {
                                   m_collector.Taken(mark);
                                   m_hasTaken = true;
                                 },
                                 [this] { m_collector.Wake(); }, GetHostName()}};
  NotingSink m_sink{m_delivery};
  std::unique_ptr<ServerLoop> m_pServerLoop;  ///< last: its thread uses the others
};

}  // namespace

int RunCommand(const RunLoopOptions& options, IConnectionFactory& factory, LastWords& lastWords) {
  Runner runner(options, factory);
  lastWords.Prepare(
      endBound, [] {}, [&runner] { runner.Wake(); });
  const Withdrawal withdrawal(lastWords);
  runner.Run();
  return 0;
}

}  // namespace sorvex::agent
