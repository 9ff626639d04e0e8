#include "LoopbackServer.h"
#include "SinkReceiver.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

namespace sorvex::bench {
namespace {

// Larger than what arrives at a time, so that one system call reads everything there is.
constexpr std::size_t bufferSize = 1024 * 1024;

std::size_t CountLines(const char* data, std::size_t count) {
  return static_cast<std::size_t>(std::count(data, data + count, '\n'));
}

class TcpReceiver : public SinkReceiver {
 public:
  TcpReceiver() : m_listener(BindLoopback(SOCK_STREAM, m_port)) {
    if (listen(m_listener, 16) != 0) ThrowSystemError("listen");
  }
  std::uint16_t Port() const override { return m_port; }

  void CountAll(std::uint64_t wanted, Counts& counts) override {
    // Connections stay open: a daemon would take a close for a lost connection.
    std::vector<pollfd> watched{{m_listener, POLLIN, 0}};
    while (counts.events < wanted) {
      const int ready = poll(watched.data(), watched.size(), longestSilenceSeconds * 1000);
      if (ready < 0) ThrowSystemError("poll");
      if (ready == 0) ThrowSilence(counts.events, wanted);
      for (std::size_t i = watched.size() - 1; i > 0; --i) {
        if (watched[i].revents != 0 && !Count(watched[i].fd, counts)) watched[i].fd = -1;
      }
      if (watched[0].revents != 0) {
        const int connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) ThrowSystemError("accept");
        if (Begin(connection, counts)) watched.push_back({connection, POLLIN, 0});
      }
    }
  }

 protected:
  /// Prepares a new connection; returns false if nothing can be expected from it.
  virtual bool Begin(int, Counts&) { return true; }

  /// Reads what one connection has now; returns false at its end.
  virtual bool Count(int connection, Counts& counts) {
    const ssize_t count = read(connection, m_buffer.data(), m_buffer.size());
    if (count < 0) ThrowSystemError("read");
    if (count == 0) return false;
    Take(static_cast<std::size_t>(count), counts);
    return true;
  }

  void Take(std::size_t count, Counts& counts) { counts.Add(count, CountLines(m_buffer.data(), count)); }

  std::vector<char> m_buffer = std::vector<char>(bufferSize);

 private:
  std::uint16_t m_port = 0;
  int m_listener;
};

class TlsReceiver : public TcpReceiver {
 public:
  TlsReceiver() : m_identity("sink"), m_context(MakeServerContext(m_identity)) {
    SSL_CTX* const context = m_context.get();
    SSL_CTX_set_read_ahead(context, 1);
    SSL_CTX_set_default_read_buffer_len(context, bufferSize);
    SSL_CTX_set_msg_callback(context, &CountRecord);
  }

 protected:
  bool Begin(int connection, Counts& counts) override {
    Session session(SSL_new(m_context.get()), &SSL_free);
    SSL_set_fd(session.get(), connection);
    if (SSL_accept(session.get()) != 1) {
      ERR_print_errors_fp(stderr);
      return false;
    }
    counts.cipher = SSL_CIPHER_get_name(SSL_get_current_cipher(session.get()));
    if (fcntl(connection, F_SETFL, O_NONBLOCK) != 0) ThrowSystemError("fcntl");
    SSL_set_msg_callback_arg(session.get(), &counts);
    m_sessions[connection] = std::move(session);
    return true;
  }

  bool Count(int connection, Counts& counts) override {
    SSL* const session = m_sessions[connection].get();
    // The next poll does not see what was read ahead: it has to be read now.
    for (;;) {
      std::size_t count = 0;
      const int result = SSL_read_ex(session, m_buffer.data(), m_buffer.size(), &count);
      if (result != 1) return SSL_get_error(session, result) == SSL_ERROR_WANT_READ;
      Take(count, counts);
    }
  }

 private:
  using Session = std::shared_ptr<SSL>;

  /// The library passes each record's header, the type first.
  static void CountRecord(int isWritten, int, int contentType, const void* data, std::size_t length, SSL*,
                          void* counts) {
    if (!counts || isWritten != 0 || contentType != SSL3_RT_HEADER || length == 0) return;
    if (*static_cast<const unsigned char*>(data) == SSL3_RT_APPLICATION_DATA) ++static_cast<Counts*>(counts)->records;
  }

  test::TlsIdentity m_identity;
  std::shared_ptr<SSL_CTX> m_context;
  std::map<int, Session> m_sessions;  ///< by descriptor
};

}  // namespace

std::unique_ptr<SinkReceiver> MakeTcpReceiver() { return std::make_unique<TcpReceiver>(); }

std::unique_ptr<SinkReceiver> MakeTlsReceiver() { return std::make_unique<TlsReceiver>(); }

}  // namespace sorvex::bench
