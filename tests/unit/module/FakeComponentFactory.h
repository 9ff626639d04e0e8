// A component factory whose services a test scripts.
#pragma once

#include <SorvexHost/ComponentFactory.h>

#include <ace/DLL.h>
#include <ace/Service_Config.h>
#include <ace/Service_Object.h>
#include <ace/Service_Repository.h>
#include <ace/Service_Types.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace sorvex::test {

/// Installed during its lifetime. Records its calls in order.
class FakeComponentFactory : public WindowsAgentCommon::ComponentFactory {
 public:
  using MakeService = std::function<ACE_Service_Object*()>;

  FakeComponentFactory() { Install(); }
  ~FakeComponentFactory() override {
    for (const auto& entry : m_services) UnloadService(entry.first);
  }

  /// Registers a service. `make` returns a new object, which the repository then owns, when it is loaded.
  void Offer(const std::string& name, MakeService make) { m_services[name] = {std::move(make), true}; }

  /// Registers a service that cannot be loaded.
  void OfferBroken(const std::string& name) { m_services[name] = {nullptr, false}; }

  /// Registers a service whose loading claims to have succeeded without putting anything into the repository.
  void OfferMissing(const std::string& name) { m_services[name] = {nullptr, true}; }

  bool IsServiceRegistered(const std::string& name) const override {
    m_calls.push_back("IsServiceRegistered " + name);
    return m_services.contains(name);
  }

  bool LoadService(const std::string& name) override {
    m_calls.push_back("LoadService " + name);
    const Script& script = m_services.at(name);
    if (script.make) Insert(name + "_Dynamic_Service", script.make());
    return script.loads;
  }

  const std::vector<std::string>& Calls() const { return m_calls; }

 private:
  struct Script {
    MakeService make;
    bool loads = false;
  };

  static void Insert(const std::string& name, ACE_Service_Object* service) {
    const auto destroy = [](void* object) { delete static_cast<ACE_Service_Object*>(object); };
    auto* const implementation = new ACE_Service_Object_Type(
        service, name.c_str(), ACE_Service_Type::DELETE_OBJ | ACE_Service_Type::DELETE_THIS, destroy);
    ACE_Service_Config::current()->current_service_repository()->insert(
        new ACE_Service_Type(name.c_str(), implementation, ACE_DLL(), true));
  }

  std::map<std::string, Script> m_services;
  mutable std::vector<std::string> m_calls;
};

}  // namespace sorvex::test
