#include "wire/ISSLConfigServerAPIClient.h"

namespace SSLConfigServerProto {

ISSLConfigServerAPIClient::~ISSLConfigServerAPIClient() = default;

}  // namespace SSLConfigServerProto
