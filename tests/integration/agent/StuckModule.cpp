// A module whose connections and sockets never return from a call until the process ends.
#include <host/IConnectionFactory.h>
#include <host/ISocket.h>
#include <host/ServiceComponentBase.h>

#include <ace/Service_Object.h>

#include <chrono>
#include <thread>

#ifdef _WIN32
#define STUCK_MODULE_EXPORT __declspec(dllexport)
#else
#define STUCK_MODULE_EXPORT __attribute__((visibility("default")))
#endif

namespace {

using namespace WindowsAgentCommon;

[[noreturn]] void Hang() {
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

class StuckConnection : public IConfigurationServerConnection {
 public:
  bool RegisterInstance(const std::string&, const std::string&) override { Hang(); }
  bool TestConnection() override { Hang(); }
  bool PostHeartbeat() override { Hang(); }
  bool UpdateStatus(AgentUpdateStatus, const ACE_Time_Value&) override { Hang(); }
  std::string GetConfigurationFingerprint(bool&) override { Hang(); }
  bool RetrieveConfiguration(std::ostream&, std::string&) override { Hang(); }
  bool RetrieveSoftwarePatch(const std::vector<std::string>&, std::ostream&, std::string&) override { Hang(); }
  bool GetServerPublicKey(std::uint8_t*, std::uint32_t&) override { return false; }
  std::int32_t GetLastErrorCode() const override { return 0; }
  std::int32_t GetLastResultCode() const override { return 0; }
  std::string GetLastErrorMessage() const override { return {}; }
  bool Connect() override { Hang(); }
  void Disconnect() override {}
};

/// Takes one event, which it neither sends nor drops.
class StuckSocket : public ISocket {
 public:
  void Open(const std::wstring&, std::uint32_t) override {}
  bool IsOpen() const override { return true; }
  void Close() override {}
  bool IsConnected() const override { return true; }
  bool Connect() override { Hang(); }
  std::int32_t Send(const void*, std::uint32_t) override { Hang(); }
  std::int32_t Receive(void*, std::uint32_t, std::uint32_t) override { Hang(); }
  std::wstring GetHost() const override { return {}; }
  std::uint32_t GetPort() const override { return 0; }
  std::int32_t GetLastResultCode() const override { return 0; }
  void Initialize(const ParameterBlock&) override {}
  std::int32_t SendEvent(const Event&) override {
    m_submitted += 1;
    Hang();
  }
  int Shutdown() override { Hang(); }
  std::uint32_t GetBytesSent() const override { return 0; }
  std::uint32_t GetMessagesSent() const override { return 0; }
  std::uint32_t GetBytesSubmitted() const override { return 0; }
  std::uint32_t GetMessagesSubmitted() const override { return m_submitted; }
  std::uint32_t GetBytesTruncated() const override { return 0; }
  std::uint32_t GetMessagesTruncated() const override { return 0; }
  std::uint32_t GetBytesDropped() const override { return 0; }
  std::uint32_t GetMessagesDropped() const override { return 0; }
  std::size_t GetQueueSize() const override { return 0; }

 private:
  std::uint32_t m_submitted = 0;
};

class StuckFactory : public ServiceComponentBase<IConnectionFactory, ACE_Service_Object> {
 public:
  int init(int, ACE_TCHAR*[]) override { return 0; }
  int fini() override { return 0; }
  int Initialize(const ServiceConfig&) override {
    m_bInitialized = true;
    return SERVICE_INITIALIZE_READY;
  }
  std::string GetVersion() const override { return "0.0.0"; }
  void Shutdown() override {}
  bool IsStandAloneMode() const override { return true; }
  void CreateSocket(std::uint8_t, std::shared_ptr<IRawSocket>& socket) override {
    socket = std::make_shared<StuckSocket>();
  }
  void CreateSSLSocket(std::uint8_t, const VaroCommunicationAPI::SSLProtocolList&,
                       std::shared_ptr<IRawSocket>& socket) override {
    socket = std::make_shared<StuckSocket>();
  }
  void CreateConfigServerConnection(std::shared_ptr<IConfigurationServerConnection>& connection) override {
    connection = std::make_shared<StuckConnection>();
  }
  void ReleaseConfigServerConnection(std::shared_ptr<IConfigurationServerConnection>& connection) override {
    connection.reset();
  }
  bool GetParameter(const std::string&, std::string&) const override { return false; }
};

void Destroy(void* service) { delete static_cast<ACE_Service_Object*>(service); }

}  // namespace

extern "C" STUCK_MODULE_EXPORT ACE_Service_Object* _make_ConnectionFactory(ACE_Service_Object_Exterminator* destroy);
ACE_Service_Object* _make_ConnectionFactory(ACE_Service_Object_Exterminator* destroy) {
  if (destroy) *destroy = &Destroy;
  return new StuckFactory;
}
