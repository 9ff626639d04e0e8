#include "TlsClient.h"

#include "support/LoopbackTcpServer.h"

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>

#include <openssl/bio.h>
#include <openssl/pem.h>

#include <stdexcept>

namespace sorvex::test {

using boost::asio::ip::tcp;
using boost::system::error_code;

struct TlsClient::State {
  boost::asio::io_context context;
  boost::asio::ssl::context tls{boost::asio::ssl::context::tls_client};
  boost::asio::ssl::stream<tcp::socket> stream{context, tls};
  bool isOpen = false;
  bool isEnded = false;
  bool hasFarewell = false;

  /// Runs what was started to its end.
  void Run() {
    context.restart();
    context.run_for(patience);
    if (!context.stopped()) throw std::runtime_error("the server neither answers nor ends the connection");
  }
};

TlsClient::TlsClient(std::uint16_t port, Start start) : m_pState(std::make_unique<State>()) {
  error_code error;
  m_pState->stream.next_layer().connect({boost::asio::ip::address_v4::loopback(), port}, error);
  if (error) return;
  if (start == Start::Handshake) {
    m_pState->stream.async_handshake(boost::asio::ssl::stream_base::client,
                                     [&error](const error_code& result) { error = result; });
    m_pState->Run();
  }
  m_pState->isOpen = !error;
}

TlsClient::~TlsClient() = default;

bool TlsClient::IsOpen() const { return m_pState->isOpen; }

void TlsClient::Send(std::string_view bytes) {
  boost::asio::async_write(m_pState->stream, boost::asio::buffer(bytes), [this](const error_code& error, std::size_t) {
    if (error) m_pState->isEnded = true;
  });
  m_pState->Run();
}

std::string TlsClient::Receive(std::size_t count) {
  std::string bytes(count, '\0');
  boost::asio::async_read(m_pState->stream, boost::asio::buffer(bytes), [&](const error_code& error, std::size_t size) {
    bytes.resize(size);
    if (error) m_pState->isEnded = true;
    if (error == boost::asio::error::eof) m_pState->hasFarewell = true;
  });
  m_pState->Run();
  return bytes;
}

std::string TlsClient::ReceiveAll() {
  std::string all;
  while (!m_pState->isEnded) all += Receive(65536);
  return all;
}

bool TlsClient::IsEnded() const { return m_pState->isEnded; }

bool TlsClient::HasFarewell() const { return m_pState->hasFarewell; }

std::string TlsClient::Certificate() const {
  const std::unique_ptr<X509, void (*)(X509*)> certificate(SSL_get1_peer_certificate(m_pState->stream.native_handle()),
                                                           &X509_free);
  const std::unique_ptr<BIO, int (*)(BIO*)> output(BIO_new(BIO_s_mem()), &BIO_free);
  PEM_write_bio_X509(output.get(), certificate.get());
  char* data = nullptr;
  const long size = BIO_get_mem_data(output.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

}  // namespace sorvex::test
