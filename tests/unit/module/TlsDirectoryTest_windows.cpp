// Where the TLS library looks for trusted certificates.
#include <gtest/gtest.h>

#include <openssl/crypto.h>
#include <openssl/x509.h>

namespace {

// Below the root of a drive any user may make a folder; only administrators write into this one.
TEST(TlsDirectory, IsWrittenByAdministratorsOnly) {
  EXPECT_STREQ(OpenSSL_version(OPENSSL_DIR), "OPENSSLDIR: \"C:/Program Files/Common Files/SSL\"");
  EXPECT_STREQ(X509_get_default_cert_dir(), "C:/Program Files/Common Files/SSL/certs");
  EXPECT_STREQ(X509_get_default_cert_file(), "C:/Program Files/Common Files/SSL/cert.pem");
}

}  // namespace
