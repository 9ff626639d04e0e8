// A module whose connection to the configuration server does what the agent's --parameter options say:
//
//   Calls=FILE        appends a line for each operation, and for each socket asked for; it makes none
//   StandAlone=true   works without a server
//   Connect=false     lets Connect fail
//   Codes=N,N...      result codes of the exchanges, one after the other; the last one stays
//   False=NAME        the operation that returns false whatever its code; "Deliver" for a delivery that is complete all
//                     the same, "GetServerPublicKey" for that with a buffer
//   ErrorCode=N       the error code; without it, a negative result code is one
//   Data=TEXT         what is delivered; without it nothing is
//   Fingerprint=TEXT  the fingerprint over HTTPS; without it, what is delivered is its own fingerprint
//   Digest=TEXT       its digest
//   Key=TEXT          the server's key
//   Endless=true      delivers until the stream takes no more
//
// It hands them out as the parameters of the installation. With ForceHTTPSConfigServerConnection=true its connection is
// like the one over HTTPS: its operations succeed whatever the code, and the configuration is an exchange of its own.
#include <host/IConnectionFactory.h>
#include <host/ServiceComponentBase.h>

#include <ace/Service_Object.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <string>
#include <thread>

// The one macro of a module's entry point.
#ifdef _WIN32
#define SCRIPTED_MODULE_EXPORT __declspec(dllexport)
#else
#define SCRIPTED_MODULE_EXPORT __attribute__((visibility("default")))
#endif

namespace {

using namespace WindowsAgentCommon;

void NoteCall(const std::string& file, const std::string& call) {
  std::ofstream(file, std::ios::app | std::ios::binary) << call << "\n";
}

class ScriptedConnection : public IConfigurationServerConnection {
 public:
  explicit ScriptedConnection(const ParameterBlock& script) : m_script(script) { Note("Create"); }

  bool RegisterInstance(const std::string&, const std::string&) override { return Exchange("RegisterInstance") >= 0; }
  bool TestConnection() override { return Exchange("TestConnection") >= 0; }
  bool PostHeartbeat() override { return IsHttps() && Exchange("PostHeartbeat") >= 0; }
  bool UpdateStatus(AgentUpdateStatus status, const ACE_Time_Value&) override {
    return Exchange("UpdateStatus " + std::to_string(status)) >= 0;
  }

  std::string GetConfigurationFingerprint(bool& updateBlocked) override {
    const std::int32_t code = Exchange("GetConfigurationFingerprint");
    updateBlocked = code == (IsHttps() ? 204 : 7);
    if (!IsHttps()) return "fingerprint";
    if (updateBlocked) return "";
    const std::string fingerprint = Value("Fingerprint");
    return fingerprint.empty() ? Value("Data") : fingerprint;
  }

  bool RetrieveConfiguration(std::ostream& output, std::string& md5) override {
    if (IsHttps()) {
      Exchange("RetrieveConfiguration");
    } else {
      Note("RetrieveConfiguration");
    }
    return Deliver(output, md5);
  }

  bool RetrieveSoftwarePatch(const std::vector<std::string>& outOfDate, std::ostream& output,
                             std::string& md5) override {
    std::string names;
    for (const std::string& name : outOfDate) names += " " + name;
    return Exchange("RetrieveSoftwarePatch" + names) >= 0 && Deliver(output, md5);
  }

  bool GetServerPublicKey(std::uint8_t* buffer, std::uint32_t& size) override {
    const std::string key = Value("Key");
    const bool isFailing = buffer != nullptr && Value("False") == "GetServerPublicKey";
    const bool isFit = !key.empty() && !isFailing && (buffer == nullptr || size >= key.size());
    if (isFit) size = static_cast<std::uint32_t>(key.size());
    if (isFit && buffer != nullptr) std::copy(key.begin(), key.end(), buffer);
    return isFit;
  }

  std::int32_t GetLastErrorCode() const override {
    const std::string code = Value("ErrorCode");
    return code.empty() ? std::min(m_code, 0) : std::stoi(code);
  }
  std::int32_t GetLastResultCode() const override { return m_code; }
  std::string GetLastErrorMessage() const override { return "as scripted"; }

  bool Connect() override {
    Note("Connect");
    return Value("Connect") != "false";
  }
  void Disconnect() override { Note("Disconnect"); }

 private:
  std::string Value(const std::string& name) const {
    const auto found = m_script.find(name);
    return found == m_script.end() ? std::string() : found->second;
  }

  bool IsHttps() const { return Value("ForceHTTPSConfigServerConnection") == "true"; }

  void Note(const std::string& call) const { NoteCall(Value("Calls"), call); }

  std::int32_t Exchange(const std::string& call) {
    Note(call);
    const std::string codes = Value("Codes");
    if (m_codesRead < codes.size()) {
      m_code = static_cast<std::int32_t>(std::strtol(codes.c_str() + m_codesRead, nullptr, 10));
      const std::size_t comma = codes.find(',', m_codesRead);
      m_codesRead = comma == std::string::npos ? codes.size() : comma + 1;
    }
    const std::string failing = Value("False");
    return !failing.empty() && call.starts_with(failing) ? -1 : m_code;
  }

  bool Deliver(std::ostream& output, std::string& md5) const {
    const std::string data = Value("Data");
    md5 = Value("Digest");
    output << data;
    if (!Value("Endless").empty()) {
      Note("Endless");
      while (output << "x") std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return output.good() && (IsHttps() || !data.empty()) && Value("False") != "Deliver";
  }

  const ParameterBlock& m_script;
  std::size_t m_codesRead = 0;
  std::int32_t m_code = 0;
};

class ScriptedFactory : public ServiceComponentBase<IConnectionFactory, ACE_Service_Object> {
 public:
  int init(int, ACE_TCHAR*[]) override { return 0; }
  int fini() override { return 0; }

  int Initialize(const ServiceConfig& config) override {
    m_serviceConfig = config;
    m_bInitialized = true;
    return SERVICE_INITIALIZE_READY;
  }
  std::string GetVersion() const override { return "0.0.0"; }
  void Shutdown() override {}
  bool IsStandAloneMode() const override {
    std::string value;
    return GetParameter("StandAlone", value) && value == "true";
  }
  void CreateSocket(std::uint8_t, std::shared_ptr<IRawSocket>&) override {
    std::string calls;
    if (GetParameter("Calls", calls)) NoteCall(calls, "CreateSocket");
  }
  void CreateSSLSocket(std::uint8_t, const VaroCommunicationAPI::SSLProtocolList&,
                       std::shared_ptr<IRawSocket>&) override {}
  void CreateConfigServerConnection(std::shared_ptr<IConfigurationServerConnection>& connection) override {
    connection = std::make_shared<ScriptedConnection>(m_serviceConfig.m_parameters);
  }
  void ReleaseConfigServerConnection(std::shared_ptr<IConfigurationServerConnection>& connection) override {
    connection = nullptr;
  }
  bool GetParameter(const std::string& name, std::string& value) const override {
    const auto found = m_serviceConfig.m_parameters.find(name);
    if (found != m_serviceConfig.m_parameters.end()) value = found->second;
    return found != m_serviceConfig.m_parameters.end();
  }
};

void Destroy(void* service) { delete static_cast<ACE_Service_Object*>(service); }

}  // namespace

extern "C" SCRIPTED_MODULE_EXPORT ACE_Service_Object* _make_ConnectionFactory(ACE_Service_Object_Exterminator* destroy);
ACE_Service_Object* _make_ConnectionFactory(ACE_Service_Object_Exterminator* destroy) {
  if (destroy) *destroy = &Destroy;
  return new ScriptedFactory;
}
