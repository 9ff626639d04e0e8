#include "BlackHole.h"

#include <boost/asio.hpp>

#include <chrono>
#include <list>
#include <stdexcept>

namespace sorvex::test {

using boost::asio::ip::tcp, boost::asio::ip::udp;

namespace {

constexpr int maxFillers = 64;

}  // namespace

struct BlackHole::State {
  boost::asio::io_context context;
  tcp::acceptor acceptor{context};
  std::list<tcp::socket> fillers;
};

BlackHole::BlackHole(std::uint16_t port) : m_pState(std::make_unique<State>()) {
  boost::asio::io_context& context = m_pState->context;
  tcp::acceptor& acceptor = m_pState->acceptor;
  const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), port);
  acceptor.open(endpoint.protocol());
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  acceptor.bind(endpoint);
  acceptor.listen(0);
  const tcp::endpoint target(boost::asio::ip::address_v4::loopback(), Port());
  for (int i = 0; i < maxFillers; ++i) {
    tcp::socket& filler = m_pState->fillers.emplace_back(context);
    bool isConnected = false;
    filler.async_connect(target, [&](const boost::system::error_code& error) { isConnected = !error; });
    context.restart();
    context.run_for(std::chrono::milliseconds(300));
    if (!isConnected) return;
  }
  throw std::runtime_error("the queue of waiting connections does not fill");
}

BlackHole::~BlackHole() = default;

std::uint16_t BlackHole::Port() const { return m_pState->acceptor.local_endpoint().port(); }

struct DatagramBlackHole::State {
  explicit State(std::uint16_t port) : socket(context, {boost::asio::ip::address_v4::loopback(), port}) {}

  boost::asio::io_context context;
  udp::socket socket;
};

DatagramBlackHole::DatagramBlackHole(std::uint16_t port) : m_pState(std::make_unique<State>(port)) {}

DatagramBlackHole::~DatagramBlackHole() = default;

}  // namespace sorvex::test
