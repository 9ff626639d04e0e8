#include <Connection.h>

#include <Log.h>
#include <Text.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

namespace sorvex::configserver {
namespace {

using boost::system::error_code;
using namespace std::chrono_literals;

constexpr std::size_t blockBytes = 65536;
constexpr auto farewellTime = 2s;

const char* NameOf(Exchange exchange) {
  switch (exchange) {
    case Exchange::Establishment1:
    case Exchange::Establishment2: return "connect";
    case Exchange::Registration: return "register";
    case Exchange::Status: return "status";
    case Exchange::Configuration: return "configuration";
    case Exchange::Patch: return "patch";
  }
  return "unknown";
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

}  // namespace

Connection::Connection(boost::asio::ip::tcp::socket socket, Service& service)
    : m_service(service),
      m_stream(std::move(socket), service.tls),
      m_deadline(m_stream.get_executor()),
      m_pause(m_stream.get_executor()) {
  error_code error;
  const auto peer = m_stream.next_layer().remote_endpoint(error);
  m_peer = error ? "?" : peer.address().to_string() + ":" + std::to_string(peer.port());
  // Responses go out in several writes; none of them waits for the one before to be acknowledged.
  m_stream.next_layer().set_option(boost::asio::ip::tcp::no_delay(true), error);
}

Connection::~Connection() {
  if (m_agent) --m_service.agents;
  OPENSSL_cleanse(m_input.data(), m_input.size());
}

void Connection::Start() {
  if (m_service.fault.TakeHandshake()) {
    Log("gets no handshake");
    return DiscardInput();
  }
  ExpectWithin(m_service.requestTimeout, "handshake");
  m_stream.async_handshake(boost::asio::ssl::stream_base::server, [self = shared_from_this()](const error_code& error) {
    if (error) {
      self->Log("handshake failed: " + error.message());
      return self->Close();
    }
    self->ExpectWithin(self->m_service.idleTimeout, "request");
    self->ReadMore();
  });
}

void Connection::ExpectWithin(std::chrono::steady_clock::duration time, const char* what) {
  m_awaited = what;
  m_deadline.expires_after(time);
  m_deadline.async_wait([weak = weak_from_this()](const error_code& error) {
    const std::shared_ptr<Connection> self = weak.lock();
    // A wait that had ended when it was put off comes here without an error.
    if (error || !self || self->m_deadline.expiry() > std::chrono::steady_clock::now()) return;
    self->Log(std::string("ended: waited too long for ") + self->m_awaited);
    self->Close();
  });
}

void Connection::ReadMore() {
  m_stream.async_read_some(boost::asio::buffer(m_readBuffer),
                           [self = shared_from_this()](const error_code& error, std::size_t count) {
                             if (error) {
                               if (!self->m_input.empty()) self->Log("ended inside a request");
                               return self->Close();
                             }
                             self->m_input.append(self->m_readBuffer.data(), count);
                             OPENSSL_cleanse(self->m_readBuffer.data(), count);
                             self->HandleInput();
                           });
}

void Connection::HandleInput() {
  if (!m_input.empty() && !m_isRequestBegun) {
    m_isRequestBegun = true;
    // For the whole request: bytes that come one by one do not put it off.
    ExpectWithin(m_service.requestTimeout, "the rest of a request");
  }
  Request request;
  const ReadResult read = ReadRequest(m_input, request);
  switch (read.state) {
    case ReadState::NeedsMore: return ReadMore();
    case ReadState::TooLong: {
      Log("ended: a length in a request of type " + std::to_string(request.type) + " is above its bound");
      return Close();
    }
    case ReadState::UnknownType: {
      m_outcome = "type " + std::to_string(request.type) + ": " + TextOf(Result::UnknownType);
      m_isLast = true;
      return SendBytes(WriteUnknownTypeResponse(request.type, m_version), nullptr);
    }
    case ReadState::Complete: break;
  }
  OPENSSL_cleanse(m_input.data(), read.size);
  m_input.erase(0, read.size);
  m_isRequestBegun = false;
  Handle(request);
}

void Connection::Handle(const Request& request) {
  m_exchange = Exchange{request.type};
  m_fault = m_service.fault.TakeAnswer(m_exchange);
  if (m_fault == Fault::Kind::CloseAfterRequest) {
    LogExchange("closed instead of an answer");
    return Close();
  }
  if (!m_agent && !std::holds_alternative<Establishment>(request.content)) {
    if (request.recordVersion == VersionText(WireVersion::V1)) m_version = WireVersion::V1;
    m_isLast = true;
    return Respond(Result::Refused);
  }
  try {
    std::visit([this](const auto& content) { HandleContent(content); }, request.content);
  } catch (const std::exception& error) {
    Log(std::string("failed: ") + error.what());
    Respond(Result::TooBusy);
  }
}

void Connection::HandleContent(const Establishment& establishment) {
  const bool isBelow2 = m_service.wireVersion == WireVersion::V1 || m_fault == Fault::Kind::Speaks1 ||
                        m_fault == Fault::Kind::Speaks1TypeOnly;
  if (establishment.version == WireVersion::V2 && isBelow2) {
    // An agent of 2.0 reads the type alone and goes on with 1.0 on the same connection.
    m_outcome = "2.0: this server speaks 1.0";
    m_exchange = Exchange::Establishment1;
    m_version = WireVersion::V1;
    std::string bytes = WriteResponse({.exchange = m_exchange, .version = m_version}, Fault::Kind::None, 0);
    if (m_fault != Fault::Kind::Speaks1) bytes.resize(4);
    return SendBytes(std::move(bytes), nullptr);
  }
  m_version = establishment.version;
  const Result result = Admit(establishment);
  m_isLast = IsFailure(result);
  Respond(result);
}

Result Connection::Admit(const Establishment& establishment) {
  const std::optional<AgentName> agent = m_service.folder.FindAgent(establishment.identifier);
  if (!agent || !m_service.folder.AcceptsToken(establishment.token)) return Result::Refused;
  if (!m_agent && m_service.agents >= m_service.maxAgents) return Result::TooBusy;
  const std::string& key = establishment.publicKey;
  if (!key.empty() && !establishment.isDiagnostic) {
    if (AreSameDigest(establishment.publicKeyDigest, DigestOf(key))) {
      m_service.folder.StoreKey(*agent, key);
    } else {
      Log("its key is not kept: the digest does not match");
    }
  }
  if (!m_agent) ++m_service.agents;
  m_agent = agent;
  return Result::Success;
}

void Connection::HandleContent(const Registration& registration) {
  const bool isNew =
      m_service.folder.Register(*m_agent, registration.osVersion, registration.agentVersion, registration.autoCreation);
  Respond(isNew ? Result::NewAgent : Result::KnownAgent);
}

void Connection::HandleContent(const StatusReport& report) {
  m_service.folder.StoreStatus(*m_agent, report.status, report.seconds);
  Respond(Result::Success);
}

void Connection::HandleContent(const ConfigurationQuery& query) {
  if (m_service.folder.AreUpdatesDisabled(*m_agent)) return Respond(Result::UpdatesDisabled);
  m_query = query.digest;
  std::shared_ptr<ServedFile> file = m_service.folder.OpenConfiguration(*m_agent);
  if (!file) return Respond(Result::NoUpdate);
  AfterDigest(std::move(file), &Connection::SendConfiguration);
}

void Connection::HandleContent(const PatchQuery& query) {
  if (m_service.folder.AreUpdatesDisabled(*m_agent)) return Respond(Result::UpdatesDisabled);
  m_query.clear();
  std::shared_ptr<ServedFile> file = m_service.folder.OpenPatch(query.names, m_query);
  // An empty patch is none, as an empty configuration is.
  if (!file || file->Size() == 0) {
    m_query = query.names.substr(0, 200);
    return Respond(Result::NoUpdate);
  }
  if (m_version == WireVersion::V1) return SendPatch(std::move(file));
  AfterDigest(std::move(file), &Connection::SendPatch);
}

void Connection::AfterDigest(std::shared_ptr<ServedFile> file,
                             void (Connection::*next)(std::shared_ptr<ServedFile> file)) {
  try {
    if (file->ComputeDigest()) return (this->*next)(std::move(file));
  } catch (const std::exception& error) {
    Log(std::string("failed: ") + error.what());
    return Respond(Result::TooBusy);
  }
  boost::asio::post(m_stream.get_executor(),
                    [self = shared_from_this(), file = std::move(file), next] { self->AfterDigest(file, next); });
}

void Connection::SendConfiguration(std::shared_ptr<ServedFile> file) {
  // An empty configuration is none: an agent could not tell it from no answer.
  const bool isNeeded = file->Size() > 0 && !AreSameDigest(file->GetDigest(), m_query);
  if (isNeeded) return Respond(Result::Success, std::move(file));
  Respond(Result::NoUpdate);
}

void Connection::SendPatch(std::shared_ptr<ServedFile> file) { Respond(Result::Success, std::move(file)); }

void Connection::Respond(Result result, std::shared_ptr<ServedFile> data) {
  std::array<char, 16> code{};
  std::snprintf(code.data(), code.size(), "%u", static_cast<unsigned>(result) & 0x7FFFFFFF);
  m_outcome = (IsFailure(result) ? "failure " : "") + std::string(code.data()) + " " + TextOf(result);
  if (m_exchange == Exchange::Patch && !m_query.empty()) m_outcome += ", " + m_query;
  if (data) m_outcome += ", " + std::to_string(data->Size()) + " bytes";

  Answer answer{.exchange = m_exchange, .version = m_version, .result = result};
  if (!IsFailure(result)) answer.serverKey = m_service.serverKey;
  if (data) {
    answer.dataSize = data->Size();
    answer.dataDigest = data->GetDigest();
  }
  SendBytes(WriteResponse(answer, m_fault, m_service.fault.Number()), std::move(data));
}

void Connection::SendBytes(std::string head, std::shared_ptr<ServedFile> data) {
  m_output = std::move(head);
  m_written = 0;
  m_total = 0;
  m_pData = std::move(data);
  m_deadline.cancel();
  if (m_fault != Fault::Kind::Late) return WriteMore();
  m_pause.expires_after(std::chrono::seconds(m_service.fault.Number()));
  m_pause.async_wait([self = shared_from_this()](const error_code& error) {
    if (!error) self->WriteMore();
  });
}

void Connection::WriteMore() {
  if (m_written == m_output.size() && m_pData) {
    try {
      m_output.resize(blockBytes);
      m_output.resize(m_pData->Read(m_output.data(), m_output.size()));
    } catch (const std::exception& error) {
      LogExchange(std::string("cut off: ") + error.what());
      return Close();
    }
    m_written = 0;
  }
  if (m_written == m_output.size()) return FinishExchange();

  std::uint64_t size = m_output.size() - m_written;
  if (m_fault == Fault::Kind::ByteByByte) size = 1;
  if (m_fault == Fault::Kind::Cut) size = std::min(size, m_service.fault.Number() - m_total);
  if (size == 0) {
    LogExchange("cut after " + std::to_string(m_total) + " bytes");
    return Close();
  }
  ExpectWithin(m_service.idleTimeout, "the agent to take the response");
  m_stream.async_write_some(
      boost::asio::buffer(m_output.data() + m_written, static_cast<std::size_t>(size)),
      [self = shared_from_this()](const error_code& error, std::size_t count) {
        if (error) {
          self->LogExchange("not delivered after " + std::to_string(self->m_total) + " bytes: " + error.message());
          return self->Close();
        }
        self->m_written += count;
        self->m_total += count;
        if (self->m_fault != Fault::Kind::ByteByByte || self->m_service.fault.Number() == 0) return self->WriteMore();
        self->m_pause.expires_after(std::chrono::milliseconds(self->m_service.fault.Number()));
        self->m_pause.async_wait([self](const error_code& waitError) {
          if (!waitError) self->WriteMore();
        });
      });
}

void Connection::FinishExchange() {
  LogExchange(m_outcome);
  m_pData = nullptr;
  m_output = std::string();
  m_query.clear();
  if (m_isLast) return EndAfterResponse();
  ExpectWithin(m_service.idleTimeout, "request");
  HandleInput();
}

void Connection::EndAfterResponse() {
  ExpectWithin(farewellTime, "the agent's farewell");
  m_stream.async_shutdown([self = shared_from_this()](const error_code&) {
    error_code ignored;
    self->m_stream.next_layer().shutdown(boost::asio::ip::tcp::socket::shutdown_send, ignored);
    self->DiscardInput();
  });
}

void Connection::DiscardInput() {
  m_stream.next_layer().async_read_some(boost::asio::buffer(m_readBuffer),
                                        [self = shared_from_this()](const error_code& error, std::size_t) {
                                          if (error) return self->Close();
                                          self->DiscardInput();
                                        });
}

void Connection::Close() {
  m_deadline.cancel();
  m_pause.cancel();
  error_code ignored;
  m_stream.next_layer().close(ignored);
}

void Connection::Log(const std::string& text) const {
  WriteLog(m_peer + " " + (m_agent ? m_agent->Text() : "-") + " " + text);
}

void Connection::LogExchange(const std::string& outcome) const {
  Log(std::string(NameOf(m_exchange)) + ": " + outcome);
}

}  // namespace sorvex::configserver
