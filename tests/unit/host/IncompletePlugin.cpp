// A module that calls a function which no library has.
#include <ace/Service_Object.h>
#include <ace/Service_Types.h>

void FunctionOfNoLibrary();

namespace {

class Service : public ACE_Service_Object {
 public:
  int init(int, ACE_TCHAR*[]) override {
    FunctionOfNoLibrary();
    return 0;
  }
};

void Destroy(void* service) { delete static_cast<ACE_Service_Object*>(service); }

}  // namespace

extern "C" {

ACE_Service_Object* _make_IncompleteService(ACE_Service_Object_Exterminator* exterminator);

ACE_Service_Object* _make_IncompleteService(ACE_Service_Object_Exterminator* exterminator) {
  *exterminator = Destroy;
  return new Service;
}
}
