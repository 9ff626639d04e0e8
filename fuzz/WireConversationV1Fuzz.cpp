// Whole conversations of the client of wire protocol 1.0.
#include "WireConversation.h"

#include "wire/SSLConfigServerAPIClient_v1.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const sorvex::test::LineCheckingLog log;
  SSLConfigServerProto::SSLConfigServerAPIClient_v1 client("identifier", "token");
  sorvex::test::Converse(client, SSLConfigServerProto::WireProtocol::Version1,
                         {reinterpret_cast<const char*>(data), size});
  return 0;
}
