#include "SourceText.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace sorvex::test {

namespace {

/// The meaning of the escape sequences in logged texts.
char Unescaped(char letter) {
  switch (letter) {
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    default: return letter;
  }
}

class Reader {
 public:
  explicit Reader(std::string_view source) : m_rest(source) {}

  SourceText Read() {
    while (!m_rest.empty()) ReadNext();
    return std::move(m_result);
  }

 private:
  void ReadNext() {
    if (m_rest.starts_with("//")) {
      Skip(m_rest.find('\n'));
    } else if (m_rest.starts_with("/*")) {
      Skip(m_rest.find("*/") + 2);
    } else if (m_rest.starts_with("R\"")) {
      const std::size_t begin = m_rest.find('(') + 1;
      const std::string last = ')' + std::string(m_rest.substr(2, begin - 3)) + '"';
      const std::size_t end = m_rest.find(last, begin);
      AddLiteral(std::string(m_rest.substr(begin, end - begin)));
      Skip(end + last.size());
    } else if (m_rest.front() == '"') {
      AddLiteral(TakeQuoted('"'));
    } else if (m_rest.front() == '\'' && !IsInsideOfNumber()) {
      m_result.code += '\'' + TakeQuoted('\'') + '\'';
    } else {
      m_result.code += m_rest.front();
      Skip(1);
    }
  }

  /// A digit separator does not start a character.
  bool IsInsideOfNumber() const {
    return !m_result.code.empty() && std::isxdigit(static_cast<unsigned char>(m_result.code.back())) != 0;
  }

  std::string TakeQuoted(char quote) {
    std::string text;
    std::size_t position = 1;
    for (; position < m_rest.size() && m_rest[position] != quote; ++position) {
      text += m_rest[position] == '\\' ? Unescaped(m_rest[++position]) : m_rest[position];
    }
    Skip(position + 1);
    return text;
  }

  void AddLiteral(const std::string& text) {
    std::string& code = m_result.code;
    const std::size_t last = code.find_last_not_of(" \n");
    if (last != std::string::npos && code[last] == '"') {
      m_result.literals.back() += text;
      code.resize(last + 1);
      return;
    }
    code += '"' + std::to_string(m_result.literals.size()) + '"';
    m_result.literals.push_back(text);
  }

  void Skip(std::size_t count) { m_rest.remove_prefix(std::min(count, m_rest.size())); }

  std::string_view m_rest;
  SourceText m_result;
};

}  // namespace

SourceText TakeApart(const std::string& source) { return Reader(source).Read(); }

std::string ReadWhole(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw std::runtime_error("cannot read " + file.string());
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::filesystem::path> SourcesBelow(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") files.push_back(entry.path());
  }
  return files;
}

}  // namespace sorvex::test
