// The store of trusted certificates on systems that keep their own in a file.
#include "InstallationDirectory.h"
#include "TestCertificate.h"

#include "platform/CertificateStore.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

namespace {

using namespace sorvex::test;
using namespace VaroCommunicationAPI::Platform;

TEST(TrustedStore, HoldsTheSystemsBundle) {
  const Name first{{NID_commonName, V_ASN1_UTF8STRING, "First"}};
  const Name second{{NID_commonName, V_ASN1_UTF8STRING, "Second"}};
  Certificate firstAuthority;
  Certificate secondAuthority;
  ASSERT_EQ(Certificate::FromDer(MakeCertificate(first, first), firstAuthority), 0);
  ASSERT_EQ(Certificate::FromDer(MakeCertificate(second, second), secondAuthority), 0);
  const InstallationDirectory installation;
  installation.Write("bundle.crt", "# two\n" + firstAuthority.Pem() + "\n" + secondAuthority.Pem());
  ::setenv("SSL_CERT_FILE", (installation.Root() / "bundle.crt").c_str(), 1);
  CertificateStore trusted;
  CertificateStore intermediate;
  const int error = trusted.Open(L"ROOT");
  EXPECT_EQ(intermediate.Open(L"CA"), 0);
  ::unsetenv("SSL_CERT_FILE");
  ASSERT_EQ(error, 0);
  EXPECT_EQ(trusted.FindIssuer(firstAuthority).Der(), firstAuthority.Der());
  EXPECT_EQ(trusted.FindIssuer(secondAuthority).Der(), secondAuthority.Der());
  EXPECT_FALSE(intermediate.FindIssuer(firstAuthority));
}

TEST(TrustedStore, UnknownNameIsRefused) { EXPECT_EQ(CertificateStore().Open(L"MY"), EINVAL); }

TEST(CertificateStore, LeavesOutPipesWithoutWaitingForTheirWriters) {
  const Name name{{NID_commonName, V_ASN1_UTF8STRING, "Authority"}};
  Certificate authority;
  ASSERT_EQ(Certificate::FromDer(MakeCertificate(name, name), authority), 0);
  const InstallationDirectory installation;
  installation.Write("config/certificates/CA/b.pem", authority.Pem());
  ASSERT_EQ(mkfifo((installation.ConfigDirectory() / "certificates/CA/a.pem").c_str(), 0600), 0);
  CertificateStore store;
  ASSERT_EQ(store.Open(L"CA"), 0);
  EXPECT_EQ(store.FindIssuer(authority).Der(), authority.Der());
}

}  // namespace
