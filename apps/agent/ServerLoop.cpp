#include <ServerLoop.h>

#include <Certificate.h>
#include <DeliveredFile.h>
#include <HtmlPage.h>
#include <ServerAnswer.h>
#include <platform/Platform.h>

#include <host/Digest.h>
#include <host/Log.h>
#include <host/LoggerFactory.h>
#include <host/Paths.h>
#include <host/Text.h>

#include <ace/Time_Value.h>
#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <locale>
#include <ostream>
#include <streambuf>
#include <system_error>
#include <utility>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;

/// More than any digest; what the module reads of AgentConfig.md5 is more.
constexpr std::size_t maxFingerprintLength = 100;

/// A text that ends one byte after the longest configuration, so that the reader finds it too long. It refuses the
/// rest, which may be endless.
class BoundedText : public std::streambuf {
 public:
  const std::string& Text() const { return m_text; }
  bool IsTooLong() const { return m_text.size() > settings::maxSettingsBytes; }

 protected:
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    const std::size_t taken = std::min(static_cast<std::size_t>(count), settings::maxSettingsBytes + 1 - m_text.size());
    m_text.append(bytes, taken);
    return static_cast<std::streamsize>(taken);
  }
  int_type overflow(int_type character) override {
    if (traits_type::eq_int_type(character, traits_type::eof())) return traits_type::not_eof(character);
    const char byte = traits_type::to_char_type(character);
    return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
  }

 private:
  std::string m_text;
};

/// Ends what a `Connect` has begun.
class OpenConnection {
 public:
  explicit OpenConnection(ServerConnection& connection) : m_connection(connection) {}
  ~OpenConnection() { m_connection->Disconnect(); }
  OpenConnection(const OpenConnection&) = delete;
  OpenConnection& operator=(const OpenConnection&) = delete;

 private:
  ServerConnection& m_connection;
};

/// Patches of a component have the same name except for the build.
std::string PatchPrefix(const std::string& component) {
  return "x64_72_" + boost::algorithm::to_lower_copy(component, std::locale::classic()) + "_";
}
constexpr std::string_view patchSuffix = ".tar.gz";

/// Removes waiting patches of a component that a newer one replaces.
void RemoveOlderPatches(const std::filesystem::path& directory, const std::string& prefix, std::uint32_t build) {
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::u8string u8name = entry.path().filename().u8string();
    const std::string_view name(reinterpret_cast<const char*>(u8name.data()), u8name.size());
    if (!name.starts_with(prefix) || !name.ends_with(patchSuffix)) continue;
    const std::string_view digits = name.substr(prefix.size(), name.size() - prefix.size() - patchSuffix.size());
    std::uint32_t other = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), other);
    const bool isNumber = error == std::errc() && end == digits.data() + digits.size();
    if (isNumber && other < build) std::filesystem::remove(entry.path());
  }
}

std::uint32_t InstalledBuild(const IConnectionFactory& factory, const std::string& component) {
  std::string text;
  std::uint32_t build = 0;
  factory.GetParameter("BuildNumber_" + component, text);
  std::from_chars(text.data(), text.data() + text.size(), build);
  return build;
}

}  // namespace

ServerLoop::ServerLoop(const RunLoopOptions& options, IConnectionFactory& factory, ConfigurationStore store,
                       std::shared_ptr<const Configuration> current, std::string refused, Apply apply)
    : m_options(options),
      m_factory(factory),
      m_store(std::move(store)),
      m_apply(std::move(apply)),
      m_log(LoggerFactory::GetLogger("Code.Agent")),
      m_connection(factory),
      m_schedule(options.interval, schedule::SystemRandom()),
      m_pCurrent(std::move(current)) {
  m_report.refused = std::move(refused);
  m_thread.Start([this] { Run(); });
}

ServerLoop::~ServerLoop() = default;

ServerReport ServerLoop::GetReport() const {
  const std::lock_guard lock(m_mutex);
  return m_report;
}

void ServerLoop::Run() {
  schedule::Duration pause = m_schedule.First();
  while (!m_thread.WaitForStop(pause)) {
    if (RunRound()) {
      NoteSuccess();
      pause = m_schedule.AfterSuccess();
    } else {
      pause = m_schedule.AfterFailure();
    }
  }
  const ServerReport report = GetReport();
  if (report.isRegistered && !report.awaySince) ReportStatus(AGENT_UPDATE_STATUS_STOPPED);
}

bool ServerLoop::RunRound() {
  try {
    const AgentUpdateStatus former = Status();
    if (!Register() || !ReportStatus(former) || !Update()) return false;
    const AgentUpdateStatus status = Status();
    return status == former || ReportStatus(status);
  } catch (const std::exception& error) {
    return Fail("the round", error.what());
  }
}

