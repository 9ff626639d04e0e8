// Telling a page for people from what the agent has asked for.
#pragma once

#include <string_view>

namespace sorvex::agent {

/// Whether a text that begins so is an HTML page: its first element is "html", or its document type says so, in any
/// case. White space, comments and declarations may precede that.
bool IsHtmlPage(std::string_view begin);

}  // namespace sorvex::agent
