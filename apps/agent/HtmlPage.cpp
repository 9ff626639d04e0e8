#include <HtmlPage.h>

#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <locale>

namespace sorvex::agent {
namespace {

constexpr std::string_view blanks = " \t\r\n\f";

/// Removes `start`, in any case of letters.
bool Skip(std::string_view& text, std::string_view start) {
  if (!boost::algorithm::istarts_with(text, start, std::locale::classic())) return false;
  text.remove_prefix(start.size());
  return true;
}

/// Removes what begins with `start`, up to the end of `end`.
bool Skip(std::string_view& text, std::string_view start, std::string_view end) {
  if (!Skip(text, start)) return false;
  const std::size_t position = text.find(end);
  text.remove_prefix(position == std::string_view::npos ? text.size() : position + end.size());
  return true;
}

}  // namespace

bool IsHtmlPage(std::string_view begin) {
  Skip(begin, "\xEF\xBB\xBF");
  do {
    begin.remove_prefix(std::min(begin.find_first_not_of(blanks), begin.size()));
  } while (Skip(begin, "<!--", "-->") || Skip(begin, "<?", "?>"));
  if (!Skip(begin, "<!doctype html") && !Skip(begin, "<html")) return false;
  // Otherwise the name continues.
  return begin.empty() || begin.front() == '>' || begin.front() == '/' || blanks.find(begin.front()) != blanks.npos;
}

}  // namespace sorvex::agent
