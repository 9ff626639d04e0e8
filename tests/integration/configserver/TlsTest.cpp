// The server's side of TLS, as clients of chosen versions see it.
#include "ConfigServerFixture.h"
#include "HttpsClient.h"
#include "support/ScopedVariable.h"

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>

namespace sorvex::test {
namespace {

using boost::asio::ip::tcp;

/// A client that speaks one version of TLS.
class OneVersion {
 public:
  OneVersion(std::uint16_t port, int version) {
    SSL* const native = m_stream.native_handle();
    SSL_set_min_proto_version(native, version);
    SSL_set_max_proto_version(native, version);
    // The library itself would not offer the old ones.
    SSL_set_cipher_list(native, "DEFAULT:@SECLEVEL=0");
    m_stream.next_layer().connect({boost::asio::ip::address_v4::loopback(), port});
    m_stream.handshake(boost::asio::ssl::stream_base::client, m_error);
  }

  bool IsOpen() const { return !m_error; }

  /// Whether it could resume its session after a command.
  bool MayResume() {
    boost::asio::write(m_stream, boost::asio::buffer(HttpsCommandRequest("Name=PostHeartbeat&Identifier=a")));
    std::string answer(15, '\0');
    boost::asio::read(m_stream, boost::asio::buffer(answer));
    EXPECT_EQ(answer, "HTTP/1.1 200 OK");
    return SSL_SESSION_is_resumable(SSL_get_session(m_stream.native_handle())) != 0;
  }

 private:
  boost::asio::io_context m_context;
  boost::asio::ssl::context m_tls{boost::asio::ssl::context::tls_client};
  boost::asio::ssl::stream<tcp::socket> m_stream{m_context, m_tls};
  boost::system::error_code m_error;
};

TEST(ConfigServerTls, SpeaksVersion12And13Only) {
  const TemporaryDirectory directory;
  // The system's settings allow more.
  const std::filesystem::path settings = directory.Write("openssl.cnf",
                                                         "openssl_conf = all\n[all]\nssl_conf = ssl\n"
                                                         "[ssl]\nsystem_default = default\n"
                                                         "[default]\nMinProtocol = TLSv1\n"
                                                         "CipherString = DEFAULT:@SECLEVEL=0\n");
  const ScopedVariable variable("OPENSSL_CONF", settings.string());
  const ConfigServer server;
  EXPECT_FALSE(OneVersion(server.Port(), TLS1_VERSION).IsOpen());
  EXPECT_FALSE(OneVersion(server.Port(), TLS1_1_VERSION).IsOpen());
  EXPECT_TRUE(OneVersion(server.Port(), TLS1_2_VERSION).IsOpen());
  EXPECT_TRUE(OneVersion(server.Port(), TLS1_3_VERSION).IsOpen());
}

TEST(ConfigServerTls, OffersNoSessionToResume) {
  const ConfigServer server;
  EXPECT_FALSE(OneVersion(server.HttpsPort(), TLS1_2_VERSION).MayResume());
  EXPECT_FALSE(OneVersion(server.HttpsPort(), TLS1_3_VERSION).MayResume());
}

}  // namespace
}  // namespace sorvex::test
