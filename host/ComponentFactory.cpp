#include <SorvexHost/ComponentFactory.h>

#include <host/LoggerFactory.h>
#include <host/Text.h>

#include "PayloadFactory.h"
#include "ServiceName.h"
#include "StatisticsServer.h"
#include "platform/SharedLibrary.h"

#include <ace/DLL.h>
#include <ace/DLL_Manager.h>
#include <ace/OS_NS_dlfcn.h>
#include <ace/Service_Config.h>
#include <ace/Service_Repository.h>
#include <ace/Service_Types.h>

#include <atomic>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace WindowsAgentCommon {
namespace {

/// The type of `_make_<className>`: it returns a new service and its deleter.
using MakeService = ACE_Service_Object* (*)(ACE_Service_Object_Exterminator*);

struct Registration {
  std::filesystem::path m_module;    ///< empty for a service of this library
  std::string m_strFactoryFunction;  ///< in that module
  MakeService m_pMakeBuiltIn = nullptr;
};

std::atomic<ComponentFactory*> s_pInstalled{nullptr};

template <class Service>
ACE_Service_Object* MakeBuiltIn(ACE_Service_Object_Exterminator* exterminator) {
  *exterminator = [](void* service) { delete static_cast<ACE_Service_Object*>(service); };
  return new Service;
}

ACE_Service_Repository* GetRepository() {
  ACE_Service_Gestalt* gestalt = ACE_Service_Config::current();
  return gestalt ? gestalt->current_service_repository() : nullptr;
}

/// Loads `file` into `library`, with its path as its name. ACE itself would accept only a path in the system's narrow
/// character set, try other names too, and discard the system's reason.
bool OpenLibrary(const std::filesystem::path& file, ACE_DLL& library, std::string& error) {
  const ACE_SHLIB_HANDLE handle = OpenSharedLibrary(file, error);
  if (handle == ACE_SHLIB_INVALID_HANDLE) return false;

  const std::string name = WideToUtf8(PathToWide(file));
  ACE_DLL_Manager* manager = ACE_DLL_Manager::instance();
  ACE_DLL_Handle* known = manager->open_dll(name.c_str(), ACE_DEFAULT_SHLIB_MODE, handle);
  if (known == nullptr) {
    ACE_OS::dlclose(handle);
    error = "too many libraries";
    return false;
  }
  // An existing record keeps its own handle; this one only served to find the library.
  if (known->refcount() > 1) ACE_OS::dlclose(handle);
  const bool opened = library.open(name.c_str()) == 0;
  if (!opened) error = "the library manager refuses it";
  manager->close_dll(name.c_str());
  return opened;
}

/// The repository's records that hold no library.
std::set<const ACE_Service_Type*> RecordsWithoutLibrary(ACE_Service_Repository& repository) {
  std::set<const ACE_Service_Type*> records;
  const ACE_Guard<ACE_SYNCH_RECURSIVE_MUTEX> guard(repository.lock());
  ACE_Service_Repository_Iterator iterator(repository, false);
  for (const ACE_Service_Type* record = nullptr; iterator.next(record) != 0; iterator.advance()) {
    if (record->dll().get_handle() == ACE_SHLIB_INVALID_HANDLE) records.insert(record);
  }
  return records;
}

/// Like `OpenLibrary`; records that the library's start adds to the repository then hold the library.
bool OpenLibraryForServices(const std::filesystem::path& file, ACE_DLL& library, ACE_Service_Repository& repository,
                            std::string& error) {
  // The system's loader also starts one library at a time. Recursive, because the start of a library may load others.
  static std::recursive_mutex& oneAtATime = *new std::recursive_mutex;
  const std::lock_guard lock(oneAtATime);
  const std::set<const ACE_Service_Type*> before = RecordsWithoutLibrary(repository);
  if (!OpenLibrary(file, library, error)) return false;
  for (const ACE_Service_Type* record : RecordsWithoutLibrary(repository)) {
    if (!before.contains(record)) const_cast<ACE_Service_Type*>(record)->dll(library);
  }
  return true;
}

/// Calls foreign code. Returns an empty text, or the text of an exception from `name`. The exception is destroyed
/// before this returns: its code may be in a library that is about to be closed.
template <class Function>
std::string CallForeign(const std::string& name, Function function) {
  try {
    function();
    return {};
  } catch (const std::exception& exception) {
    return name + " threw an exception: " + exception.what();
  } catch (...) {
    return name + " threw an exception";
  }
}

/// Makes a registration's service and adds it to the repository. Returns an empty text, or why it failed. Runs foreign
/// code; no lock is held meanwhile.
std::string MakeAndInsert(const Registration& registration, const std::string& repositoryName,
                          ACE_Service_Repository& repository) {
  ACE_DLL library;
  MakeService make = registration.m_pMakeBuiltIn;
  std::string error;
  if (make == nullptr) {
    if (!OpenLibraryForServices(registration.m_module, library, repository, error)) return error;
    make = reinterpret_cast<MakeService>(library.symbol(registration.m_strFactoryFunction.c_str(), 1));
    if (make == nullptr) return "it has no function " + registration.m_strFactoryFunction;
  }

  ACE_Service_Object_Exterminator exterminator = nullptr;
  ACE_Service_Object* service = nullptr;
  error = CallForeign(registration.m_strFactoryFunction, [&] { service = make(&exterminator); });
  if (!error.empty()) return error;
  if (service == nullptr) return registration.m_strFactoryFunction + " returned null";

  // Both objects delete themselves with the record; the record holds the library until the service is destroyed.
  auto implementation = std::make_unique<ACE_Service_Object_Type>(
      service, repositoryName.c_str(), ACE_Service_Type::DELETE_OBJ | ACE_Service_Type::DELETE_THIS, exterminator);
  auto record = std::make_unique<ACE_Service_Type>(repositoryName.c_str(), implementation.get(), library, true);
  static_cast<void>(implementation.release());
  ACE_TCHAR* noArguments[] = {nullptr};
  int result = -1;
  error = CallForeign("its init", [&] { result = record->type()->init(0, noArguments); });
  if (!error.empty()) return error;
  if (result == -1) return "its init failed";
  if (repository.insert(record.get()) == -1) return "the service repository is full";
  static_cast<void>(record.release());
  return {};
}

}  // namespace

