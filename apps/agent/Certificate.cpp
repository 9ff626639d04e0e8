#include <Certificate.h>

#include <Base64.h>
#include <platform/CertificateCheck.h>
#include <platform/Platform.h>

#include <host/Base64.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace sorvex::agent {
namespace {

/// Far more than a certificate chain needs, and small enough to hold.
constexpr std::size_t maxFileSize = 1024 * 1024;

std::string ReadFile(const std::filesystem::path& file) {
  InputFile input(file);
  std::string content;
  std::array<char, 4096> block;
  while (content.size() <= maxFileSize) {
    const std::optional<std::size_t> count = input.Read(block.data(), block.size());
    if (count.value_or(0) == 0) return content;
    content.append(block.data(), *count);
  }
  throw std::invalid_argument("it has more than " + std::to_string(maxFileSize) + " bytes");
}

/// Returns the text between the lines of the first certificate, without line breaks; empty when there is none.
std::string FindPemBody(std::string_view text) {
  for (const std::string_view label : {"CERTIFICATE", "X509 CERTIFICATE"}) {
    const std::string begin = "-----BEGIN " + std::string(label) + "-----";
    const std::size_t start = text.find(begin);
    if (start == std::string_view::npos) continue;
    const std::size_t end = text.find("-----END " + std::string(label) + "-----", start);
    if (end == std::string_view::npos) throw std::invalid_argument("the end of the certificate is missing");
    std::string body(text.substr(start + begin.size(), end - start - begin.size()));
    std::erase_if(body,
                  [](char character) { return std::string_view(" \t\r\n").find(character) != std::string_view::npos; });
    if (body.empty()) throw std::invalid_argument("the certificate in it is empty");
    return body;
  }
  return {};
}

/// Whether `der` is one DER element of its stated length, and nothing after it. Not every system's certificate reader
/// rejects trailing bytes.
bool IsOneElement(const std::vector<std::uint8_t>& der) {
  constexpr std::uint8_t sequence = 0x30;
  constexpr std::uint8_t longForm = 0x80;
  if (der.size() < 2 || der[0] != sequence) return false;
  std::size_t header = 2;
  std::size_t length = der[1];
  if (length > longForm) {
    const std::size_t lengthBytes = length - longForm;
    if (lengthBytes > sizeof length || der.size() < header + lengthBytes) return false;
    length = 0;
    for (; header < 2 + lengthBytes; ++header) length = length << 8 | der[header];
  }
  return length == der.size() - header;
}

bool IsWholeCertificate(const std::vector<std::uint8_t>& der) { return IsOneElement(der) && IsCertificate(der); }

std::vector<std::uint8_t> FindCertificate(const std::string& content) {
  std::vector<std::uint8_t> der;
  const std::string body = FindPemBody(content);
  if (body.empty()) {
    der.assign(content.begin(), content.end());
    if (!IsWholeCertificate(der)) throw std::invalid_argument("it holds no certificate, neither in PEM nor in DER");
    return der;
  }
  if (!WindowsAgentCommon::DecodeBase64(body, der)) throw std::invalid_argument("the Base64 of its PEM is damaged");
  if (!IsWholeCertificate(der)) throw std::invalid_argument("the certificate in it is damaged");
  return der;
}

std::string ToPem(const std::vector<std::uint8_t>& der) {
  constexpr std::size_t lineLength = 64;
  std::string pem = "-----BEGIN CERTIFICATE-----\n";
  const std::string body = EncodeBase64({reinterpret_cast<const char*>(der.data()), der.size()});
  for (std::size_t begin = 0; begin < body.size(); begin += lineLength) pem += body.substr(begin, lineLength) + "\n";
  return pem + "-----END CERTIFICATE-----\n";
}

}  // namespace

std::string EncodeCertificate(const std::string& content) { return EncodeBase64(ToPem(FindCertificate(content))); }

std::string ReadCertificate(const std::filesystem::path& file) {
  try {
    return EncodeCertificate(ReadFile(file));
  } catch (const std::invalid_argument& error) {
    const std::u8string name = file.u8string();
    throw std::invalid_argument(std::string(name.begin(), name.end()) + ": " + error.what());
  }
}

}  // namespace sorvex::agent
