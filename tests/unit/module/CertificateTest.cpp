// Certificates, their names and their stores, the same on every system.
#include "CertificateInStore.h"
#include "InstallationDirectory.h"
#include "TestCertificate.h"

#include "platform/Certificate.h"
#include "platform/CertificateStore.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace sorvex::test;
using VaroCommunicationAPI::Platform::CertificateStore;
using X509Certificate = VaroCommunicationAPI::Platform::Certificate;

constexpr int utf8 = V_ASN1_UTF8STRING;
constexpr int printable = V_ASN1_PRINTABLESTRING;

X509Certificate Make(const Name& subject, const Name& issuer = {{NID_commonName, utf8, "Issuer"}},
                     const std::string& alternativeAddress = {}) {
  X509Certificate certificate;
  EXPECT_EQ(X509Certificate::FromDer(MakeCertificate(subject, issuer, alternativeAddress), certificate), 0);
  return certificate;
}

X509Certificate Named(const std::string& commonName) { return Make({{NID_commonName, utf8, commonName}}); }

// Names

TEST(CertificateName, OfOneAttributeIsItsValue) {
  const X509Certificate certificate = Named("server.example");
  EXPECT_EQ(certificate.DisplayName(), L"server.example");
  EXPECT_EQ(certificate.SubjectName(), L"server.example");
  EXPECT_EQ(certificate.IssuerName(), L"Issuer");
}

TEST(CertificateName, HasEveryValueInTheCertificatesOrder) {
  const Name name{{NID_countryName, printable, "DE"},
                  {NID_organizationName, utf8, "Example"},
                  {NID_organizationalUnitName, utf8, "Logs"},
                  {NID_commonName, utf8, "server"}};
  const X509Certificate certificate = Make(name, name);
  EXPECT_EQ(certificate.SubjectName(), L"DE, Example, Logs, server");
  EXPECT_EQ(certificate.IssuerName(), L"DE, Example, Logs, server");
  EXPECT_EQ(certificate.DisplayName(), L"server");
}

TEST(CertificateName, JoinsValuesOfOneRelativeNameByPlus) {
  const Name name{{NID_organizationName, utf8, "Example"},
                  {NID_commonName, utf8, "server"},
                  {NID_serialNumber, printable, "12", true}};
  const X509Certificate certificate = Make(name, name);
  // The encoding sorts the values of one relative name.
  EXPECT_EQ(certificate.SubjectName(), L"Example, 12 + server");
  EXPECT_EQ(certificate.IssuerName(), L"Example, 12 + server");
}

TEST(CertificateName, MayHoldAnyCharacterInUtf8) {
  const X509Certificate certificate = Named("Schl\xC3\xBCssel \xE9\x8D\xB5 \xF0\x9F\x94\x91");
  EXPECT_EQ(certificate.DisplayName(), L"Schl\u00FCssel \u9375 \U0001F511");
  EXPECT_EQ(certificate.SubjectName(), L"Schl\u00FCssel \u9375 \U0001F511");
}

TEST(CertificateName, MayBeABmpString) {
  const Name name{{NID_commonName, V_ASN1_BMPSTRING, std::string("\0S\0\xFC\x93\x75", 6)}};
  const X509Certificate certificate = Make(name, name);
  EXPECT_EQ(certificate.DisplayName(), L"S\u00FC\u9375");
  EXPECT_EQ(certificate.SubjectName(), L"S\u00FC\u9375");
  EXPECT_EQ(certificate.IssuerName(), L"S\u00FC\u9375");
}

class QuotedValue : public testing::TestWithParam<const char*> {};

TEST_P(QuotedValue, StandsInQuotationMarksInTheNamesOnly) {
  const std::string value = GetParam();
  const Name name{{NID_commonName, utf8, value}};
  const X509Certificate certificate = Make(name, name);
  const std::wstring wide(value.begin(), value.end());
  EXPECT_EQ(certificate.DisplayName(), wide);
  EXPECT_EQ(certificate.SubjectName(), L'"' + wide + L'"');
  EXPECT_EQ(certificate.IssuerName(), L'"' + wide + L'"');
}

