// What the configuration server's last answer means, whichever connection it came over.
#pragma once

#include <ServerConnection.h>

namespace sorvex::agent {

enum class ServerAnswer {
  Success,
  NoUpdate,         ///< there is nothing new
  UpdatesDisabled,  ///< by the server's administrator
  NotFound,         ///< there is no such thing (HTTPS)
  Failure,
};

/// Over HTTPS an operation succeeds whatever the status of the answer is: the codes decide.
ServerAnswer LastAnswer(const ServerConnection& connection);

}  // namespace sorvex::agent
