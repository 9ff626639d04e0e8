// The reference payload factory.
#pragma once

#include <host/IPayloadFactory.h>

#include <ace/Service_Object.h>

namespace WindowsAgentCommon {

/// Any thread, several at once.
class PayloadFactory : public ACE_Service_Object, public IPayloadFactory {
 public:
  PayloadFactory();
  ~PayloadFactory() override;

  bool CreatePayloadBuilder(const std::string& typeName, std::shared_ptr<IPayloadBuilder>& builder) override;
};

}  // namespace WindowsAgentCommon
