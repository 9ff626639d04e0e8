// Typed reading and writing over a byte stream. Multi-byte numbers travel in network byte order.
#pragma once

#include <SorvexCommonExport.h>

#include <ace/Message_Block.h>

#include <cstdint>
#include <memory>

namespace WindowsAgentCommon {

/// One thread at a time. Reads and writes return the number of bytes moved and throw `SocketException` when they could
/// not move all. Operations are declared in slot order.
class SORVEXCOMMON_EXPORT ISerializer {
 public:
  ISerializer();
  virtual ~ISerializer();  // 0

  virtual std::int32_t GetLastErrorCode() const = 0;       // 1
  virtual bool CanSeek() const = 0;                        // 2
  virtual bool IsReadOnly() const = 0;                     // 3
  virtual std::uint32_t Seek(std::uint32_t position) = 0;  // 4
  virtual std::uint32_t Skip(std::uint32_t count) = 0;     // 5

  virtual std::uint32_t ReadByte(std::uint8_t& value) = 0;    // 6
  virtual std::uint32_t WriteByte(std::uint8_t value) = 0;    // 7
  virtual std::uint32_t ReadShort(std::int32_t& value) = 0;   // 8: takes four bytes from the stream
  virtual std::uint32_t ReadShort(std::uint16_t& value) = 0;  // 9
  virtual std::uint32_t WriteShort(std::uint16_t value) = 0;  // 10
  virtual std::uint32_t ReadLong(int& value) = 0;             // 11: four bytes, as 12 to 14
  virtual std::uint32_t ReadLong(unsigned int& value) = 0;    // 12
  virtual std::uint32_t ReadLong(long& value) = 0;            // 13
  virtual std::uint32_t ReadLong(unsigned long& value) = 0;   // 14
  virtual std::uint32_t WriteLong(std::uint32_t value) = 0;   // 15
  virtual std::uint32_t ReadInt64(std::int64_t& value) = 0;   // 16
  virtual std::uint32_t ReadInt64(std::uint64_t& value) = 0;  // 17
  virtual std::uint32_t WriteInt64(std::int64_t value) = 0;   // 18
  virtual std::uint32_t ReadFloat(float& value) = 0;          // 19
  virtual std::uint32_t WriteFloat(float value) = 0;          // 20
  virtual std::uint32_t ReadDouble(double& value) = 0;        // 21
  virtual std::uint32_t WriteDouble(double value) = 0;        // 22

  /// Reads `count` bytes into a new block, replacing the content of `block`.
  virtual std::uint32_t ReadBuffer(std::uint32_t count, std::shared_ptr<ACE_Message_Block>& block) = 0;  // 23
  virtual std::uint32_t ReadBuffer(std::shared_ptr<ACE_Message_Block>& block) = 0;                       // 24
  virtual std::uint32_t WriteBuffer(const void* buffer, std::uint32_t count) = 0;                        // 25

  /// Writes the block's unread bytes, or `count` of them. The block is unchanged.
  virtual std::uint32_t WriteBuffer(const std::shared_ptr<ACE_Message_Block>& block) = 0;  // 26
  virtual std::uint32_t WriteBuffer(std::uint32_t count,
                                    const std::shared_ptr<ACE_Message_Block>& block) = 0;  // 27
};

}  // namespace WindowsAgentCommon
