// The meaning of the configuration server's last answer, over either protocol.
#pragma once

#include <ServerConnection.h>

namespace sorvex::agent {

enum class ServerAnswer {
  Success,
  NoUpdate,         ///< there is nothing new
  UpdatesDisabled,  ///< by the server's administrator
  NotFound,         ///< not found (HTTPS)
  Failure,
};

/// Over HTTPS an operation succeeds with any HTTP status: the codes decide.
ServerAnswer LastAnswer(const ServerConnection& connection);

}  // namespace sorvex::agent