struct ComponentFactory::State {
  class Claim;

  bool IsWaitEndless(std::thread::id owner) const;

  /// Never held while code of a service or of the log runs.
  mutable std::mutex m_mutex;
  std::condition_variable m_released;
  std::map<std::string, Registration> m_registrations;
  std::map<std::string, ServiceConfig> m_configs;
  std::map<std::string, std::thread::id> m_claimed;  ///< which thread loads or unloads a service
  std::map<std::thread::id, std::string> m_waiting;  ///< for which service a thread waits
  std::vector<std::string> m_loaded;                 ///< in the order of loading
  const Log m_log = LoggerFactory::GetLogger("Code.ComponentFactory");
};

/// Whether a thread that waits for `owner` would end up waiting for itself. With the mutex held.
bool ComponentFactory::State::IsWaitEndless(std::thread::id owner) const {
  while (owner != std::this_thread::get_id()) {
    const auto wait = m_waiting.find(owner);
    if (wait == m_waiting.end()) return false;
    const auto claim = m_claimed.find(wait->second);
    // Released a moment ago: that thread is about to continue.
    if (claim == m_claimed.end()) return false;
    owner = claim->second;
  }
  return true;
}

/// A thread's right to load or unload a service, for the object's lifetime.
class ComponentFactory::State::Claim {
 public:
  /// Waits until no other thread has the right. Refused if that would never end.
  Claim(State& state, const std::string& serviceName) : m_state(state), m_strName(serviceName) {
    std::unique_lock lock(state.m_mutex);
    const std::thread::id self = std::this_thread::get_id();
    for (;;) {
      const auto [claim, inserted] = state.m_claimed.try_emplace(serviceName, self);
      m_bGranted = inserted;
      if (inserted || state.IsWaitEndless(claim->second)) return;
      state.m_waiting[self] = serviceName;
      state.m_released.wait(lock);
      state.m_waiting.erase(self);
    }
  }
  ~Claim() {
    if (!m_bGranted) return;
    const std::lock_guard lock(m_state.m_mutex);
    m_state.m_claimed.erase(m_strName);
    m_state.m_released.notify_all();
  }
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;

