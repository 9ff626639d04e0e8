// The application token among the parameters.
#pragma once

#include "platform/SecretText.h"

#include <host/ParameterBlock.h>

namespace VaroCommunicationAPI {

constexpr const char* applicationTokenKey = "ApplicationToken";

/// Returns the token that look-ups find, empty when there is none.
Platform::SecretText ReadApplicationToken(const WindowsAgentCommon::ParameterBlock& parameters);

/// Empties and wipes every token in `parameters`, whose values are plain strings by the host's contract.
void WipeApplicationToken(WindowsAgentCommon::ParameterBlock& parameters);

}  // namespace VaroCommunicationAPI
