// The services of a module that the tests of the component factory load.
#include <host/IComponentFactory.h>
#include <host/ISecurityManager.h>
#include <host/IStatisticsServer.h>
#include <host/LoggerFactory.h>
#include <host/ServiceLookup.h>

#include <ace/Service_Object.h>

namespace {

using WindowsAgentCommon::GetComponentFactory;
using WindowsAgentCommon::GetService;
using WindowsAgentCommon::IStatisticsServer;

/// Tells the test what happens, through a service that outlives this module.
void Count(const char* name) {
  if (auto* statistics = GetService<IStatisticsServer>()) statistics->Add(name, 1);
}

class CountingService : public ACE_Service_Object, public WindowsAgentCommon::ISecurityManager {
 public:
  ~CountingService() override { Count("destroyed"); }

  int init(int argc, ACE_TCHAR*[]) override {
    Count(argc == 0 ? "init" : "init with arguments");
    return 0;
  }
  int fini() override {
    Count("fini");
    return 0;
  }
  bool IsTlsReady() const override { return true; }
};

class RefusingService : public CountingService {
 public:
  int init(int, ACE_TCHAR*[]) override {
    Count("refused");
    return -1;
  }
};

/// Loads another service while it is being loaded itself.
class LoadingService : public ACE_Service_Object {
 public:
  int init(int, ACE_TCHAR*[]) override { return GetComponentFactory()->LoadService("IPayloadFactory") ? 0 : -1; }
};

/// Tries to load itself while it is being loaded.
class RecursiveService : public ACE_Service_Object {
 public:
  int init(int, ACE_TCHAR*[]) override {
    Count(GetComponentFactory()->LoadService("Recursive") ? "loaded twice" : "recursion refused");
    return 0;
  }
};

/// Logs its end.
class FarewellService : public ACE_Service_Object {
 public:
  explicit FarewellService(const char* name) : m_pName(name) {}
  ~FarewellService() override { WindowsAgentCommon::LoggerFactory::GetLogger("Plugin").Info("%s ends", m_pName); }

 private:
  const char* m_pName;
};

void Destroy(void* service) { delete static_cast<ACE_Service_Object*>(service); }

template <class Service, class... Arguments>
ACE_Service_Object* Make(ACE_Service_Object_Exterminator* exterminator, Arguments... arguments) {
  *exterminator = Destroy;
  return new Service(arguments...);
}

}  // namespace

extern "C" {

ACE_Service_Object* _make_CountingService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_RefusingService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_LoadingService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_RecursiveService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_FirstFarewellService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_SecondFarewellService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_NullService(ACE_Service_Object_Exterminator* exterminator);

ACE_Service_Object* _make_CountingService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<CountingService>(exterminator);
}

ACE_Service_Object* _make_RefusingService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<RefusingService>(exterminator);
}

ACE_Service_Object* _make_LoadingService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<LoadingService>(exterminator);
}

ACE_Service_Object* _make_RecursiveService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<RecursiveService>(exterminator);
}

ACE_Service_Object* _make_FirstFarewellService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<FarewellService>(exterminator, "First");
}

ACE_Service_Object* _make_SecondFarewellService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<FarewellService>(exterminator, "Second");
}

ACE_Service_Object* _make_NullService(ACE_Service_Object_Exterminator*) { return nullptr; }
}
