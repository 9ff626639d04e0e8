// The services of a module that the tests of the component factory load.
#include <host/IComponentFactory.h>
#include <host/ISecurityManager.h>
#include <host/IStatisticsServer.h>
#include <host/LoggerFactory.h>
#include <host/ServiceLookup.h>

#include <support/WaitUntil.h>

#include <ace/Service_Object.h>

#include <exception>
#include <future>
#include <memory>
#include <thread>

namespace {

using WindowsAgentCommon::GetComponentFactory;
using WindowsAgentCommon::GetService;
using WindowsAgentCommon::IStatisticsServer;

/// Reports events to the test through a service that outlives this module.
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

/// An exception whose code is in this module.
class PluginError : public std::exception {
 public:
  const char* what() const noexcept override { return "no luck"; }
};

class ThrowingService : public CountingService {
 public:
  int init(int, ACE_TCHAR*[]) override { throw PluginError(); }
};

class OddlyThrowingService : public CountingService {
 public:
  int init(int, ACE_TCHAR*[]) override { throw 42; }
};

/// Waits until someone has counted `name`; returns whether that happened.
bool WaitForCount(const char* name) {
  return sorvex::test::WaitUntil([name] { return GetService<IStatisticsServer>()->GetValue(name) != 0; });
}

/// Calls the host from its own thread and waits for the answers.
class AskingService : public ACE_Service_Object {
 public:
  int init(int, ACE_TCHAR*[]) override {
    const auto answered = std::make_shared<std::promise<void>>();
    std::future<void> answer = answered->get_future();
    std::thread thread([answered] {
      WindowsAgentCommon::IComponentFactory* const host = GetComponentFactory();
      if (host->IsServiceRegistered("Asking") && host->GetServiceConfig("AgentCore") != nullptr &&
          host->LoadService("IPayloadFactory") && GetService<IStatisticsServer>() != nullptr) {
        Count("answered");
      }
      answered->set_value();
    });
    if (answer.wait_for(sorvex::test::patience) == std::future_status::ready) {
      thread.join();
    } else {
      // It continues once the host allows it.
      Count("unanswered");
      thread.detach();
    }
    return 0;
  }
};

/// Is initialised when the test opens the gate.
class GatedService : public CountingService {
 public:
  int init(int argc, ACE_TCHAR* argv[]) override {
    Count("at the gate");
    if (!WaitForCount("gate open")) return -1;
    return CountingService::init(argc, argv);
  }
};

/// Loads another service that loads this one.
class CyclicService : public CountingService {
 public:
  explicit CyclicService(const char* other) : m_pOther(other) {}
  int init(int, ACE_TCHAR*[]) override {
    Count(GetComponentFactory()->LoadService(m_pOther) ? "cycle loaded" : "cycle refused");
    return 0;
  }

 private:
  const char* m_pOther;
};

/// Loads another service once both are being loaded.
class EntangledService : public CountingService {
 public:
  EntangledService(const char* own, const char* other, const char* otherName)
      : m_pOwn(own), m_pOther(other), m_pOtherName(otherName) {}
  int init(int, ACE_TCHAR*[]) override {
    Count(m_pOwn);
    if (!WaitForCount(m_pOther)) return -1;
    Count(GetComponentFactory()->LoadService(m_pOtherName) ? "cycle loaded" : "cycle refused");
    return 0;
  }

 private:
  const char* m_pOwn;
  const char* m_pOther;
  const char* m_pOtherName;
};

/// Logs its destruction.
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
ACE_Service_Object* _make_ThrowingService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_OddlyThrowingService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_AskingService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_GatedService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_FirstCyclicService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_SecondCyclicService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_FirstEntangledService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_SecondEntangledService(ACE_Service_Object_Exterminator* exterminator);
ACE_Service_Object* _make_NothingButAnException(ACE_Service_Object_Exterminator*);

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

ACE_Service_Object* _make_ThrowingService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<ThrowingService>(exterminator);
}

ACE_Service_Object* _make_OddlyThrowingService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<OddlyThrowingService>(exterminator);
}

ACE_Service_Object* _make_AskingService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<AskingService>(exterminator);
}

ACE_Service_Object* _make_GatedService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<GatedService>(exterminator);
}

ACE_Service_Object* _make_FirstCyclicService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<CyclicService>(exterminator, "SecondCyclic");
}

ACE_Service_Object* _make_SecondCyclicService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<CyclicService>(exterminator, "FirstCyclic");
}

ACE_Service_Object* _make_FirstEntangledService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<EntangledService>(exterminator, "first entered", "second entered", "SecondEntangled");
}

ACE_Service_Object* _make_SecondEntangledService(ACE_Service_Object_Exterminator* exterminator) {
  return Make<EntangledService>(exterminator, "second entered", "first entered", "FirstEntangled");
}

ACE_Service_Object* _make_NothingButAnException(ACE_Service_Object_Exterminator*) { throw PluginError(); }
}
