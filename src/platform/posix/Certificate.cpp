#include "platform/Certificate.h"

#include <host/Text.h>

#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cerrno>

namespace VaroCommunicationAPI::Platform {

namespace {

struct Deleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};
template <class Object>
using Owned = std::unique_ptr<Object, Deleter>;

const X509* Native(const std::shared_ptr<const void>& native) { return static_cast<const X509*>(native.get()); }

std::wstring ValueText(const ASN1_STRING* value) {
  unsigned char* bytes = nullptr;
  const int size = ASN1_STRING_to_UTF8(&bytes, value);
  if (size < 0) return {};
  std::wstring text =
      WindowsAgentCommon::Utf8ToWide({reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size)});
  OPENSSL_free(bytes);
  return text;
}

bool IsBlank(wchar_t character) { return character == L' ' || (character >= L'\t' && character <= L'\r'); }

std::wstring Quoted(const std::wstring& value) {
  if (!value.empty() && !IsBlank(value.front()) && !IsBlank(value.back()) &&
      value.find_first_of(L",+=\"<>#;\n") == std::wstring::npos) {
    return value;
  }
  std::wstring text = L"\"";
  for (const wchar_t character : value) text.append(character == L'"' ? 2 : 1, character);
  return text + L'"';
}

/// The first part of the text, counted in UTF-16 units; no character is cut in two.
std::wstring Cut(std::wstring text) {
  std::size_t units = 0;
  for (std::size_t index = 0; index < text.size(); ++index) {
    units += text[index] > 0xFFFF ? 2 : 1;
    if (units > Certificate::maxNameUnits) {
      text.resize(index);
      break;
    }
  }
  return text;
}

std::wstring NameText(const X509_NAME* name) {
  std::wstring text;
  int previousSet = -1;
  for (int index = 0; index < X509_NAME_entry_count(name); ++index) {
    const X509_NAME_ENTRY* const entry = X509_NAME_get_entry(name, index);
    const int set = X509_NAME_ENTRY_set(entry);
    if (index > 0) text += set == previousSet ? L" + " : L", ";
    text += Quoted(ValueText(X509_NAME_ENTRY_get_data(entry)));
    previousSet = set;
  }
  return Cut(std::move(text));
}

/// The first alternative e-mail address, or nothing.
std::wstring AlternativeAddress(const X509* certificate) {
  const Owned<GENERAL_NAMES> names(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int index = 0; index < sk_GENERAL_NAME_num(names.get()); ++index) {
    const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), index);
    if (name->type == GEN_EMAIL) return ValueText(name->d.rfc822Name);
  }
  return {};
}

}  // namespace

int Certificate::FromDer(std::span<const std::uint8_t> bytes, Certificate& certificate) {
  const unsigned char* position = bytes.data();
  X509* const parsed = d2i_X509(nullptr, &position, static_cast<long>(bytes.size()));
  if (!parsed) return EBADMSG;
  certificate.m_pNative = {parsed, [](X509* owned) { X509_free(owned); }};
  return 0;
}

int Certificate::FromPem(std::string_view text, Certificate& certificate) {
  const Owned<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  if (!bio) return ENOMEM;
  unsigned char* bytes = nullptr;
  long size = 0;
  if (PEM_bytes_read_bio(&bytes, &size, nullptr, PEM_STRING_X509, bio.get(), nullptr, nullptr) != 1) return EBADMSG;
  const int error = static_cast<std::size_t>(size) > maxPemCertificateBytes
                        ? EMSGSIZE
                        : FromDer({bytes, static_cast<std::size_t>(size)}, certificate);
  OPENSSL_free(bytes);
  return error;
}

std::vector<std::uint8_t> Certificate::Der() const {
  unsigned char* bytes = nullptr;
  const int size = i2d_X509(Native(m_pNative), &bytes);
  if (size < 0) return {};
  std::vector<std::uint8_t> copy(bytes, bytes + size);
  OPENSSL_free(bytes);
  return copy;
}

std::string Certificate::Pem() const {
  const Owned<BIO> bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), Native(m_pNative)) != 1) return {};
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

std::wstring Certificate::DisplayName() const {
  const X509* const certificate = Native(m_pNative);
  const X509_NAME* const name = X509_get_subject_name(certificate);
  for (const int attribute :
       {NID_commonName, NID_organizationalUnitName, NID_organizationName, NID_pkcs9_emailAddress}) {
    if (const int index = X509_NAME_get_index_by_NID(name, attribute, -1); index >= 0) {
      return Cut(ValueText(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index))));
    }
  }
  if (const std::wstring address = AlternativeAddress(certificate); !address.empty()) return Cut(address);
  if (X509_NAME_entry_count(name) == 0) return {};
  return Cut(ValueText(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, 0))));
}

std::wstring Certificate::SubjectName() const { return NameText(X509_get_subject_name(Native(m_pNative))); }

std::wstring Certificate::IssuerName() const { return NameText(X509_get_issuer_name(Native(m_pNative))); }

}  // namespace VaroCommunicationAPI::Platform
