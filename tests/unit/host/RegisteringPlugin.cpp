// A module that, while it is being loaded for one service, adds another service to the repository.
#include <ace/DLL.h>
#include <ace/Service_Config.h>
#include <ace/Service_Object.h>
#include <ace/Service_Repository.h>
#include <ace/Service_Types.h>

namespace {

class Service : public ACE_Service_Object {};

void Destroy(void* service) { delete static_cast<ACE_Service_Object*>(service); }

struct AtStart {
  AtStart() {
    auto* const implementation = new ACE_Service_Object_Type(
        new Service, "RegisteredAtStart", ACE_Service_Type::DELETE_OBJ | ACE_Service_Type::DELETE_THIS, Destroy);
    ACE_Service_Config::current()->current_service_repository()->insert(
        new ACE_Service_Type("RegisteredAtStart", implementation, ACE_DLL(), true));
  }
} atStart;

}  // namespace

extern "C" {

ACE_Service_Object* _make_PlainService(ACE_Service_Object_Exterminator* exterminator);

ACE_Service_Object* _make_PlainService(ACE_Service_Object_Exterminator* exterminator) {
  *exterminator = Destroy;
  return new Service;
}
}
