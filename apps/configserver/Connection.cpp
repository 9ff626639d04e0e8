#include <Connection.h>

#include <Log.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>

#include <openssl/crypto.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace sorvex::configserver {
namespace {

using boost::system::error_code;
using namespace std::chrono_literals;

constexpr std::size_t blockBytes = 65536;
constexpr auto farewellTime = 2s;
constexpr const char* unknownExchange = "request";

}  // namespace

Connection::Connection(boost::asio::ip::tcp::socket socket, Service& service)
    : m_service(service),
      m_stream(std::move(socket), service.tls),
      m_deadline(m_stream.get_executor()),
      m_pause(m_stream.get_executor()) {
  ++m_service.connections;
  error_code error;
  const auto peer = m_stream.next_layer().remote_endpoint(error);
  m_peer = error ? "?" : peer.address().to_string() + ":" + std::to_string(peer.port());
  // Answers go out in several writes; none of them waits for an acknowledgement of the previous one.
  m_stream.next_layer().set_option(boost::asio::ip::tcp::no_delay(true), error);
}

Connection::~Connection() {
  --m_service.connections;
  if (m_agent) --m_service.agents;
  OPENSSL_cleanse(m_input.data(), m_input.size());
}

void Connection::Start(std::unique_ptr<Conversation> conversation) {
  m_pConversation = std::move(conversation);
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
    // A wait that had ended when it was postponed arrives here without an error.
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
    // For the whole request: single bytes do not extend it.
    ExpectWithin(m_service.requestTimeout, "the rest of a request");
  }
  m_exchangeName = unknownExchange;
  m_fault = Fault::Kind::None;
  const std::size_t size = m_pConversation->HandleInput(m_input);
  if (size == 0) return ReadMore();
  OPENSSL_cleanse(m_input.data(), size);
  m_input.erase(0, size);
  m_isRequestBegun = false;
}

bool Connection::Begin(Exchange exchange, Protocol protocol) {
  m_exchangeName = NameOf(exchange);
  m_fault = m_service.fault.TakeAnswer(exchange, protocol);
  if (m_fault != Fault::Kind::CloseAfterRequest) return true;
  LogExchange("closed instead of an answer");
  Close();
  return false;
}

bool Connection::Admit(const AgentName& agent) {
  if (!m_agent) {
    if (m_service.agents >= m_service.maxAgents) return false;
    ++m_service.agents;
  }
  m_agent = agent;
  return true;
}

void Connection::AfterDigest(std::shared_ptr<ServedFile> file, std::function<void(bool isThere)> next) {
  bool isThere = false;
  try {
    isThere = file->ComputeDigest();
  } catch (const std::exception& error) {
    Log(std::string("failed: ") + error.what());
    return next(false);
  }
  if (isThere) return next(true);
  boost::asio::post(m_stream.get_executor(), [self = shared_from_this(), file = std::move(file),
                                              next = std::move(next)] { self->AfterDigest(file, next); });
}

void Connection::Send(Outgoing answer) {
  m_answer = std::move(answer);
  m_output = std::move(m_answer.head);
  m_written = 0;
  m_total = 0;
  m_deadline.cancel();
  if (m_fault != Fault::Kind::Late) return WriteMore();
  m_pause.expires_after(std::chrono::seconds(m_service.fault.Number()));
  m_pause.async_wait([self = shared_from_this()](const error_code& error) {
    if (!error) self->WriteMore();
  });
}

void Connection::WriteMore() {
  if (m_written == m_output.size()) {
    try {
      if (m_fault == Fault::Kind::EndlessBody) {
        m_output.assign(blockBytes, 'x');
        m_written = 0;
      } else if (m_answer.body) {
        m_output.resize(blockBytes);
        m_output.resize(m_answer.body->Read(m_output.data(), m_output.size()));
        m_written = 0;
      }
    } catch (const std::exception& error) {
      LogExchange(std::string("cut off: ") + error.what());
      return Close();
    }
  }
  if (m_written == m_output.size()) return FinishExchange();

  std::uint64_t size = m_output.size() - m_written;
  if (m_fault == Fault::Kind::ByteByByte) size = 1;
  const bool isStalled = m_fault == Fault::Kind::Stall;
  if (isStalled || m_fault == Fault::Kind::Cut) size = std::min(size, m_service.fault.Number() - m_total);
  if (size == 0) {
    LogExchange((isStalled ? "stalled after " : "cut after ") + std::to_string(m_total) + " bytes");
    if (!isStalled) return Close();
    m_deadline.cancel();
    return DiscardInput();
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
  LogExchange(m_answer.outcome);
  const bool isLast = m_answer.isLast;
  m_answer = {};
  m_output = std::string();
  if (isLast) return EndAfterAnswer();
  ExpectWithin(m_service.idleTimeout, "request");
  HandleInput();
}

void Connection::EndAfterAnswer() {
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

void Connection::LogExchange(const std::string& outcome) const { Log(std::string(m_exchangeName) + ": " + outcome); }

}  // namespace sorvex::configserver