AgentUpdateStatus ServerLoop::Status() const {
  return GetReport().refused.empty() ? AGENT_UPDATE_STATUS_RUNNING : AGENT_UPDATE_STATUS_FAILED;
}

bool ServerLoop::Register() {
  if (GetReport().isRegistered) return true;
  const bool isDone = m_connection->RegisterInstance(m_options.osVersion, m_options.agentVersion);
  if (!isDone || LastAnswer(m_connection) != ServerAnswer::Success) return Fail("registration");
  m_log.Info("Registered with the configuration server (result code %d).", m_connection->GetLastResultCode());
  const std::lock_guard lock(m_mutex);
  m_report.isRegistered = true;
  return true;
}

bool ServerLoop::ReportStatus(AgentUpdateStatus status) {
  using namespace std::chrono;
  // Direct TLS sends the time of the status, HTTPS how long the agent has been up.
  const auto now = duration_cast<seconds>(system_clock::now().time_since_epoch());
  const auto up = duration_cast<seconds>(steady_clock::now() - m_start);
  const ACE_Time_Value time(static_cast<time_t>((IsHttps() ? up : now).count()));
  const bool isDone = m_connection->UpdateStatus(status, time);
  return (isDone && LastAnswer(m_connection) == ServerAnswer::Success) || Fail("the status report");
}

bool ServerLoop::Update() {
  if (!m_connection->Connect()) return Fail("the connection");
  const OpenConnection connection(m_connection);
  return FetchConfiguration() && FetchPatches();
}

bool ServerLoop::FetchConfiguration() {
  if (m_bAsksAgain) {
    m_store.ForgetDigest();
    m_bAsksAgain = false;
  }
  bool isBlocked = false;
  const std::string fingerprint = m_connection->GetConfigurationFingerprint(isBlocked);
  switch (LastAnswer(m_connection)) {
    case ServerAnswer::Success: break;
    case ServerAnswer::NoUpdate: KeepCurrent(); return true;
    case ServerAnswer::UpdatesDisabled:
      SayOnce("The configuration server has disabled updates for this agent.");
      return true;
    case ServerAnswer::NotFound: SayOnce("The configuration server has no configuration for this agent."); return true;
    case ServerAnswer::Failure: return Fail("the fingerprint");
  }
  if (!IsHttps()) return RetrieveConfiguration({});
  if (fingerprint.empty() || fingerprint.size() > maxFingerprintLength || IsHtmlPage(fingerprint) ||
      fingerprint.find_first_of("\r\n") != std::string::npos) {
    return Fail("the fingerprint", "the server's answer is none");
  }
  if (!AreSameDigest(fingerprint, m_store.ReadDigest())) return RetrieveConfiguration(fingerprint);
  KeepCurrent();
  return true;
}

/// The server wants nothing else than the stored configuration, whatever it wanted before.
void ServerLoop::KeepCurrent() {
  // Without a digest the stored one may be the agent's own, which is refused.
  if (m_store.ReadDigest().empty()) return;
  m_refusedDigest.reset();
  SetRefused({});
}

/// `fingerprint` is the server's for its configuration; over direct TLS a digest comes with the data instead.
bool ServerLoop::RetrieveConfiguration(const std::string& fingerprint) {
  BoundedText text;
  std::ostream stream(&text);
  std::string digest;
  const bool isDone = m_connection->RetrieveConfiguration(stream, digest);
  if (IsHttps()) digest = fingerprint;
  // That its rest was refused is not the server's failure.
  if (text.IsTooLong()) return TakeConfiguration(text.Text(), digest);
  if (!isDone || LastAnswer(m_connection) != ServerAnswer::Success) return Fail("the configuration");
  const std::string actual = MD5Sum(text.Text().data(), text.Text().size());
  if (!IsHttps() && !AreSameDigest(digest, actual)) {
    return Fail("the configuration", "the MD5 of what came is " + actual + ", the server's is '" + digest + "'");
  }
  return TakeConfiguration(text.Text(), digest);
}

/// Stores and applies a valid configuration. An invalid one is refused, which is no failure of the server.
bool ServerLoop::TakeConfiguration(const std::string& content, const std::string& digest) {
  auto configuration = std::make_shared<Configuration>();
  try {
    configuration->settings = settings::ReadSettings(content, EncodeCertificate);
  } catch (const settings::SettingsError& error) {
    Refuse(digest, error.what());
    return true;
  }
  configuration->digest = MD5Sum(content.data(), content.size());
  m_store.Store(content, digest);
  m_refusedDigest.reset();
  SetRefused({});
  m_pCurrent = configuration;
  m_apply(std::move(configuration));
  return true;
}

