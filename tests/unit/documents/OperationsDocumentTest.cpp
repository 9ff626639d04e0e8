// docs/operations.md has every logged text and every result code, and no others.
#include "SourceText.h"

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/regex.hpp>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::test {
namespace {

const std::filesystem::path root = SORVEX_SOURCE_ROOT;

using Cells = std::vector<std::string>;

/// The cells of a table's line: "| a | b |".
Cells CellsOf(const std::string& line) {
  Cells cells;
  std::size_t begin = 1;
  for (std::size_t end = 0; (end = line.find('|', begin)) != std::string::npos; begin = end + 1) {
    if (line[end - 1] == '\\') continue;
    cells.push_back(boost::algorithm::trim_copy(line.substr(begin, end - begin)));
  }
  return cells;
}

/// The rows of the document's tables whose head begins with these cells; below `heading`, or anywhere when it is empty.
std::vector<Cells> Rows(const Cells& head, const std::string& heading = {}) {
  std::istringstream document(ReadWhole(root / "docs" / "operations.md"));
  std::vector<Cells> rows;
  bool bHeading = heading.empty();
  bool bTable = false;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("#") && !heading.empty()) bHeading = line == heading;
    if (!line.starts_with("|")) {
      bTable = false;
      continue;
    }
    const Cells cells = CellsOf(line);
    if (bTable) {
      if (!cells.front().starts_with("---")) rows.push_back(cells);
    } else {
      bTable = bHeading && cells.size() >= head.size() && std::equal(head.begin(), head.end(), cells.begin());
    }
  }
  return rows;
}

struct LogText {
  std::string level;  ///< empty in the document where another message quotes the text
  std::string text;

  auto operator<=>(const LogText&) const = default;
};

std::ostream& operator<<(std::ostream& out, const LogText& text) { return out << text.level << ": " << text.text; }

using LogTexts = std::set<LogText>;

/// Whether it has a word apart from the placeholders.
bool HasWords(const std::string& text) {
  return boost::regex_search(boost::regex_replace(text, boost::regex("%[a-z]+"), ""), boost::regex("[A-Za-z]{2}"));
}

/// The texts in the tables of messages. A cell may hold several, separated by " / ".
LogTexts Documented() {
  LogTexts texts;
  for (const Cells& cells : Rows({"level", "text"})) {
    std::string cell = cells.at(1);
    if (cell.starts_with("*")) continue;  // about messages that stand elsewhere
    boost::algorithm::replace_all(cell, "<br>", "\n");
    for (std::size_t begin = 0; begin != std::string::npos;) {
      const std::size_t end = cell.find(" / ", begin);
      texts.insert({cells.front(), cell.substr(begin, end == std::string::npos ? end : end - begin)});
      begin = end == std::string::npos ? end : end + 3;
    }
  }
  return texts;
}

/// The texts that the sources log.
struct Logged {
  LogTexts texts;                     ///< given as literals to operations of loggers
  std::set<std::string> expressions;  ///< what else is given to them, or text without a word
  std::set<std::string> literals;     ///< all that there are
};

Logged FindLogged() {
  static const boost::regex call(
      R"re((?:\w*[lL]og\w*(?:\(\))?(?:\.|->)|\)\s*\.)(Debug|Info|Warn|Error|Fatal)\(\s*(?:"(\d+)"|([\w.]+)))re");
  Logged logged;
  for (const char* const folder : {"src", "host", "apps"}) {
    for (const std::filesystem::path& file : SourcesBelow(root / folder)) {
      const SourceText source = TakeApart(ReadWhole(file));
      logged.literals.insert(source.literals.begin(), source.literals.end());
      for (boost::sregex_iterator match(source.code.begin(), source.code.end(), call), end; match != end; ++match) {
        const bool bLiteral = (*match)[2].matched;
        const std::string given = bLiteral ? source.literals.at(std::stoul((*match)[2])) : (*match)[3].str();
        if (bLiteral && HasWords(given)) {
          logged.texts.insert({(*match)[1], given});
        } else {
          logged.expressions.insert(given);
        }
      }
    }
  }
  return logged;
}

/// What reaches a logger other than as a literal: how the texts defined elsewhere begin.
const struct {
  const char* expression;
  std::vector<std::string> beginnings;
} indirect[] = {
    {"%s", {"The configuration server has "}},  // and statistics, and what the inputs log (below)
    {"m_transport.m_keepAliveWarning", {"Failed to set keepalive options "}},
    {"m_traits.m_timeoutError", {"Error receiving data: Timeout of "}},
    {"m_traits.m_truncationReport", {"Truncating payload from "}},
    {"format", {"The certificate for server (%s) is "}},
    {"texts.m_sending", {"Sending "}},
    {"texts.m_sent", {"Sent "}},
    {"texts.m_receiving", {"Receiving "}},
};

class OperationsDocument : public testing::Test {
 protected:
  const LogTexts m_documented = Documented();
  const Logged m_logged = FindLogged();
};

TEST_F(OperationsDocument, HasEveryTextThatIsLogged) {
  ASSERT_GT(m_logged.texts.size(), 50U);
  for (const LogText& text : m_logged.texts) EXPECT_TRUE(m_documented.contains(text)) << text;
}

