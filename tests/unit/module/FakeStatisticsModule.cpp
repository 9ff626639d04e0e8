// A service in its own module, which reports when the module is unloaded.
#include <host/IStatisticsServer.h>

#include <ace/Service_Object.h>

#ifdef _WIN32
#define FAKE_MODULE_EXPORT __declspec(dllexport)
#else
#define FAKE_MODULE_EXPORT __attribute__((visibility("default")))
#endif

namespace {

class FakeStatisticsServer : public ACE_Service_Object, public WindowsAgentCommon::IStatisticsServer {
 public:
  int init(int, ACE_TCHAR*[]) override { return 0; }
  int fini() override { return 0; }
  void Add(const std::string&, std::uint64_t) override {}
  std::uint64_t GetValue(const std::string&) const override { return 0; }
};

/// Sets a flag of the test when the module's static objects are destroyed.
struct UnloadNotice {
  bool* m_pFlag = nullptr;
  ~UnloadNotice() {
    if (m_pFlag) *m_pFlag = true;
  }
};

UnloadNotice notice;

void Destroy(void* service) { delete static_cast<ACE_Service_Object*>(service); }

}  // namespace

extern "C" FAKE_MODULE_EXPORT void SetUnloadFlag(bool* flag);
void SetUnloadFlag(bool* flag) { notice.m_pFlag = flag; }

extern "C" FAKE_MODULE_EXPORT ACE_Service_Object* _make_FakeStatisticsServer(ACE_Service_Object_Exterminator* destroy);
ACE_Service_Object* _make_FakeStatisticsServer(ACE_Service_Object_Exterminator* destroy) {
  if (destroy) *destroy = &Destroy;
  return new FakeStatisticsServer;
}
