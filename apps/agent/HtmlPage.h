// Tells a web page from the data that the agent asked for.
#pragma once

#include <string_view>

namespace sorvex::agent {

/// Whether a text that begins so is an HTML page: its first element or its document type is "html", in any case. White
/// space, comments and declarations may precede that.
bool IsHtmlPage(std::string_view begin);

}  // namespace sorvex::agent
