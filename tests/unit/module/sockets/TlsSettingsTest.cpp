// What the sockets over TLS ask of the TLS library, as it tells of their connections.
#include "Transports.h"

#include <support/RecordingLogger.h>
#include <support/TlsClientWatch.h>

#include <ace/OS_NS_stdlib.h>
#include <gtest/gtest.h>
#include <openssl/x509.h>

namespace sorvex::test {
namespace {

/// Certificates that a connection trusts.
int TrustedCertificates(const SSL* ssl) {
  return sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(SSL_get_SSL_CTX(ssl))));
}

class TlsSettings : public testing::Test {
 protected:
  SSL* ConnectRaw() {
    raw.Open(L"127.0.0.1", server.Port());
    EXPECT_TRUE(raw.IsConnected());
    return watch.Youngest();
  }

  SSL* ConnectDestination(const TlsIdentity& identity = ServerIdentity()) {
    destination.Initialize(OverTls::Target(server.Port(), false, ToBase64(identity.CertificatePem())));
    EXPECT_TRUE(destination.IsConnected());
    return watch.Youngest();
  }

  RecordingLogger log;
  LoopbackTlsServer server;
  TlsClientWatch watch;
  TrustingSSLTCPRawSocket raw;
  DefaultSSLTCPSocket destination;
};

/// `SSL_CERT_FILE` for the time of its life, which the TLS library and ACE follow.
class DefaultCertificateFile {
 public:
  explicit DefaultCertificateFile(const std::string& pem)
      : m_setting("SSL_CERT_FILE=" + m_directory.Write("default.pem", pem).string()) {
    ACE_OS::putenv(m_setting.c_str());
  }
  ~DefaultCertificateFile() { ACE_OS::putenv("SSL_CERT_FILE="); }
  DefaultCertificateFile(const DefaultCertificateFile&) = delete;
  DefaultCertificateFile& operator=(const DefaultCertificateFile&) = delete;

 private:
  TemporaryDirectory m_directory{"default-certificates"};
  // The environment keeps the text itself.
  std::string m_setting;
};

TEST_F(TlsSettings, ARawSocketKeepsNoSessions) {
  SSL* const ssl = ConnectRaw();
  ASSERT_NE(ssl, nullptr);
  EXPECT_EQ(SSL_CTX_get_session_cache_mode(SSL_get_SSL_CTX(ssl)), SSL_SESS_CACHE_OFF);
}

TEST_F(TlsSettings, ADestinationKeepsNoSessions) {
  SSL* const ssl = ConnectDestination();
  ASSERT_NE(ssl, nullptr);
  EXPECT_EQ(SSL_CTX_get_session_cache_mode(SSL_get_SSL_CTX(ssl)), SSL_SESS_CACHE_OFF);
}

TEST_F(TlsSettings, ADestinationHasItsCertificateInstalled) {
  const TlsIdentity other("other");
  SSL* const ssl = ConnectDestination(other);
  ASSERT_NE(ssl, nullptr);
  ASSERT_NE(SSL_get_certificate(ssl), nullptr);
  EXPECT_EQ(X509_cmp(SSL_get_certificate(ssl), other.Certificate()), 0);
}

TEST_F(TlsSettings, ARawSocketVerifiesAndADestinationDoesNot) {
  EXPECT_NE(SSL_get_verify_mode(ConnectRaw()) & SSL_VERIFY_PEER, 0);
  EXPECT_EQ(SSL_get_verify_mode(ConnectDestination()), SSL_VERIFY_NONE);
}

TEST_F(TlsSettings, ADestinationLoadsNoTrustedCertificates) {
  const TlsIdentity other("other");
  const DefaultCertificateFile file(other.CertificatePem());
  EXPECT_EQ(TrustedCertificates(ConnectDestination()), 0);
}

TEST_F(TlsSettings, ARawSocketWhoseFileIsEnoughLoadsNoOtherCertificates) {
  const TlsIdentity other("other");
  const DefaultCertificateFile file(other.CertificatePem());
  EXPECT_EQ(TrustedCertificates(ConnectRaw()), 1);
}

TEST_F(TlsSettings, ARawSocketWhoseFileIsNotEnoughLoadsTheDefaultLocationsAsWell) {
  const TemporaryDirectory directory("stranger");
  const TlsIdentity stranger("stranger");
  raw.SetCertificateFile(WindowsAgentCommon::PathToWide(directory.Write("stranger.pem", stranger.CertificatePem())));
  const DefaultCertificateFile file(ServerIdentity().CertificatePem());
  EXPECT_EQ(TrustedCertificates(ConnectRaw()), 2);
}

TEST_F(TlsSettings, ARawSocketFollowsAChainThatTheServerShowsToTheDefaultLocations) {
  const TlsIdentity root("root");
  const TlsIdentity intermediate("intermediate", &root, 3600, true);
  const TlsIdentity leaf("leaf", &intermediate);
  LoopbackTlsServer chained(TlsServerOptions{.identity = &leaf, .issuer = &intermediate});
  raw.Open(L"127.0.0.1", chained.Port());
  EXPECT_FALSE(raw.IsConnected());
  const DefaultCertificateFile file(root.CertificatePem());
  EXPECT_TRUE(raw.Connect());
}

TEST_F(TlsSettings, ARawSocketVerifiesTheDefaultLocationsAsStrictlyAsItsFile) {
  const TlsIdentity authority("authority");
  const TlsIdentity expired("expired", &authority, -3600);
  LoopbackTlsServer stale(TlsServerOptions{.identity = &expired});
  const DefaultCertificateFile file(authority.CertificatePem());
  raw.Open(L"127.0.0.1", stale.Port());
  EXPECT_FALSE(raw.IsConnected());
  EXPECT_EQ(log->Lines().back(), "Debug The TLS library's reason: certificate verify failed (certificate has expired)");
}

TEST_F(TlsSettings, ARawSocketAsksForAServersCertificateAlsoFromTheDefaultLocations) {
  const TlsIdentity authority("authority");
  const TlsIdentity client("client", &authority);
  X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, NID_ext_key_usage, "clientAuth");
  X509_add_ext(client.Certificate(), extension, -1);
  X509_EXTENSION_free(extension);
  ASSERT_NE(X509_sign(client.Certificate(), authority.Key(), EVP_sha256()), 0);
  LoopbackTlsServer pretender(TlsServerOptions{.identity = &client});
  const DefaultCertificateFile file(authority.CertificatePem());
  raw.Open(L"127.0.0.1", pretender.Port());
  EXPECT_FALSE(raw.IsConnected());
}

TEST_F(TlsSettings, OnlyARawSocketReadsAhead) {
  EXPECT_EQ(SSL_get_read_ahead(ConnectRaw()), 1);
  EXPECT_EQ(SSL_get_read_ahead(ConnectDestination()), 0);
}

}  // namespace
}  // namespace sorvex::test