INSTANTIATE_TEST_SUITE_P(Values, QuotedValue,
                         testing::Values("a,b", "a+b", "a=b", "a<b", "a>b", "a#b", "a;b", "a\nb", " a", "a "));

TEST(CertificateName, DoublesQuotationMarksInside) {
  const X509Certificate certificate = Named("a \"b\" c");
  EXPECT_EQ(certificate.SubjectName(), L"\"a \"\"b\"\" c\"");
  EXPECT_EQ(certificate.DisplayName(), L"a \"b\" c");
}

TEST(CertificateName, KeepsBackslashesAndBlanksWithin) { EXPECT_EQ(Named("a\\b  c").SubjectName(), L"a\\b  c"); }

TEST(CertificateName, IsCutAfter127Characters) {
  const X509Certificate certificate = Make(
      {{NID_organizationName, utf8, std::string(64, 'o')}, {NID_organizationalUnitName, utf8, std::string(64, 'u')}});
  EXPECT_EQ(certificate.SubjectName(), std::wstring(64, L'o') + L", " + std::wstring(61, L'u'));
}

TEST(CertificateName, Of127CharactersIsWhole) {
  const X509Certificate certificate = Make(
      {{NID_organizationName, utf8, std::string(64, 'o')}, {NID_organizationalUnitName, utf8, std::string(61, 'u')}});
  EXPECT_EQ(certificate.SubjectName().size(), 127U);
}

// Display names

TEST(CertificateDisplayName, PrefersTheCommonName) {
  EXPECT_EQ(Make({{NID_pkcs9_emailAddress, V_ASN1_IA5STRING, "a@b"},
                  {NID_organizationName, utf8, "O"},
                  {NID_organizationalUnitName, utf8, "OU"},
                  {NID_commonName, utf8, "CN"}})
                .DisplayName(),
            L"CN");
}

TEST(CertificateDisplayName, IsTheUnitWithoutCommonName) {
  EXPECT_EQ(Make({{NID_organizationName, utf8, "O"}, {NID_organizationalUnitName, utf8, "OU"}}).DisplayName(), L"OU");
}

TEST(CertificateDisplayName, IsTheOrganizationWithoutUnit) {
  EXPECT_EQ(Make({{NID_pkcs9_emailAddress, V_ASN1_IA5STRING, "a@b"}, {NID_organizationName, utf8, "O"}}).DisplayName(),
            L"O");
}

TEST(CertificateDisplayName, IsTheAddressWithoutOrganization) {
  EXPECT_EQ(Make({{NID_countryName, printable, "DE"}, {NID_pkcs9_emailAddress, V_ASN1_IA5STRING, "a@b"}}).DisplayName(),
            L"a@b");
}

TEST(CertificateDisplayName, IsTheAlternativeAddressWithoutTheOthers) {
  EXPECT_EQ(Make({{NID_countryName, printable, "DE"}}, {{NID_commonName, utf8, "Issuer"}}, "c@d").DisplayName(),
            L"c@d");
}

TEST(CertificateDisplayName, IsTheFirstAttributeWithoutAnyOfThem) {
  EXPECT_EQ(Make({{NID_countryName, printable, "DE"}, {NID_localityName, utf8, "Ulm"}}).DisplayName(), L"DE");
}

// Encodings

TEST(CertificateEncoding, NoCertificateIsFalse) {
  EXPECT_FALSE(X509Certificate());
  EXPECT_TRUE(Named("x"));
}

TEST(CertificateEncoding, PemHasLinesOf64CharactersAndLineFeeds) {
  const std::string pem = Named("x").Pem();
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < pem.size(); begin = pem.find('\n', begin) + 1) {
    lines.push_back(pem.substr(begin, pem.find('\n', begin) - begin));
  }
  ASSERT_GT(lines.size(), 3U);
  EXPECT_EQ(lines.front(), "-----BEGIN CERTIFICATE-----");
  EXPECT_EQ(lines.back(), "-----END CERTIFICATE-----");
  for (std::size_t index = 1; index + 2 < lines.size(); ++index) EXPECT_EQ(lines[index].size(), 64U);
  EXPECT_EQ(pem.find('\r'), std::string::npos);
  EXPECT_EQ(pem.back(), '\n');
}

