// Whole conversations of the client of wire protocol 2.0.
#include "WireConversation.h"

#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SharedBlock.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const sorvex::test::LineCheckingLog log;
  const auto publicKey = SSLConfigServerProto::MakeSharedBlock(3);
  publicKey->copy("key", 3);
  SSLConfigServerProto::SSLConfigServerAPIClient_v2 client("identifier", "token", *publicKey);
  sorvex::test::Converse(client, SSLConfigServerProto::WireProtocol::Version2,
                         {reinterpret_cast<const char*>(data), size});
  return 0;
}
