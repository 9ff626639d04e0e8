#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>

#include "platform/Memory.h"
#include "wire/SharedBlock.h"

#include <host/Digest.h>
#include <host/Exceptions.h>
#include <host/LoggerFactory.h>

#include <cstring>
#include <utility>

namespace SSLConfigServerProto {

using WindowsAgentCommon::ISerializer;
using WindowsAgentCommon::LoggerFactory;
using WindowsAgentCommon::MD5Sum;
using WindowsAgentCommon::SocketException;

namespace {

constexpr const char* sourceFile = "SSLConfigServerProtocolDefinition";

std::uint32_t WriteText(ISerializer& serializer, std::string_view text) {
  const auto size = static_cast<std::uint32_t>(text.size());
  std::uint32_t moved = serializer.WriteLong(size);
  if (size != 0) moved += serializer.WriteBuffer(text.data(), size);
  return moved;
}

std::string DigestOf(const ACE_Message_Block& block) { return MD5Sum(block.rd_ptr(), block.length()); }

}  // namespace

const char* WireVersionText(WireProtocol protocol) {
  switch (protocol) {
    case WireProtocol::Version1: return "1.0";
    case WireProtocol::Version2: return "2.0";
  }
  return "";
}

const char* ResultText(std::uint32_t resultCode) {
  switch (resultCode) {
    case 0: return "Success";
    case 1: return "Registration success; new agent created";
    case 2: return "Registration success; existing agent registered";
    case 3: return "Registration succeeded but the agent has been deleted";
    case 4: return "Registration succeeded. The agent was previously deleted but was manually recreated";
    case 5: return "No update needed";
    case 6: return "Switch configuration server";
    case 7: return "Updates for this agent are marked as disabled on the server";
    case 0x80000002: return "Server too busy; try again later";
    case 0x80000003:
      return "The certificate presented by the configuration server was either missing or its chain was not "
             "validated/trusted";
    case 0x80000004:
      return "The configuration server did not respond within a reasonable amount of time or the connection was "
             "terminated unexpectedly";
    case 0x80000005: return "The authentication information presented to the server was rejected";
    case 0x80000006: return "This type of message sent was not recognized by the other end of this connection";
    case 0x80000007: return "The socket connection to the server failed";
    default: return "Unknown error";
  }
}

void WipingArrayDelete::operator()(char* array) const {
  VaroCommunicationAPI::Platform::WipeMemory(array, sizeInBytes);
  delete[] array;
}

std::uint32_t SerializeWireStringFromWire(ISerializer& serializer, WireString& string, std::uint32_t clampLength) {
  string = {};
  std::uint32_t size = 0;
  const std::uint32_t moved = serializer.ReadLong(size);
  if (size == 0) return moved;
  if (size > clampLength) {
    LoggerFactory::GetLogger("Code.SSLConfigServerAPIClient.SerializeWireStringFromWire")
        .Info("Bad string read; given length exceeded maximum string clamp length of %u.", clampLength);
    throw SocketException(sourceFile, "SSLConfigServerProto::SerializeWireStringFromWire", __LINE__);
  }
  std::shared_ptr<ACE_Message_Block> block;
  const std::uint32_t movedData = serializer.ReadBuffer(size, block);
  SetWireString(string, {block->rd_ptr(), block->length()});
  return moved + movedData;
}

std::uint32_t SerializeWireBinaryFromWire(ISerializer& serializer, WireBinary& binary, bool bWithDigest,
                                          std::uint32_t clampLength) {
  binary = {};
  std::uint32_t size = 0;
  std::uint32_t moved = serializer.ReadLong(size);
  if (bWithDigest) moved += SerializeWireStringFromWire(serializer, binary.digest, maxWireDigestBytes);
  if (size == 0) return moved;
  if (size > clampLength) {
    LoggerFactory::GetLogger("Code.SSLConfigServerAPIClient.SerializeWireBinaryFromWire")
        .Info("Bad data read; given length exceeded maximum binary clamp length of %u.", clampLength);
    throw SocketException(sourceFile, "SSLConfigServerProto::SerializeWireBinaryFromWire", __LINE__);
  }
  std::shared_ptr<ACE_Message_Block> data;
  moved += serializer.ReadBuffer(size, data);
  binary.data = std::move(data);
  binary.size_in_bytes = size;
  return moved;
}

std::uint32_t SerializeWireStringToWire(ISerializer& serializer, const WireString& string) {
  return WriteText(serializer, string.View());
}

std::uint32_t SerializeWireBinaryToWire(ISerializer& serializer, const WireBinary& binary, bool bWithDigest) {
  const std::size_t dataBytes = binary.data ? binary.data->length() : 0;
  if (binary.size_in_bytes != dataBytes) {
    throw SocketException(sourceFile, "SSLConfigServerProto::SerializeWireBinaryToWire", __LINE__);
  }
  std::uint32_t moved = serializer.WriteLong(binary.size_in_bytes);
  if (binary.size_in_bytes == 0) return moved;
  if (bWithDigest && binary.digest.size_in_bytes == 0) {
    moved += WriteText(serializer, DigestOf(*binary.data));
  } else if (bWithDigest) {
    moved += WriteText(serializer, binary.digest.View());
  }
  return moved + serializer.WriteBuffer(binary.data);
}

void SetWireString(WireString& string, std::string_view text) {
  WireString copy;
  if (!text.empty()) {
    copy.data = {new char[text.size()], WipingArrayDelete{text.size()}};
    std::memcpy(copy.data.get(), text.data(), text.size());
    copy.size_in_bytes = static_cast<std::uint32_t>(text.size());
  }
  string = std::move(copy);
}

void SetWireBinary(WireBinary& binary, const ACE_Message_Block& block) {
  WireBinary copy;
  SetWireString(copy.digest, DigestOf(block));
  if (block.length() != 0) {
    copy.data = CopyBlock(block);
    copy.size_in_bytes = static_cast<std::uint32_t>(block.length());
  }
  binary = std::move(copy);
}

std::string GetText(const WireString& string) { return std::string(string.View()); }

std::shared_ptr<ACE_Message_Block> GetMessageBlock(WireBinary& binary, bool bRelease) {
  if (!bRelease) return binary.data ? CopyBlock(*binary.data) : MakeSharedBlock(0);
  // The caller cannot tell the array from a copy of it.
  const WireBinary released = std::exchange(binary, {});
  return released.data ? released.data : MakeSharedBlock(0);
}

RecordHeader::~RecordHeader() = default;

}  // namespace SSLConfigServerProto