TEST_F(OperationsDocument, HasEveryTextThatReachesALoggerIndirectly) {
  std::set<std::string> known;
  std::set<std::string> documented;
  for (const LogText& text : m_documented) documented.insert(text.text);
  for (const auto& [expression, beginnings] : indirect) {
    known.insert(expression);
    for (const std::string& beginning : beginnings) {
      const auto begins = [&](const std::string& literal) { return literal.starts_with(beginning); };
      EXPECT_TRUE(std::ranges::any_of(m_logged.literals, begins)) << beginning;
      for (const std::string& literal : m_logged.literals) {
        EXPECT_TRUE(!begins(literal) || documented.contains(literal)) << literal;
      }
    }
  }
  EXPECT_EQ(m_logged.expressions, known);
}

TEST_F(OperationsDocument, HasNoTextThatTheSourcesHaveNot) {
  ASSERT_GT(m_documented.size(), 50U);
  for (const LogText& text : m_documented) EXPECT_TRUE(m_logged.literals.contains(text.text)) << text;
}

TEST_F(OperationsDocument, HasEachTextAtItsLevels) {
  std::set<std::string> given;
  for (const LogText& text : m_logged.texts) given.insert(text.text);
  for (const LogText& text : m_documented) {
    EXPECT_TRUE(!given.contains(text.text) || m_logged.texts.contains(text)) << text;
  }
}

/// The parts of the sources' texts of which inputs make what they log.
std::set<std::string> PartsOfInputTexts() {
  std::set<std::string> parts;
  for (const char* const source : {"Follower.cpp", "PositionsFile.cpp", "StandardInputSource.cpp"}) {
    for (const std::string& literal : TakeApart(ReadWhole(root / "apps" / "collect" / source)).literals) {
      const std::string part = boost::algorithm::trim_copy_if(literal, boost::algorithm::is_any_of(" :;("));
      // AgentConfig.xml cannot name an input without a file.
      if (part.find(' ') != std::string::npos && part != "an input names no file") parts.insert(part);
    }
  }
  return parts;
}

std::vector<std::string> DocumentedInputTexts() {
  std::vector<std::string> texts;
  for (const Cells& cells : Rows({"text of an input"})) texts.push_back(cells.front());
  return texts;
}

TEST(OperationsDocumentInputs, HaveEveryTextThatIsLogged) {
  const std::vector<std::string> texts = DocumentedInputTexts();
  const std::set<std::string> parts = PartsOfInputTexts();
  ASSERT_GT(parts.size(), 10U);
  for (const std::string& part : parts) EXPECT_THAT(texts, testing::Contains(testing::HasSubstr(part)));
}

TEST(OperationsDocumentInputs, HaveNoTextThatTheSourcesHaveNot) {
  const std::vector<std::string> texts = DocumentedInputTexts();
  const std::set<std::string> parts = PartsOfInputTexts();
  ASSERT_GT(texts.size(), 5U);
  for (const std::string& text : texts) {
    EXPECT_TRUE(std::ranges::any_of(parts, [&](const std::string& part) { return text.find(part) != text.npos; }))
        << text;
  }
}

/// The values of the constants in a source that match `pattern`.
std::set<std::uint32_t> NumbersIn(const std::filesystem::path& file, const char* pattern) {
  const std::string code = TakeApart(ReadWhole(file)).code;
  const boost::regex number(pattern);
  std::set<std::uint32_t> numbers;
  for (boost::sregex_iterator match(code.begin(), code.end(), number), end; match != end; ++match) {
    numbers.insert(static_cast<std::uint32_t>(std::stoul((*match)[1], nullptr, 0)));
  }
  return numbers;
}

TEST(OperationsDocumentCodes, OfTheConfigurationServerAreThoseOfTheSources) {
  std::set<std::uint32_t> codes;
  for (const Cells& cells : Rows({"code", "unsigned, negative", "text"})) {
    if (cells.front() == "any other") {
      EXPECT_EQ(cells.at(2), SSLConfigServerProto::ResultText(0xFFFFFFFF));
      continue;
    }
    const auto code = static_cast<std::uint32_t>(std::stoul(cells.front(), nullptr, 0));
    EXPECT_EQ(cells.at(2), SSLConfigServerProto::ResultText(code)) << cells.front();
    const std::string shown = std::to_string(code) + ", " + std::to_string(static_cast<std::int32_t>(code));
    EXPECT_EQ(cells.at(1), code < 0x80000000 ? "" : shown) << cells.front();
    codes.insert(code);
  }
  EXPECT_EQ(codes,
            NumbersIn(root / "src" / "wire" / "SSLConfigServerProtocolDefinition.cpp", R"(case (\w+):\s*return ")"));
}

TEST(OperationsDocumentCodes, OfSocketsAreThoseOfTheSources) {
  std::set<std::uint32_t> codes;
  for (const Cells& cells : Rows({"code", "meaning"}, "## Result codes of sockets")) {
    std::istringstream numbers(cells.front());
    for (std::string number; numbers >> number && number != "and";) {
      codes.insert(static_cast<std::uint32_t>(std::stoul(number)));
    }
  }
  auto own = NumbersIn(root / "src" / "platform" / "SocketErrors.h", R"(\bError\w+\{(\d+)\})");
  ASSERT_GT(own.size(), 10U);
  own.insert(0);
  // Those that only the system reports.
  auto all = NumbersIn(root / "src" / "platform" / "posix" / "SocketErrors.cpp", R"(, SocketError\((\d+)\)\})");
  all.insert(own.begin(), own.end());
  all.insert(167772160);  // the first of the TLS library's
  EXPECT_THAT(own, testing::IsSubsetOf(codes));
  EXPECT_THAT(codes, testing::IsSubsetOf(all));
}

}  // namespace
}  // namespace sorvex::test
