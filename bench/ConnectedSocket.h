// Raw sockets for benchmarks, which are always connected.
#pragma once

#include <host/IRawSocket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

namespace sorvex::bench {

/// Everything except sending and receiving.
class ConnectedSocket : public WindowsAgentCommon::IRawSocket {
 public:
  void Open(const std::wstring&, std::uint32_t) override {}
  bool IsOpen() const override { return true; }
  void Close() override {}
  bool IsConnected() const override { return true; }
  bool Connect() override { return true; }
  std::wstring GetHost() const override { return {}; }
  std::uint32_t GetPort() const override { return 0; }
  std::int32_t GetLastResultCode() const override { return 0; }
};

/// Accepts everything sent and delivers its input. Allocates nothing once its output has reached its length.
class MemorySocket : public ConnectedSocket {
 public:
  void SetInput(std::string input) {
    m_input = std::move(input);
    Rewind();
  }

  /// Starts again with the input and forgets what was sent.
  void Rewind() {
    m_position = 0;
    m_output.clear();
    m_calls = 0;
  }

  const std::string& Output() const { return m_output; }
  std::size_t Calls() const { return m_calls; }

  std::int32_t Send(const void* buffer, std::uint32_t length) override {
    ++m_calls;
    m_output.append(static_cast<const char*>(buffer), length);
    return static_cast<std::int32_t>(length);
  }

  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t) override {
    ++m_calls;
    const std::size_t given = std::min<std::size_t>(length, m_input.size() - m_position);
    std::memcpy(buffer, m_input.data() + m_position, given);
    m_position += given;
    return static_cast<std::int32_t>(given);
  }

 private:
  std::string m_input;
  std::size_t m_position = 0;
  std::string m_output;
  std::size_t m_calls = 0;
};

}  // namespace sorvex::bench
