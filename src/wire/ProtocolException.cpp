#include "wire/ProtocolException.h"

namespace SSLConfigServerProto {

ProtocolException::~ProtocolException() = default;

}  // namespace SSLConfigServerProto
