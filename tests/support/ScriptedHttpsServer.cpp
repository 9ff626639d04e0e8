#include "ScriptedHttpsServer.h"

#include <algorithm>
#include <utility>

namespace sorvex::test {

std::string HttpAnswer(std::string_view body, std::string_view status) {
  std::string answer = "HTTP/1.1 ";
  answer += status;
  answer += "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  answer += body;
  return answer;
}

ScriptedHttpsServer::ScriptedHttpsServer(Script script, const TlsServerOptions& options)
    : m_script(std::move(script)),
      m_server(
          [this](LoopbackTlsServer&, TlsServerSession& session, int) {
            Serve(session);
            ++m_ended;
          },
          options) {}

ScriptedHttpsServer::ScriptedHttpsServer(std::vector<std::string> answers, const TlsServerOptions& options)
    : ScriptedHttpsServer(
          [answers = std::move(answers)](TlsServerSession& session, int index) {
            session.Write(answers[std::min(static_cast<std::size_t>(index), answers.size() - 1)]);
          },
          options) {}

std::vector<std::string> ScriptedHttpsServer::Requests() const {
  const std::lock_guard lock(m_mutex);
  return m_requests;
}

std::vector<std::string> ScriptedHttpsServer::RequestLines() const {
  std::vector<std::string> lines;
  for (const std::string& request : Requests()) lines.push_back(request.substr(0, request.find("\r\n")));
  return lines;
}

bool ScriptedHttpsServer::AllEnded() {
  return WaitUntil([this] { return m_ended == Handshakes(); });
}

void ScriptedHttpsServer::Serve(TlsServerSession& session) {
  for (;;) {
    std::string head;
    while (head.find("\r\n\r\n") == std::string::npos) {
      if (!session.ReadSome(head, 65536)) return;
    }
    int index = 0;
    {
      const std::lock_guard lock(m_mutex);
      index = static_cast<int>(m_requests.size());
      m_requests.push_back(head);
    }
    m_script(session, index);
  }
}

}  // namespace sorvex::test
