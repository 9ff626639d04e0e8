// The host's serializer directly on a raw socket: no buffering, no seeking.
#pragma once

#include <host/IRawSocket.h>
#include <host/ISerializer.h>

#include <cstdint>
#include <memory>

namespace VaroCommunicationAPI {

/// One thread at a time. Every read takes exactly the bytes of its value from the socket; every write passes its bytes
/// on at once. A read or write that the socket does not complete throws `SocketException` with the operation's name;
/// the socket's `GetLastResultCode` gives the reason.
class SocketSerializer : public WindowsAgentCommon::ISerializer {
 public:
  /// Keeps the socket alive. Until another is set, the read time-out is 0xFFFFFFFF: none over TLS, 72 minutes over
  /// plain TCP.
  explicit SocketSerializer(std::shared_ptr<WindowsAgentCommon::IRawSocket> socket);
  ~SocketSerializer() override;

  std::int32_t GetLastErrorCode() const override;  ///< the system's, of the calling thread
  bool CanSeek() const override;
  bool IsReadOnly() const override;
  std::uint32_t Seek(std::uint32_t position) override;
  std::uint32_t Skip(std::uint32_t count) override;

  std::uint32_t ReadByte(std::uint8_t& value) override;
  std::uint32_t WriteByte(std::uint8_t value) override;
  /// Four bytes, deliberately: the first two become the low 16 bits, the others the word's upper half unchanged. Not
  /// for the wire.
  std::uint32_t ReadShort(std::int32_t& value) override;
  std::uint32_t ReadShort(std::uint16_t& value) override;
  std::uint32_t WriteShort(std::uint16_t value) override;
  std::uint32_t ReadLong(int& value) override;
  std::uint32_t ReadLong(unsigned int& value) override;
  std::uint32_t ReadLong(long& value) override;
  std::uint32_t ReadLong(unsigned long& value) override;
  std::uint32_t WriteLong(std::uint32_t value) override;
  std::uint32_t ReadInt64(std::int64_t& value) override;
  std::uint32_t ReadInt64(std::uint64_t& value) override;
  std::uint32_t WriteInt64(std::int64_t value) override;
  std::uint32_t ReadFloat(float& value) override;
  std::uint32_t WriteFloat(float value) override;
  std::uint32_t ReadDouble(double& value) override;
  std::uint32_t WriteDouble(double value) override;

  /// When the socket delivers less, `block` holds what arrived. Throws `std::bad_alloc` when out of memory.
  std::uint32_t ReadBuffer(std::uint32_t count, std::shared_ptr<ACE_Message_Block>& block) override;
  /// Throws `OperationNotSupportedException`.
  std::uint32_t ReadBuffer(std::shared_ptr<ACE_Message_Block>& block) override;
  std::uint32_t WriteBuffer(const void* buffer, std::uint32_t count) override;
  std::uint32_t WriteBuffer(const std::shared_ptr<ACE_Message_Block>& block) override;
  /// A count above the unread bytes throws `SocketException`, and nothing is written.
  std::uint32_t WriteBuffer(std::uint32_t count, const std::shared_ptr<ACE_Message_Block>& block) override;

  /// Milliseconds, passed unchanged to every later `Receive`.
  void SetReadTimeout(std::uint32_t timeoutMs);

 private:
  std::uint32_t ReadBytes(void* buffer, std::uint32_t count, const char* operation, int line);
  std::uint32_t WriteBytes(const void* buffer, std::uint32_t count, const char* operation, int line);
  template <class Value>
  std::uint32_t ReadValue(Value& value, const char* operation, int line);
  template <class Value>
  std::uint32_t WriteValue(Value value, const char* operation, int line);

  std::shared_ptr<WindowsAgentCommon::IRawSocket> m_pSocket;
  std::uint32_t m_readTimeoutMs = 0xFFFFFFFF;
};

}  // namespace VaroCommunicationAPI