  bool IsGranted() const { return m_bGranted; }

 private:
  State& m_state;
  const std::string m_strName;
  bool m_bGranted = false;
};

IComponentFactory* GetComponentFactory() { return s_pInstalled.load(); }

ComponentFactory::ComponentFactory() : m_pState(std::make_unique<State>()) {}

ComponentFactory::~ComponentFactory() {
  std::unique_lock lock(m_pState->m_mutex);
  while (!m_pState->m_loaded.empty()) {
    const std::string last = m_pState->m_loaded.back();
    lock.unlock();
    UnloadService(last);
    lock.lock();
    std::erase(m_pState->m_loaded, last);
  }
  ComponentFactory* self = this;
  s_pInstalled.compare_exchange_strong(self, nullptr);
}

void ComponentFactory::Install() { s_pInstalled.store(this); }

void ComponentFactory::RegisterService(const std::string& serviceName, const std::filesystem::path& module,
                                       const std::string& className) {
  const std::lock_guard lock(m_pState->m_mutex);
  m_pState->m_registrations[serviceName] = {module, "_make_" + className, nullptr};
}

void ComponentFactory::RegisterBuiltInServices() {
  const std::lock_guard lock(m_pState->m_mutex);
  m_pState->m_registrations[IPayloadFactory::GetServiceName()] = {{}, {}, &MakeBuiltIn<PayloadFactory>};
  m_pState->m_registrations[IStatisticsServer::GetServiceName()] = {{}, {}, &MakeBuiltIn<StatisticsServer>};
}

void ComponentFactory::SetServiceConfig(const ServiceConfig& config) {
  const std::lock_guard lock(m_pState->m_mutex);
  m_pState->m_configs[config.m_strName] = config;
}

void ComponentFactory::UnloadService(const std::string& serviceName) {
  const State::Claim claim(*m_pState, serviceName);
  if (!claim.IsGranted()) return;
  {
    const std::lock_guard lock(m_pState->m_mutex);
    std::erase(m_pState->m_loaded, serviceName);
  }
  if (ACE_Service_Repository* repository = GetRepository()) repository->remove(GetRepositoryName(serviceName).c_str());
}

bool ComponentFactory::IsServiceRegistered(const std::string& serviceName) const {
  const std::lock_guard lock(m_pState->m_mutex);
  return m_pState->m_registrations.contains(serviceName);
}

bool ComponentFactory::LoadService(const std::string& serviceName) {
  Registration registration;
  bool registered = false;
  {
    const std::lock_guard lock(m_pState->m_mutex);
    const auto entry = m_pState->m_registrations.find(serviceName);
    registered = entry != m_pState->m_registrations.end();
    if (registered) registration = entry->second;
  }
  if (!registered) {
    m_pState->m_log.Error("The service %s is not registered.", serviceName);
    return false;
  }
  const State::Claim claim(*m_pState, serviceName);
  const std::string name = GetRepositoryName(serviceName);
  std::string error;
  if (ACE_Service_Repository* const repository = GetRepository(); repository == nullptr) {
    error = "there is no service repository";
  } else if (repository->find(name.c_str(), nullptr, false) == 0) {
    return true;
  } else if (!claim.IsGranted()) {
    error = "it is being loaded already";
  } else {
    error = MakeAndInsert(registration, name, *repository);
  }
  if (!error.empty()) {
    const std::string module =
        registration.m_module.empty() ? "the host" : WideToUtf8(PathToWide(registration.m_module));
    m_pState->m_log.Error("Cannot load the service %s from %s: %s.", serviceName, module, error);
    return false;
  }
  const std::lock_guard lock(m_pState->m_mutex);
  m_pState->m_loaded.push_back(serviceName);
  return true;
}

ServiceConfig* ComponentFactory::GetServiceConfig(const std::string& componentName) {
  const std::lock_guard lock(m_pState->m_mutex);
  const auto entry = m_pState->m_configs.find(componentName);
  return entry == m_pState->m_configs.end() ? nullptr : &entry->second;
}

}  // namespace WindowsAgentCommon
