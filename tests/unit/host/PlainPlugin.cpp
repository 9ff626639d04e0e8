// A module of one service that does nothing.
#include <ace/Service_Object.h>
#include <ace/Service_Types.h>

extern "C" {

ACE_Service_Object* _make_PlainService(ACE_Service_Object_Exterminator* exterminator);

ACE_Service_Object* _make_PlainService(ACE_Service_Object_Exterminator* exterminator) {
  *exterminator = [](void* service) { delete static_cast<ACE_Service_Object*>(service); };
  return new ACE_Service_Object;
}
}
