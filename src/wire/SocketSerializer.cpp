#include "wire/SocketSerializer.h"

#include "platform/SystemError.h"
#include "wire/SharedBlock.h"

#include <host/Exceptions.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace VaroCommunicationAPI {

namespace {

constexpr const char* sourceFile = "SocketSerializer";

/// Converts between network and machine byte order, in both directions.
template <class Value>
void SwapNetworkOrder(Value& value) {
  if constexpr (std::endian::native == std::endian::little) {
    auto* const bytes = reinterpret_cast<unsigned char*>(&value);
    std::reverse(bytes, bytes + sizeof value);
  }
}

}  // namespace

SocketSerializer::SocketSerializer(std::shared_ptr<WindowsAgentCommon::IRawSocket> socket)
    : m_pSocket(std::move(socket)) {}

SocketSerializer::~SocketSerializer() = default;

std::int32_t SocketSerializer::GetLastErrorCode() const { return Platform::LastSystemError(); }

bool SocketSerializer::CanSeek() const { return false; }

bool SocketSerializer::IsReadOnly() const { return false; }

std::uint32_t SocketSerializer::Seek(std::uint32_t) { return 0; }

std::uint32_t SocketSerializer::Skip(std::uint32_t) { return 0; }

std::uint32_t SocketSerializer::ReadByte(std::uint8_t& value) {
  return ReadValue(value, "VaroCommunicationAPI::SocketSerializer::ReadByte", __LINE__);
}

std::uint32_t SocketSerializer::WriteByte(std::uint8_t value) {
  return WriteValue(value, "VaroCommunicationAPI::SocketSerializer::WriteByte", __LINE__);
}

std::uint32_t SocketSerializer::ReadShort(std::int32_t& value) {
  std::int32_t word = 0;
  const std::uint32_t moved =
      ReadBytes(&word, sizeof word, "VaroCommunicationAPI::SocketSerializer::ReadShort", __LINE__);
  std::uint16_t low = 0;
  std::memcpy(&low, &word, sizeof low);
  SwapNetworkOrder(low);
  value = static_cast<std::int32_t>((static_cast<std::uint32_t>(word) & 0xFFFF0000u) | low);
  return moved;
}

std::uint32_t SocketSerializer::ReadShort(std::uint16_t& value) {
  return ReadValue(value, "VaroCommunicationAPI::SocketSerializer::ReadShort", __LINE__);
}

std::uint32_t SocketSerializer::WriteShort(std::uint16_t value) {
  return WriteValue(value, "VaroCommunicationAPI::SocketSerializer::WriteShort", __LINE__);
}

std::uint32_t SocketSerializer::ReadLong(int& value) {
  return ReadValue(value, "VaroCommunicationAPI::SocketSerializer::ReadLong", __LINE__);
}

std::uint32_t SocketSerializer::ReadLong(unsigned int& value) {
  return ReadValue(value, "VaroCommunicationAPI::SocketSerializer::ReadLong", __LINE__);
}

std::uint32_t SocketSerializer::ReadLong(long& value) {
  // Four bytes, even where a long has eight.
  std::int32_t word = 0;
  const std::uint32_t moved = ReadValue(word, "VaroCommunicationAPI::SocketSerializer::ReadLong", __LINE__);
  value = word;
  return moved;
}

std::uint32_t SocketSerializer::ReadLong(unsigned long& value) {
  std::uint32_t word = 0;
  const std::uint32_t moved = ReadValue(word, "VaroCommunicationAPI::SocketSerializer::ReadLong", __LINE__);
  value = word;
  return moved;
}

std::uint32_t SocketSerializer::WriteLong(std::uint32_t value) {
  return WriteValue(value, "VaroCommunicationAPI::SocketSerializer::WriteLong", __LINE__);
}

std::uint32_t SocketSerializer::ReadInt64(std::int64_t& value) {
  return ReadValue(value, "VaroCommunicationAPI::SocketSerializer::ReadInt64", __LINE__);
}

std::uint32_t SocketSerializer::ReadInt64(std::uint64_t& value) {
  return ReadValue(value, "VaroCommunicationAPI::SocketSerializer::ReadInt64", __LINE__);
}

std::uint32_t SocketSerializer::WriteInt64(std::int64_t value) {
  return WriteValue(value, "VaroCommunicationAPI::SocketSerializer::WriteInt64", __LINE__);
}

