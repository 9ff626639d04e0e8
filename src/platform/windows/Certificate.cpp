#include "platform/Certificate.h"

#include <host/Text.h>

#include <windows.h>

#include <wincrypt.h>

namespace VaroCommunicationAPI::Platform {

namespace {

PCCERT_CONTEXT Context(const std::shared_ptr<const void>& native) { return static_cast<PCCERT_CONTEXT>(native.get()); }

/// The name that `convert` writes into a buffer of a given size; without a buffer it returns the size. Cut here,
/// because the conversions handle a buffer that is too small in different ways.
template <class Convert>
std::wstring NameText(Convert convert) {
  std::wstring text(convert(nullptr, 0), L'\0');
  text.resize(convert(text.data(), static_cast<DWORD>(text.size())));
  // The number of characters counts the zero at the end.
  if (!text.empty()) text.pop_back();
  if (text.size() > Certificate::maxNameUnits) {
    text.resize(Certificate::maxNameUnits);
    if (IS_HIGH_SURROGATE(text.back())) text.pop_back();
  }
  return text;
}

std::wstring SubjectText(PCCERT_CONTEXT context, DWORD type) {
  return NameText(
      [=](wchar_t* buffer, DWORD size) { return CertGetNameStringW(context, type, 0, nullptr, buffer, size); });
}

}  // namespace

int Certificate::FromDer(std::span<const std::uint8_t> bytes, Certificate& certificate) {
  const PCCERT_CONTEXT context =
      CertCreateCertificateContext(X509_ASN_ENCODING, bytes.data(), static_cast<DWORD>(bytes.size()));
  if (!context) return static_cast<int>(GetLastError());
  certificate.m_pNative = {context, [](const CERT_CONTEXT* owned) { CertFreeCertificateContext(owned); }};
  return 0;
}

int Certificate::FromPem(std::string_view text, Certificate& certificate) {
  const std::wstring wide = WindowsAgentCommon::Utf8ToWide(text);
  std::vector<BYTE> bytes(maxPemCertificateBytes);
  DWORD size = static_cast<DWORD>(bytes.size());
  if (!CryptStringToBinaryW(wide.c_str(), static_cast<DWORD>(wide.size()), CRYPT_STRING_BASE64HEADER, bytes.data(),
                            &size, nullptr, nullptr)) {
    return static_cast<int>(GetLastError());
  }
  return FromDer({bytes.data(), size}, certificate);
}

std::vector<std::uint8_t> Certificate::Der() const {
  const PCCERT_CONTEXT context = Context(m_pNative);
  return {context->pbCertEncoded, context->pbCertEncoded + context->cbCertEncoded};
}

std::string Certificate::Pem() const {
  const PCCERT_CONTEXT context = Context(m_pNative);
  const DWORD flags = CRYPT_STRING_BASE64HEADER | CRYPT_STRING_NOCR;
  DWORD size = 0;
  CryptBinaryToStringW(context->pbCertEncoded, context->cbCertEncoded, flags, nullptr, &size);
  std::wstring text(size, L'\0');
  if (!CryptBinaryToStringW(context->pbCertEncoded, context->cbCertEncoded, flags, text.data(), &size)) return {};
  text.resize(size);
  return WindowsAgentCommon::WideToUtf8(text);
}

std::wstring Certificate::DisplayName() const { return SubjectText(Context(m_pNative), CERT_NAME_SIMPLE_DISPLAY_TYPE); }

std::wstring Certificate::SubjectName() const { return SubjectText(Context(m_pNative), CERT_NAME_RDN_TYPE); }

std::wstring Certificate::IssuerName() const {
  CERT_NAME_BLOB* const name = &Context(m_pNative)->pCertInfo->Issuer;
  return NameText([=](wchar_t* buffer, DWORD size) {
    return CertNameToStrW(X509_ASN_ENCODING, name, CERT_SIMPLE_NAME_STR, buffer, size);
  });
}

}  // namespace VaroCommunicationAPI::Platform
