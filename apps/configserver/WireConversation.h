// The wire protocol on one connection.
#pragma once

#include <Connection.h>
#include <Request.h>
#include <Response.h>

#include <memory>
#include <string>
#include <string_view>

namespace sorvex::configserver {

/// Used by the server's thread only; the connection outlives it.
class WireConversation : public Conversation {
 public:
  WireConversation(Connection& connection, Service& service) : m_connection(connection), m_service(service) {}

  std::size_t HandleInput(std::string_view input) override;

 private:
  void Handle(const Request& request);
  void HandleContent(const Establishment& establishment);
  void HandleContent(const Registration& registration);
  void HandleContent(const StatusReport& report);
  void HandleContent(const ConfigurationQuery& query);
  void HandleContent(const PatchQuery& query);
  Result Admit(const Establishment& establishment);

  /// `text` describes the answer for the log.
  void Respond(Result result, std::shared_ptr<ServedFile> data = nullptr, const std::string& text = {});

  Connection& m_connection;
  Service& m_service;
  WireVersion m_version = WireVersion::V2;

  // The current exchange.
  WireType m_type = WireType::Establishment2;
  bool m_isLast = false;  ///< the connection ends after the response
};

}  // namespace sorvex::configserver
