#include "platform/Memory.h"

#include <openssl/crypto.h>

namespace VaroCommunicationAPI::Platform {

void WipeMemory(void* data, std::size_t size) { OPENSSL_cleanse(data, size); }

}  // namespace VaroCommunicationAPI::Platform
