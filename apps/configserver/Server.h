// The listening side: makes a connection for every client.
#pragma once

#include <CommandLine.h>
#include <Connection.h>
#include <DataFolder.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace sorvex::configserver {

/// Accepts connections for one of the protocols. Outlives everything pending on its context.
class Listener {
 public:
  using MakeConversation = std::unique_ptr<Conversation> (*)(Connection& connection, Service& service);

  /// Throws `std::exception` when it cannot listen there.
  Listener(boost::asio::io_context& context, const boost::asio::ip::tcp::endpoint& endpoint, Service& service,
           std::size_t maxConnections, MakeConversation makeConversation);

  /// Address and port, for the log.
  std::string Place() const;
  void Accept();

 private:
  void AcceptLater();

  Service& m_service;
  const std::size_t m_maxConnections;
  const MakeConversation m_makeConversation;
  boost::asio::ip::tcp::acceptor m_acceptor;
  boost::asio::steady_timer m_pause;
};

/// One per process. Everything happens on the thread of `Run`; long work is done in small pieces.
class Server {
 public:
  /// Listens. Throws `std::exception` when the folder, the certificate or the address cannot be used.
  explicit Server(const Options& options);

  /// Serves until the process is asked to end; then closes all connections.
  void Run();

 private:
  DataFolder m_folder;
  boost::asio::ssl::context m_tls;
  Service m_service;
  boost::asio::io_context m_context;
  boost::asio::signal_set m_endSignals;
  std::optional<Listener> m_wire;
  std::optional<Listener> m_https;
};

}  // namespace sorvex::configserver
