#include <host/ServiceLookup.h>

#include "ServiceName.h"

#include <ace/Guard_T.h>
#include <ace/Service_Config.h>
#include <ace/Service_Repository.h>
#include <ace/Service_Types.h>

namespace WindowsAgentCommon {

ACE_Service_Object* _getService(const char* serviceName) {
  ACE_Service_Gestalt* gestalt = ACE_Service_Config::current();
  ACE_Service_Repository* repository = gestalt ? gestalt->current_service_repository() : nullptr;
  if (repository == nullptr || serviceName == nullptr) return nullptr;

  // The record is read under the repository's lock, because another thread may be removing it.
  ACE_Guard<ACE_SYNCH_RECURSIVE_MUTEX> guard(repository->lock());
  const ACE_Service_Type* record = nullptr;
  if (repository->find(GetRepositoryName(serviceName).c_str(), &record) != 0 || record == nullptr) return nullptr;
  const ACE_Service_Type_Impl* implementation = record->type();
  if (implementation == nullptr || implementation->service_type() != ACE_Service_Type::SERVICE_OBJECT) return nullptr;
  return static_cast<ACE_Service_Object*>(implementation->object());
}

}  // namespace WindowsAgentCommon