TEST(CertificateEncoding, PemIsReadBack) {
  const X509Certificate certificate = Named("x");
  X509Certificate read;
  EXPECT_EQ(X509Certificate::FromPem(certificate.Pem(), read), 0);
  EXPECT_EQ(read.Der(), certificate.Der());
}

TEST(CertificateEncoding, PemWithCarriageReturnsIsRead) {
  const X509Certificate certificate = Named("x");
  std::string text;
  for (const char character : certificate.Pem())
    text += character == '\n' ? std::string("\r\n") : std::string(1, character);
  X509Certificate read;
  EXPECT_EQ(X509Certificate::FromPem(text, read), 0);
  EXPECT_EQ(read.Der(), certificate.Der());
}

TEST(CertificateEncoding, TextWithoutCertificateIsRefused) {
  X509Certificate read;
  EXPECT_NE(X509Certificate::FromPem("hello", read), 0);
  EXPECT_NE(X509Certificate::FromPem("", read), 0);
  EXPECT_NE(X509Certificate::FromPem("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", read), 0);
  EXPECT_FALSE(read);
}

TEST(CertificateEncoding, PemBeyondTheLimitIsRefused) {
  const Name name{{NID_commonName, utf8, "x"}};
  X509Certificate large;
  ASSERT_EQ(X509Certificate::FromDer(MakeCertificate(name, name, {}, std::string(16384, 'x')), large), 0);
  X509Certificate read;
  EXPECT_NE(X509Certificate::FromPem(large.Pem(), read), 0);
  EXPECT_FALSE(read);
}

TEST(CertificateEncoding, OtherBytesAreRefused) {
  X509Certificate read;
  const std::vector<std::uint8_t> bytes{1, 2, 3};
  EXPECT_NE(X509Certificate::FromDer(bytes, read), 0);
}

// Stores

class CertificateStores : public testing::TestWithParam<const wchar_t*> {
 protected:
  InstallationDirectory m_installation;
  X509Certificate m_authority =
      Make({{NID_organizationName, utf8, "Sorvex test"}, {NID_commonName, utf8, "Authority"}});
  X509Certificate m_issued = Make({{NID_commonName, utf8, "server"}},
                                  {{NID_organizationName, utf8, "Sorvex test"}, {NID_commonName, utf8, "Authority"}});
};

TEST_P(CertificateStores, FindTheIssuer) {
  const CertificateInStore stored(GetParam(), m_authority);
  CertificateStore store;
  ASSERT_EQ(store.Open(GetParam()), 0);
  const X509Certificate found = store.FindIssuer(m_issued);
  ASSERT_TRUE(found);
  EXPECT_EQ(found.Der(), m_authority.Der());
}

TEST_P(CertificateStores, DoNotFindAnAbsentIssuer) {
  CertificateStore store;
  ASSERT_EQ(store.Open(GetParam()), 0);
  EXPECT_FALSE(store.FindIssuer(m_issued));
}

TEST_P(CertificateStores, FindNobodyWhoseNameIsEncodedOtherwise) {
  const CertificateInStore stored(GetParam(), m_authority);
  CertificateStore store;
  ASSERT_EQ(store.Open(GetParam()), 0);
  EXPECT_FALSE(
      store.FindIssuer(Make({{NID_commonName, utf8, "server"}}, {{NID_organizationName, printable, "Sorvex test"},
                                                                 {NID_commonName, printable, "Authority"}})));
}

TEST_P(CertificateStores, FoundCertificateOutlivesItsStore) {
  const CertificateInStore stored(GetParam(), m_authority);
  X509Certificate found;
  {
    CertificateStore store;
    ASSERT_EQ(store.Open(GetParam()), 0);
    found = store.FindIssuer(m_issued);
  }
  EXPECT_EQ(found.DisplayName(), L"Authority");
}

INSTANTIATE_TEST_SUITE_P(Names, CertificateStores, testing::Values(L"CA", L"ROOT"),
                         [](const testing::TestParamInfo<const wchar_t*>& test) {
                           const std::wstring name = test.param;
                           return std::string(name.begin(), name.end());
                         });

TEST(CertificateStore, NeverOpenedIsEmpty) { EXPECT_FALSE(CertificateStore().FindIssuer(Named("x"))); }

}  // namespace
