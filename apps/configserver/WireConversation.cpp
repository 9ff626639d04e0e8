#include <WireConversation.h>

#include <Text.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <utility>
#include <vector>

namespace sorvex::configserver {
namespace {

Exchange ExchangeOf(WireType type) {
  switch (type) {
    case WireType::Establishment1:
    case WireType::Establishment2: break;
    case WireType::Registration: return Exchange::Registration;
    case WireType::Status: return Exchange::Status;
    case WireType::Configuration: return Exchange::Configuration;
    case WireType::Patch: return Exchange::Patch;
  }
  return Exchange::Establishment;
}

std::string TextOf(Result result) {
  switch (result) {
    case Result::Success: return "success";
    case Result::NewAgent: return "new agent";
    case Result::KnownAgent: return "existing agent";
    case Result::NoUpdate: return "no update needed";
    case Result::UpdatesDisabled: return "updates disabled";
    case Result::TooBusy: return "too busy";
    case Result::Refused: return "refused";
    case Result::UnknownType: return "unknown type";
  }
  return "unknown";
}

/// "key=value" for each parameter. "&AutoCreation." starts a new one: values may contain "&" and "=", nothing is
/// escaped.
std::vector<std::string> AutoCreationParameters(std::string_view text) {
  constexpr std::string_view separator = "&AutoCreation.";
  std::vector<std::string> parameters;
  while (!text.empty()) {
    const std::size_t next = text.find(separator, 1);
    std::string_view parameter = text.substr(0, next);
    text.remove_prefix(std::min(next, text.size()));
    if (parameter.starts_with('&')) parameter.remove_prefix(1);
    parameters.emplace_back(parameter);
  }
  return parameters;
}

}  // namespace

std::size_t WireConversation::HandleInput(std::string_view input) {
  Request request;
  const ReadResult read = ReadRequest(input, request);
  switch (read.state) {
    case ReadState::NeedsMore: return 0;
    case ReadState::TooLong: {
      m_connection.Log("ended: a length in a request of type " + std::to_string(request.type) + " is above its bound");
      m_connection.Close();
      return input.size();
    }
    case ReadState::UnknownType: {
      m_connection.Send({.head = WriteUnknownTypeResponse(request.type, m_version),
                         .outcome = "type " + std::to_string(request.type) + ": " + TextOf(Result::UnknownType),
                         .isLast = true});
      return input.size();
    }
    case ReadState::Complete: break;
  }
  Handle(request);
  return read.size;
}

void WireConversation::Handle(const Request& request) {
  m_type = WireType{request.type};
  const bool isEstablishment1 = m_type == WireType::Establishment1;
  const bool isVersion2 = m_type == WireType::Establishment2 || (!isEstablishment1 && m_version == WireVersion::V2);
  if (!m_connection.Begin(ExchangeOf(m_type), isVersion2 ? Protocol::Wire2 : Protocol::Wire1)) return;
  if (!m_connection.Agent() && !std::holds_alternative<Establishment>(request.content)) {
    if (request.recordVersion == VersionText(WireVersion::V1)) m_version = WireVersion::V1;
    m_isLast = true;
    return Respond(Result::Refused);
  }
  try {
    std::visit([this](const auto& content) { HandleContent(content); }, request.content);
  } catch (const std::exception& error) {
    m_connection.Log(std::string("failed: ") + error.what());
    Respond(Result::TooBusy);
  }
}

void WireConversation::HandleContent(const Establishment& establishment) {
  const Fault::Kind fault = m_connection.GetFault();
  const bool isBelow2 = m_service.wireVersion == WireVersion::V1 || fault == Fault::Kind::Speaks1 ||
                        fault == Fault::Kind::Speaks1TypeOnly;
  if (establishment.version == WireVersion::V2 && isBelow2) {
    // A 2.0 agent reads only the type and continues in 1.0 on the same connection.
    m_version = WireVersion::V1;
    std::string bytes = WriteResponse({.type = WireType::Establishment1, .version = m_version}, Fault::Kind::None, 0);
    if (fault != Fault::Kind::Speaks1) bytes.resize(4);
    return m_connection.Send({.head = std::move(bytes), .outcome = "2.0: this server speaks 1.0"});
  }
  m_version = establishment.version;
  const Result result = Admit(establishment);
  m_isLast = IsFailure(result);
  Respond(result);
}

Result WireConversation::Admit(const Establishment& establishment) {
  const std::optional<AgentName> agent = m_service.folder.FindAgent(establishment.identifier);
  if (!agent || !m_service.folder.AcceptsToken(establishment.token)) return Result::Refused;
  if (!m_connection.Admit(*agent)) return Result::TooBusy;
  const std::string& key = establishment.publicKey;
  if (!key.empty() && !establishment.isDiagnostic) {
    if (AreSameDigest(establishment.publicKeyDigest, DigestOf(key))) {
      m_service.folder.StoreKey(*agent, key);
    } else {
      m_connection.Log("its key is not kept: the digest does not match");
    }
  }
  return Result::Success;
}

void WireConversation::HandleContent(const Registration& registration) {
  const bool isNew = m_service.folder.Register(*m_connection.Agent(), registration.osVersion, registration.agentVersion,
                                               AutoCreationParameters(registration.autoCreation));
  Respond(isNew ? Result::NewAgent : Result::KnownAgent);
}

void WireConversation::HandleContent(const StatusReport& report) {
  m_service.folder.StoreStatus(*m_connection.Agent(), report.status, "time: " + TimeText(report.seconds));
  Respond(Result::Success);
}

void WireConversation::HandleContent(const ConfigurationQuery& query) {
  if (m_service.folder.AreUpdatesDisabled(*m_connection.Agent())) return Respond(Result::UpdatesDisabled);
  const std::shared_ptr<ServedFile> file = m_service.folder.OpenConfiguration(*m_connection.Agent());
  // An empty configuration counts as none: an agent could not tell it from no answer.
  if (!file || file->Size() == 0) return Respond(Result::NoUpdate);
  file->RequireAtMost(maxDataBytes);
  m_connection.AfterDigest(file, [this, file, digest = query.digest](bool isThere) {
    if (!isThere) return Respond(Result::TooBusy);
    if (AreSameDigest(file->GetDigest(), digest)) return Respond(Result::NoUpdate);
    Respond(Result::Success, file);
  });
}

void WireConversation::HandleContent(const PatchQuery& query) {
  if (m_service.folder.AreUpdatesDisabled(*m_connection.Agent())) return Respond(Result::UpdatesDisabled);
  std::string found;
  const std::shared_ptr<ServedFile> file = m_service.folder.OpenPatch(query.names, found);
  // An empty patch counts as none, like an empty configuration.
  if (!file || file->Size() == 0) return Respond(Result::NoUpdate, nullptr, query.names.substr(0, 200));
  file->RequireAtMost(maxDataBytes);
  if (m_version == WireVersion::V1) return Respond(Result::Success, file, found);
  m_connection.AfterDigest(file, [this, file, found](bool isThere) {
    if (!isThere) return Respond(Result::TooBusy);
    Respond(Result::Success, file, found);
  });
}

void WireConversation::Respond(Result result, std::shared_ptr<ServedFile> data, const std::string& text) {
  std::array<char, 16> code{};
  std::snprintf(code.data(), code.size(), "%u", static_cast<unsigned>(result) & 0x7FFFFFFF);
  std::string outcome = (IsFailure(result) ? "failure " : "") + std::string(code.data()) + " " + TextOf(result);
  if (!text.empty()) outcome += ", " + text;
  if (data) outcome += ", " + std::to_string(data->Size()) + " bytes";

  Answer answer{.type = m_type, .version = m_version, .result = result};
  if (!IsFailure(result)) answer.serverKey = m_service.serverKey;
  if (data) {
    answer.dataSize = data->Size();
    answer.dataDigest = data->GetDigest();
  }
  m_connection.Send({.head = WriteResponse(answer, m_connection.GetFault(), m_service.fault.Number()),
                     .body = std::move(data),
                     .outcome = std::move(outcome),
                     .isLast = m_isLast});
}

}  // namespace sorvex::configserver
