// Records of the wire protocol for the benchmarks: their content and their bytes.
#pragma once

#include "ConnectedSocket.h"

#include "wire/RecordIo.h"
#include "wire/SharedBlock.h"
#include "wire/SocketSerializer.h"

#include <cstddef>
#include <memory>
#include <string>

namespace sorvex::bench {

constexpr std::size_t publicKeyBytes = 294;  ///< RSA with 2048 bits, as X.509 SubjectPublicKeyInfo

/// Returns a block of `size` bytes that are not all alike.
inline std::shared_ptr<ACE_Message_Block> MakeFilledBlock(std::size_t size) {
  auto block = SSLConfigServerProto::MakeSharedBlock(size);
  for (std::size_t i = 0; i < size; ++i) block->wr_ptr()[i] = static_cast<char>(i * 31 >> 8);
  block->wr_ptr(size);
  return block;
}

/// Sets the header of a record whose own fields are set. A response gets no type: most clients accept any.
template <class Record>
void CompleteRecord(Record& record, SSLConfigServerProto::WireProtocol protocol) {
  if constexpr (requires { Record::type; }) {
    SSLConfigServerProto::CompleteRequest(record, protocol);
  } else {
    SSLConfigServerProto::SetWireString(record.recordVersion, SSLConfigServerProto::WireVersionText(protocol));
    record.recordSize = SSLConfigServerProto::MeasureRecord(record);
  }
}

/// Returns the record's bytes.
template <class Record>
std::string EncodeRecord(const Record& record) {
  const auto socket = std::make_shared<MemorySocket>();
  VaroCommunicationAPI::SocketSerializer serializer(socket);
  SSLConfigServerProto::WriteRecord(serializer, record);
  return socket->Output();
}

/// Returns the bytes of the request that establishes a version 2.0 connection.
inline std::string EstablishmentBytes(const std::string& identifier, const std::string& token) {
  SSLConfigServerProto::ConnectionEstablishmentRequest2 request;
  SetWireString(request.wireProtocolVersion, "2.0");
  SetWireString(request.applicationIdentifier, identifier);
  SetWireString(request.applicationToken, token);
  SetWireString(request.timeZone, "CET (UTC + 60) Daylight Savings is not in effect");
  SetWireBinary(request.public_key, *MakeFilledBlock(162));
  CompleteRecord(request, SSLConfigServerProto::WireProtocol::Version2);
  return EncodeRecord(request);
}

}  // namespace sorvex::bench
