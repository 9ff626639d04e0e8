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

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

namespace WindowsAgentCommon {
namespace {

/// What `_make_<className>` is: it returns a new service and says who destroys it.
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

/// Loads `file` into `library`, under its path as its name. ACE itself would take a path of the system's narrow
/// character set only, try other names besides, and keep the system's reason to itself.
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
  // One that was there before keeps its own handle; this one has then served only to find the library.
  if (known->refcount() > 1) ACE_OS::dlclose(handle);
  const bool opened = library.open(name.c_str()) == 0;
  if (!opened) error = "the library manager refuses it";
  manager->close_dll(name.c_str());
  return opened;
}

/// Makes the service of a registration and puts it into the repository. Returns an empty text, or why it failed.
std::string MakeAndInsert(const Registration& registration, const std::string& repositoryName,
                          ACE_Service_Repository& repository) {
  ACE_DLL library;
  MakeService make = registration.m_pMakeBuiltIn;
  if (make == nullptr) {
    std::string error;
    if (!OpenLibrary(registration.m_module, library, error)) return error;
    make = reinterpret_cast<MakeService>(library.symbol(registration.m_strFactoryFunction.c_str(), 1));
    if (make == nullptr) return "it has no function " + registration.m_strFactoryFunction;
  }

  ACE_Service_Object_Exterminator exterminator = nullptr;
  ACE_Service_Object* service = make(&exterminator);
  if (service == nullptr) return registration.m_strFactoryFunction + " returned null";

  // Both objects delete themselves with the record; the record holds the library until the service is destroyed.
  auto implementation = std::make_unique<ACE_Service_Object_Type>(
      service, repositoryName.c_str(), ACE_Service_Type::DELETE_OBJ | ACE_Service_Type::DELETE_THIS, exterminator);
  auto record = std::make_unique<ACE_Service_Type>(repositoryName.c_str(), implementation.get(), library, true);
  static_cast<void>(implementation.release());
  ACE_TCHAR* noArguments[] = {nullptr};
  if (record->type()->init(0, noArguments) == -1) return "its init failed";
  if (repository.insert(record.get()) == -1) return "the service repository is full";
  static_cast<void>(record.release());
  return {};
}

}  // namespace

struct ComponentFactory::State {
  /// Recursive, because a service that is being loaded may load others.
  mutable std::recursive_mutex m_mutex;
  std::map<std::string, Registration> m_registrations;
  std::map<std::string, ServiceConfig> m_configs;
  std::set<std::string> m_loading;    ///< whose loading has begun and not ended
  std::vector<std::string> m_loaded;  ///< in the order of loading
  Log m_log = LoggerFactory::GetLogger("Code.ComponentFactory");
};

IComponentFactory* GetComponentFactory() { return s_pInstalled.load(); }

ComponentFactory::ComponentFactory() : m_pState(std::make_unique<State>()) {}

ComponentFactory::~ComponentFactory() {
  const std::unique_lock lock(m_pState->m_mutex);
  while (!m_pState->m_loaded.empty()) UnloadService(std::string(m_pState->m_loaded.back()));
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
  const std::lock_guard lock(m_pState->m_mutex);
  std::erase(m_pState->m_loaded, serviceName);
  if (ACE_Service_Repository* repository = GetRepository()) repository->remove(GetRepositoryName(serviceName).c_str());
}

bool ComponentFactory::IsServiceRegistered(const std::string& serviceName) const {
  const std::lock_guard lock(m_pState->m_mutex);
  return m_pState->m_registrations.contains(serviceName);
}

bool ComponentFactory::LoadService(const std::string& serviceName) {
  const std::lock_guard lock(m_pState->m_mutex);
  const auto entry = m_pState->m_registrations.find(serviceName);
  if (entry == m_pState->m_registrations.end()) {
    m_pState->m_log.Error("The service %s is not registered.", serviceName);
    return false;
  }
  const std::string module =
      entry->second.m_module.empty() ? "the host" : WideToUtf8(PathToWide(entry->second.m_module));
  const std::string name = GetRepositoryName(serviceName);
  std::string error = "there is no service repository";
  if (ACE_Service_Repository* repository = GetRepository()) {
    if (repository->find(name.c_str(), nullptr, false) == 0) return true;
    if (m_pState->m_loading.insert(serviceName).second) {
      // Makes whatever else the library registers hold the library as the service itself does.
      const ACE_Service_Type_Dynamic_Guard guard(*repository, name.c_str());
      error = MakeAndInsert(entry->second, name, *repository);
      m_pState->m_loading.erase(serviceName);
    } else {
      error = "it is being loaded already";
    }
  }
  if (!error.empty()) {
    m_pState->m_log.Error("Cannot load the service %s from %s: %s.", serviceName, module, error);
    return false;
  }
  m_pState->m_loaded.push_back(serviceName);
  return true;
}

ServiceConfig* ComponentFactory::GetServiceConfig(const std::string& componentName) {
  const std::lock_guard lock(m_pState->m_mutex);
  const auto entry = m_pState->m_configs.find(componentName);
  return entry == m_pState->m_configs.end() ? nullptr : &entry->second;
}

}  // namespace WindowsAgentCommon