std::uint32_t SocketSerializer::ReadFloat(float& value) {
  return ReadValue(value, "VaroCommunicationAPI::SocketSerializer::ReadFloat", __LINE__);
}

std::uint32_t SocketSerializer::WriteFloat(float value) {
  return WriteValue(std::bit_cast<std::uint32_t>(value), "VaroCommunicationAPI::SocketSerializer::WriteFloat",
                    __LINE__);
}

std::uint32_t SocketSerializer::ReadDouble(double& value) {
  return ReadValue(value, "VaroCommunicationAPI::SocketSerializer::ReadDouble", __LINE__);
}

std::uint32_t SocketSerializer::WriteDouble(double value) {
  return WriteValue(std::bit_cast<std::uint64_t>(value), "VaroCommunicationAPI::SocketSerializer::WriteDouble",
                    __LINE__);
}

std::uint32_t SocketSerializer::ReadBuffer(std::uint32_t count, std::shared_ptr<ACE_Message_Block>& block) {
  block.reset();
  block = SSLConfigServerProto::MakeSharedBlock(count);
  const std::int32_t received = m_pSocket->Receive(block->wr_ptr(), count, m_readTimeoutMs);
  if (received > 0) block->wr_ptr(static_cast<std::size_t>(received));
  if (received != static_cast<std::int64_t>(count)) {
    throw WindowsAgentCommon::SocketException(sourceFile, "VaroCommunicationAPI::SocketSerializer::ReadBuffer",
                                              __LINE__);
  }
  return count;
}

std::uint32_t SocketSerializer::ReadBuffer(std::shared_ptr<ACE_Message_Block>&) {
  throw WindowsAgentCommon::OperationNotSupportedException(
      sourceFile, "VaroCommunicationAPI::SocketSerializer::ReadBuffer", __LINE__);
}

std::uint32_t SocketSerializer::WriteBuffer(const void* buffer, std::uint32_t count) {
  return WriteBytes(buffer, count, "VaroCommunicationAPI::SocketSerializer::WriteBuffer", __LINE__);
}

std::uint32_t SocketSerializer::WriteBuffer(const std::shared_ptr<ACE_Message_Block>& block) {
  return WriteBuffer(block->rd_ptr(), static_cast<std::uint32_t>(block->length()));
}

std::uint32_t SocketSerializer::WriteBuffer(std::uint32_t count, const std::shared_ptr<ACE_Message_Block>& block) {
  // Bytes after the block's are not to be sent.
  if (count > block->length()) {
    throw WindowsAgentCommon::SocketException(sourceFile, "VaroCommunicationAPI::SocketSerializer::WriteBuffer",
                                              __LINE__);
  }
  return WriteBuffer(block->rd_ptr(), count);
}

void SocketSerializer::SetReadTimeout(std::uint32_t timeoutMs) { m_readTimeoutMs = timeoutMs; }

std::uint32_t SocketSerializer::ReadBytes(void* buffer, std::uint32_t count, const char* operation, int line) {
  if (m_pSocket->Receive(buffer, count, m_readTimeoutMs) != static_cast<std::int64_t>(count)) {
    throw WindowsAgentCommon::SocketException(sourceFile, operation, line);
  }
  return count;
}

std::uint32_t SocketSerializer::WriteBytes(const void* buffer, std::uint32_t count, const char* operation, int line) {
  if (m_pSocket->Send(buffer, count) != static_cast<std::int64_t>(count)) {
    throw WindowsAgentCommon::SocketException(sourceFile, operation, line);
  }
  return count;
}

/// Leaves `value` unchanged when it throws.
template <class Value>
std::uint32_t SocketSerializer::ReadValue(Value& value, const char* operation, int line) {
  Value fromNetwork{};
  const std::uint32_t moved = ReadBytes(&fromNetwork, sizeof fromNetwork, operation, line);
  SwapNetworkOrder(fromNetwork);
  value = fromNetwork;
  return moved;
}

template <class Value>
std::uint32_t SocketSerializer::WriteValue(Value value, const char* operation, int line) {
  SwapNetworkOrder(value);
  return WriteBytes(&value, sizeof value, operation, line);
}

}  // namespace VaroCommunicationAPI