void ServerLoop::Refuse(const std::string& digest, const std::string& reason) {
  SetRefused(reason);
  // It arrives again every time the server is asked.
  if (std::exchange(m_refusedDigest, digest) == digest) return;
  m_log.Error("The configuration from the server is refused; the previous one stays in force: %s", reason);
}

void ServerLoop::SetRefused(const std::string& reason) {
  const std::lock_guard lock(m_mutex);
  m_report.refused = reason;
}

void ServerLoop::NoteNotApplied(const std::string& reason) {
  SetRefused(reason);
  m_bAsksAgain = true;
}

/// An unusable patch does not keep the agent from the others.
bool ServerLoop::FetchPatches() {
  if (m_pCurrent == nullptr) return true;
  bool areAllUsable = true;
  for (const settings::ComponentSettings& component : m_pCurrent->settings.components) {
    if (IsInterrupted()) break;
    if (component.buildNumber <= InstalledBuild(m_factory, component.name)) continue;
    const PatchOutcome outcome = FetchPatch(component);
    if (outcome == PatchOutcome::NotReceived) return false;
    if (outcome == PatchOutcome::Unusable) areAllUsable = false;
  }
  return areAllUsable;
}

ServerLoop::PatchOutcome ServerLoop::FetchPatch(const settings::ComponentSettings& component) {
  const std::filesystem::path directory = WideToPath(GetPatchPath());
  const std::string prefix = PatchPrefix(component.name);
  const std::string name = prefix + std::to_string(component.buildNumber) + std::string(patchSuffix);
  const std::filesystem::path path = directory / name;
  if (std::filesystem::exists(path)) return PatchOutcome::Settled;
  std::filesystem::create_directories(directory);

  DeliveredFile file(path);
  std::string digest;
  const bool isDone = m_connection->RetrieveSoftwarePatch({component.name}, file.Stream(), digest);
  const ServerAnswer answer = LastAnswer(m_connection);
  if (answer == ServerAnswer::NoUpdate || answer == ServerAnswer::UpdatesDisabled || answer == ServerAnswer::NotFound) {
    SayOnce(WindowsAgentCommon::Format("The configuration server has no patch %s.", name));
    return PatchOutcome::Settled;
  }
  if (!isDone || answer != ServerAnswer::Success) {
    Fail("the patch " + name, file.WriteError());
    return isDone ? PatchOutcome::Unusable : PatchOutcome::NotReceived;
  }
  file.Finish();
  if (!IsHttps() && !AreSameDigest(digest, file.GetDigest())) {
    Fail("the patch " + name, "the MD5 of what came is " + file.GetDigest() + ", the server's is '" + digest + "'");
    return PatchOutcome::Unusable;
  }
  if (file.Size() == 0 || IsHtmlPage(file.Begin())) {
    Fail("the patch " + name, "what came is no archive");
    return PatchOutcome::Unusable;
  }
  file.Keep();
  m_log.Info("The patch %s waits (%u bytes).", name, file.Size());
  RemoveOlderPatches(directory, prefix, component.buildNumber);
  return PatchOutcome::Settled;
}

/// Without a reason it is the connection's. Returns false.
bool ServerLoop::Fail(const std::string& operation, const std::string& reason) {
  const std::int32_t code = reason.empty() ? m_connection->GetLastErrorCode() : 0;
  std::string text = reason.empty() ? m_connection->GetLastErrorMessage() : reason;
  if (text.empty()) text = "result code " + std::to_string(m_connection->GetLastResultCode());
  bool isFirst = false;
  {
    const std::lock_guard lock(m_mutex);
    isFirst = !m_report.awaySince;
    if (isFirst) m_report.awaySince = std::chrono::system_clock::now();
    m_report.errorCode = code;
    m_report.errorText = text;
  }
  if (isFirst && !IsInterrupted()) {
    m_log.Warn("The configuration server failed (%s: %d, %s). The agent continues with what it has and tries again.",
               operation, code, text);
  }
  return false;
}

void ServerLoop::NoteSuccess() {
  bool wasAway = false;
  {
    const std::lock_guard lock(m_mutex);
    wasAway = m_report.awaySince.has_value();
    m_report.awaySince.reset();
    m_report.reached = std::chrono::system_clock::now();
  }
  if (wasAway) m_log.Info("The configuration server is back.");
}

void ServerLoop::SayOnce(const std::string& text) {
  if (m_said.insert(text).second) m_log.Info("%s", text);
}

}  // namespace sorvex::agent
