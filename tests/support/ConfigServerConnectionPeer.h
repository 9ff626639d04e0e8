// What tests may do with an HTTPS connection beyond its operations.
#pragma once

#include "connection/ConfigServerConnection.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <string_view>

namespace VaroCommunicationAPI {

struct ConfigServerConnectionPeer {
  static const std::map<std::string, std::string>& Headers(const ConfigServerConnection& connection) {
    return connection.m_responseHeaders.All();
  }

  static std::uint16_t Port(const ConfigServerConnection& connection) { return connection.m_port; }

  static std::string_view Token(const ConfigServerConnection& connection) {
    return connection.m_applicationToken.View();
  }

  static std::size_t OnResponseHeader(ConfigServerConnection& connection, std::string_view line, std::size_t size) {
    std::string bytes(line);
    return ConfigServerConnection::OnResponseHeader(bytes.data(), size, line.size() / size, &connection);
  }

  static std::size_t OnResponseBody(ConfigServerConnection& connection, std::string_view data, std::ostream* stream,
                                    std::size_t size) {
    connection.m_pResponseStream = stream;
    std::string bytes(data);
    const std::size_t taken =
        ConfigServerConnection::OnResponseBody(bytes.data(), size, data.size() / size, &connection);
    connection.m_pResponseStream = nullptr;
    return taken;
  }

  static bool RunCommand(ConfigServerConnection& connection, std::uint32_t command, const std::string& extra,
                         std::ostream* body) {
    return connection.RunCommand(static_cast<ConfigServerConnection::CommandId>(command), extra, body);
  }
};

}  // namespace VaroCommunicationAPI
