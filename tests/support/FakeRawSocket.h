// A raw socket with a scripted peer: what it sends, and how much it accepts.
#pragma once

#include <host/IRawSocket.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::test {

/// One thread. Connected from the start. A read beyond the input, or a write beyond the room, comes short by what is
/// missing.
class FakeRawSocket : public WindowsAgentCommon::IRawSocket {
 public:
  struct Call {
    enum class Kind { Send, Receive };
    Kind kind;
    std::uint32_t length;
    std::uint32_t timeoutMs = 0;  ///< of a read

    bool operator==(const Call&) const = default;
  };

  explicit FakeRawSocket(std::string_view input = {}) : m_input(input) {}

  /// What the peer sends next, after what is still unread.
  void Say(std::string_view input) {
    m_input.erase(0, m_position);
    m_position = 0;
    m_input += input;
  }

  /// How many bytes the peer accepts from now on.
  void SetRoom(std::size_t bytes) { m_room = bytes; }

  /// What every following read returns instead of bytes, until 0 is set.
  void FailReads(std::int32_t result) { m_readFailure = result; }

  /// What every following write returns, accepting nothing, until 0 is set.
  void FailWrites(std::int32_t result) { m_writeFailure = result; }

  const std::string& Sent() const { return m_sent; }
  std::size_t Unread() const { return m_input.size() - m_position; }
  const std::vector<Call>& Calls() const { return m_calls; }

  /// Forgets what was sent and called.
  void Clear() {
    m_sent.clear();
    m_calls.clear();
  }

  std::int32_t Send(const void* buffer, std::uint32_t length) override {
    m_calls.push_back({Call::Kind::Send, length});
    if (m_writeFailure != 0) return m_writeFailure;
    const std::size_t taken = std::min<std::size_t>(length, m_room);
    m_sent.append(static_cast<const char*>(buffer), taken);
    m_room -= taken;
    return static_cast<std::int32_t>(taken);
  }

  std::int32_t Receive(void* buffer, std::uint32_t length, std::uint32_t timeoutMs) override {
    m_calls.push_back({Call::Kind::Receive, length, timeoutMs});
    if (m_readFailure != 0) return m_readFailure;
    const std::size_t given = std::min<std::size_t>(length, Unread());
    std::memcpy(buffer, m_input.data() + m_position, given);
    m_position += given;
    return static_cast<std::int32_t>(given);
  }

  void Open(const std::wstring&, std::uint32_t) override {}
  bool IsOpen() const override { return true; }
  void Close() override {}
  bool IsConnected() const override { return true; }
  bool Connect() override { return true; }
  std::wstring GetHost() const override { return L"peer"; }
  std::uint32_t GetPort() const override { return 1; }
  std::int32_t GetLastResultCode() const override { return 0; }

 private:
  std::string m_input;
  std::size_t m_position = 0;
  std::string m_sent;
  std::size_t m_room = std::numeric_limits<std::size_t>::max();
  std::int32_t m_readFailure = 0;
  std::int32_t m_writeFailure = 0;
  std::vector<Call> m_calls;
};

}  // namespace sorvex::test
