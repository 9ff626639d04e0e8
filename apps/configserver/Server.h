// The listening side: makes a connection of everyone who calls.
#pragma once

#include <CommandLine.h>
#include <Connection.h>
#include <DataFolder.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>

namespace sorvex::configserver {

/// One per process. Everything happens on the thread of `Run`: what takes long is done in small pieces.
class Server {
 public:
  /// Listens. Throws `std::exception` when the folder, the certificate or the address cannot be used.
  explicit Server(const Options& options);

  /// Serves until the process is asked to end; connections end with it.
  void Run();

 private:
  void Accept();
  void AcceptLater();

  DataFolder m_folder;
  boost::asio::ssl::context m_tls;
  Service m_service;
  boost::asio::io_context m_context;
  boost::asio::signal_set m_endSignals;
  boost::asio::ip::tcp::acceptor m_acceptor;
  boost::asio::steady_timer m_acceptPause;
};

}  // namespace sorvex::configserver
