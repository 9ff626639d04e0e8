// How the servers of the tests end.
#include "support/LoopbackTlsServer.h"

#include <gtest/gtest.h>
#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>

#include <future>
#include <string_view>

namespace sorvex::test {
namespace {

TEST(LoopbackServer, StopEndsAWaitForTheRestOfARecord) {
  // The header of a handshake record of 512 bytes, and the first of these.
  constexpr std::string_view partOfRecord("\x16\x03\x01\x02\x00\x01", 6);
  std::promise<bool> handshake;
  std::future<bool> outcome = handshake.get_future();
  LoopbackTcpServer server([&](LoopbackTcpServer&, ServerConnection& connection, int) {
    WaitUntil([&] { return connection.Socket().available() == partOfRecord.size(); });
    // Like `Stop`, while an incomplete record is being read.
    connection.Abort();
    boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
    handshake.set_value(TlsServerSession(connection, context).Handshake());
  });
  boost::asio::io_context context;
  tcp::socket client(context);
  client.connect({boost::asio::ip::address_v4::loopback(), server.Port()});
  boost::asio::write(client, boost::asio::buffer(partOfRecord));
  ASSERT_EQ(outcome.wait_for(patience), std::future_status::ready);
  EXPECT_FALSE(outcome.get());
}

}  // namespace
}  // namespace sorvex::test
