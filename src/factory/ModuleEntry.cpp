// The function with which the service configurator makes the module's component.
#include "factory/ConnectionFactory.h"

#include <CommunicationAPI/CommunicationAPIExport.h>

#include <ace/Assert.h>
#include <ace/Global_Macros.h>
#include <ace/Log_Category.h>

#include <new>

namespace {

void DestroyConnectionFactory(void* p) {
  ACE_Service_Object* const _p = static_cast<ACE_Service_Object*>(p);
  // The service configurator's own assertion, with its text.
  ACE_ASSERT(_p != 0);  // NOLINT(modernize-use-nullptr)
  delete _p;
}

}  // namespace

/// Returns a new component, or null when out of memory, and stores its deleter in `*gobbler` if given.
extern "C" COMMUNICATIONAPI_EXPORT ACE_Service_Object* _make_ConnectionFactory(
    ACE_Service_Object_Exterminator* gobbler) {
  if (gobbler) *gobbler = &DestroyConnectionFactory;
  try {
    return new VaroCommunicationAPI::ConnectionFactory;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
