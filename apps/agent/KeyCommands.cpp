#include <KeyCommands.h>

#include <Base64.h>
#include <Output.h>
#include <platform/KeyStore.h>
#include <platform/Platform.h>

#include <SorvexHost/Directories.h>
#include <host/Digest.h>
#include <host/Text.h>

#include <boost/algorithm/hex.hpp>

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

namespace sorvex::agent {
namespace {

/// The container of the key with which the module decrypts tokens.
constexpr const char* tokenContainer = "Sorvex.ConfigServerConnection";

/// Agents send this before their RSAPublicKey: the start of a SubjectPublicKeyInfo for 1024 bits.
constexpr std::array<std::uint8_t, 22> publicKeyHead{0x30, 0x81, 0x9F, 0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86,
                                                     0xF7, 0x0D, 0x01, 0x01, 0x01, 0x05, 0x00, 0x03, 0x81, 0x8D, 0x00};

void PrintPublicKey(const KeyStore& store) {
  std::vector<std::uint8_t> bytes(publicKeyHead.begin(), publicKeyHead.end());
  const std::vector<std::uint8_t> key = store.PublicKey();
  bytes.insert(bytes.end(), key.begin(), key.end());
  std::string text;
  boost::algorithm::hex_lower(bytes, std::back_inserter(text));
  PrintValue("public-key", text);
  PrintValue("md5", WindowsAgentCommon::MD5Sum(bytes.data(), bytes.size()));
}

/// A token, wiped after use.
class Token {
 public:
  Token() = default;
  ~Token() { WipeMemory(m_bytes.data(), m_bytes.capacity()); }
  Token(const Token&) = delete;
  Token& operator=(const Token&) = delete;

  void Add(std::string_view text) {
    if (m_bytes.size() + text.size() > maxBytes) throw std::runtime_error("the token is too long");
    m_bytes.insert(m_bytes.end(), text.begin(), text.end());
  }

  /// The line end of the input does not belong to it.
  void RemoveLineEnd() {
    while (!m_bytes.empty() && (m_bytes.back() == '\n' || m_bytes.back() == '\r')) m_bytes.pop_back();
  }

  const std::vector<std::uint8_t>& Bytes() const { return m_bytes; }

 private:
  static constexpr std::size_t maxBytes = 4096;

  std::vector<std::uint8_t> m_bytes = [] {
    std::vector<std::uint8_t> bytes;
    // The buffer never moves, so no copy stays behind.
    bytes.reserve(maxBytes);
    return bytes;
  }();
};

void ReadToken(Token& token) {
  InputFile input;
  std::array<char, 512> part;
  for (;;) {
    const std::optional<std::size_t> count = input.Read(part.data(), part.size());
    if (!count) throw std::runtime_error("asked to end before the token was read");
    if (*count == 0) break;
    token.Add({part.data(), *count});
    std::ranges::fill(part, '\0');
  }
  token.RemoveLineEnd();
}

}  // namespace

int RunCommand(const KeyCreateCommand& command) {
  const KeyStore store(command.container);
  try {
    store.Create(command.force ? KeyStore::Existing::Replace : KeyStore::Existing::Keep);
  } catch (const std::system_error& error) {
    if (error.code() != std::errc::file_exists) throw;
    throw std::runtime_error("the container has a key already; --force replaces it, and the server knows the old one");
  }
  PrintPublicKey(store);
  return 0;
}

int RunCommand(const KeyShowCommand& command) {
  PrintPublicKey(KeyStore(command.container));
  return 0;
}

int RunCommand(const TokenProtectCommand& command) {
  Token token;
  if (command.token == "-") {
    ReadToken(token);
  } else {
    token.Add(command.token);
  }
  if (token.Bytes().empty()) throw std::runtime_error("there is no token");
  const KeyStore store(tokenContainer);
  if (!store.HasKey()) store.Create(KeyStore::Existing::Keep);
  const std::vector<std::uint8_t> secured = store.Encrypt(token.Bytes());
  PrintValue("secured-token", EncodeBase64({reinterpret_cast<const char*>(secured.data()), secured.size()}));
  return 0;
}

}  // namespace sorvex::agent
