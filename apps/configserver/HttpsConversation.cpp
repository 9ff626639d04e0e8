#include <HttpsConversation.h>

#include <Text.h>

#include <boost/beast/http/status.hpp>

#include <exception>
#include <optional>
#include <utility>
#include <variant>

namespace sorvex::configserver {
namespace {

constexpr unsigned ok = 200;
constexpr unsigned noContent = 204;
constexpr unsigned notFound = 404;
constexpr unsigned serverError = 500;
constexpr unsigned tooManyAgents = 503;

constexpr const char* plainText = "text/plain; charset=utf-8";

/// Agents take this for a refusal: exactly "<html>", with a success status.
constexpr const char* refusedPage =
    "<!DOCTYPE html>\n<html>\n<head><title>Refused</title></head>\n"
    "<body>This server does not accept the agent's token or identifier.</body>\n</html>\n";

constexpr bool HasBody(unsigned status) { return status >= ok && status != noContent && status != 304; }

/// A header line.
std::string Field(const char* name, const std::string& value) { return std::string(name) + ": " + value + "\r\n"; }

}  // namespace

std::size_t HttpsConversation::HandleInput(std::string_view input) {
  const std::optional<HttpsRequest> request = m_reader.Read(input);
  if (!request) return 0;
  if (const Refusal* const refusal = std::get_if<Refusal>(&request->content)) {
    m_isLast = true;
    Respond(refusal->status, refusal->reason);
  } else {
    m_isLast = !request->keepsConnection;
    Handle(*request, std::get<HttpsCommand>(request->content));
  }
  return request->size;
}

void HttpsConversation::Handle(const HttpsRequest& request, const HttpsCommand& command) {
  if (!m_connection.Begin(command.exchange, Protocol::Https) || RespondWithFault()) return;
  try {
    const std::optional<AgentName> agent = m_service.folder.FindAgent(command.identifier);
    if (!agent || !m_service.folder.AcceptsToken(request.token)) return RespondWithPage("refused");
    if (!m_connection.Admit(*agent)) return Respond(tooManyAgents, "too busy");
    HandleOfAgent(command);
  } catch (const std::exception& error) {
    m_connection.Log(std::string("failed: ") + error.what());
    Respond(serverError, "failed");
  }
}

void HttpsConversation::HandleOfAgent(const HttpsCommand& command) {
  const AgentName& agent = *m_connection.Agent();
  switch (command.exchange) {
    case Exchange::Registration: {
      const bool isNew =
          m_service.folder.Register(agent, command.osVersion, command.agentVersion, command.autoCreation);
      return Respond(ok, isNew ? "new agent" : "existing agent");
    }
    case Exchange::Status:
      m_service.folder.StoreStatus(agent, command.status, "uptime: " + std::to_string(command.uptime));
      return Respond(ok, "success");
    case Exchange::Fingerprint:
    case Exchange::Configuration:
    case Exchange::Patch: return HandleDelivery(command);
    default: return Respond(ok, "success");
  }
}

void HttpsConversation::HandleDelivery(const HttpsCommand& command) {
  const AgentName& agent = *m_connection.Agent();
  if (m_service.folder.AreUpdatesDisabled(agent)) return Respond(noContent, "updates disabled");
  std::string name;
  const std::shared_ptr<ServedFile> file = command.exchange == Exchange::Patch
                                               ? m_service.folder.OpenPatch(LowerCase(command.outOfDate), name)
                                               : m_service.folder.OpenConfiguration(agent);
  // An empty file does not count.
  if (!file || file->Size() == 0) return Respond(notFound, "nothing to deliver");
  if (command.exchange == Exchange::Patch) return RespondWithFile(file, name, "application/gzip");
  if (command.exchange == Exchange::Configuration) return RespondWithFile(file, "success", "application/xml");
  m_connection.AfterDigest(file, [this, file](bool isThere) {
    if (!isThere) return Respond(serverError, "failed");
    Respond(ok, file->GetDigest(), plainText, file->GetDigest());
  });
}

bool HttpsConversation::RespondWithFault() {
  const std::uint32_t number = m_service.fault.Number();
  switch (m_connection.GetFault()) {
    case Fault::Kind::Html: RespondWithPage("a page, as asked for"); return true;
    case Fault::Kind::Status: Respond(number, "as asked for", plainText, "as asked for\n"); return true;
    case Fault::Kind::Redirect: Respond(302, "as asked for", plainText, "as asked for\n"); return true;
    case Fault::Kind::EndlessBody: Respond(ok, "as asked for", plainText); return true;
    default: return false;
  }
}

void HttpsConversation::Respond(unsigned status, const std::string& text, const char* contentType,
                                const std::string& body) {
  std::string head = Head(status, contentType, body.size());
  if (HasBody(status)) head += body;
  m_connection.Send({.head = std::move(head), .outcome = std::to_string(status) + " " + text, .isLast = m_isLast});
}

void HttpsConversation::RespondWithFile(std::shared_ptr<ServedFile> file, const std::string& text,
                                        const char* contentType) {
  const std::uint64_t size = file->Size();
  m_connection.Send({.head = Head(ok, contentType, size),
                     .body = std::move(file),
                     .outcome = std::to_string(ok) + " " + text + ", " + std::to_string(size) + " bytes",
                     .isLast = m_isLast});
}

void HttpsConversation::RespondWithPage(const std::string& text) {
  Respond(ok, text, "text/html; charset=utf-8", refusedPage);
}

std::string HttpsConversation::Head(unsigned status, const char* contentType, std::uint64_t bodyBytes) const {
  const Fault::Kind fault = m_connection.GetFault();
  std::string head = "HTTP/1.1 " + std::to_string(status) + " ";
  head += boost::beast::http::obsolete_reason(boost::beast::http::int_to_status(status));
  head += "\r\n";
  if (contentType != nullptr && HasBody(status)) head += Field("Content-Type", contentType);
  if (HasBody(status) && fault != Fault::Kind::EndlessBody) head += Field("Content-Length", std::to_string(bodyBytes));
  // An answer for one agent must not be cached for another.
  head += Field("Cache-Control", "no-store");
  if (m_isLast) head += Field("Connection", "close");
  if (fault == Fault::Kind::Redirect) head += Field("Location", "/elsewhere");
  if (fault == Fault::Kind::HeaderWithoutColon) head += "A line without one\r\n";
  if (fault == Fault::Kind::HugeHeader) head += Field("X-Filler", std::string(m_service.fault.Number(), 'x'));
  return head + "\r\n";
}

}  // namespace sorvex::configserver
