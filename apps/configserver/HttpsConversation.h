// The HTTPS commands on one connection.
#pragma once

#include <Connection.h>
#include <HttpsRequest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace sorvex::configserver {

/// Used by the server's thread only; the connection outlives it.
class HttpsConversation : public Conversation {
 public:
  HttpsConversation(Connection& connection, Service& service) : m_connection(connection), m_service(service) {}

  std::size_t HandleInput(std::string_view input) override;

 private:
  void Handle(const HttpsRequest& request, const HttpsCommand& command);
  void HandleOfAgent(const HttpsCommand& command);
  void HandleDelivery(const HttpsCommand& command);

  /// Answers as the fault requires instead of executing the command. Returns false when there is no such fault.
  bool RespondWithFault();

  /// `text` describes the answer for the log.
  void Respond(unsigned status, const std::string& text, const char* contentType = nullptr,
               const std::string& body = {});
  void RespondWithFile(std::shared_ptr<ServedFile> file, const std::string& text, const char* contentType);
  void RespondWithPage(const std::string& text);

  /// The header of an answer with so many bytes of body.
  std::string Head(unsigned status, const char* contentType, std::uint64_t bodyBytes) const;

  Connection& m_connection;
  Service& m_service;
  HttpsRequestReader m_reader;
  bool m_isLast = false;  ///< the connection ends after the current answer
};

}  // namespace sorvex::configserver
