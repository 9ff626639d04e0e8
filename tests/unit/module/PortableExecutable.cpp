#include "PortableExecutable.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <type_traits>

namespace sorvex::test {

namespace {

struct Section {
  std::uint32_t address;
  std::uint32_t size;
  std::uint32_t fileOffset;
};

/// The bytes of a file with its sections.
class Image {
 public:
  explicit Image(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    m_bytes.assign(std::istreambuf_iterator<char>(file), {});
  }

  template <class Number>
  Number At(std::size_t offset) const {
    static_assert(std::is_unsigned_v<Number>);
    if (offset + sizeof(Number) > m_bytes.size()) throw std::runtime_error("file too short");
    Number number = 0;
    std::memcpy(&number, m_bytes.data() + offset, sizeof number);
    return number;
  }

  void AddSection(const Section& section) { m_sections.push_back(section); }

  /// The position in the file of the byte that is loaded at `address`.
  std::size_t OffsetOf(std::uint32_t address) const {
    for (const Section& section : m_sections) {
      if (address >= section.address && address - section.address < section.size) {
        return section.fileOffset + (address - section.address);
      }
    }
    throw std::runtime_error("address in no section");
  }

  std::string TextAt(std::uint32_t address) const {
    std::string text;
    for (std::size_t offset = OffsetOf(address);; ++offset) {
      const char character = static_cast<char>(At<std::uint8_t>(offset));
      if (character == '\0') return text;
      text += character;
    }
  }

 private:
  std::vector<char> m_bytes;
  std::vector<Section> m_sections;
};

/// Names of libraries from a table of entries of `entrySize` bytes whose last is zero.
void ReadLibraries(const Image& image, std::uint32_t table, std::size_t entrySize, std::size_t nameOffset,
                   std::vector<std::string>& names) {
  if (table == 0) return;
  for (std::size_t entry = image.OffsetOf(table);; entry += entrySize) {
    const auto name = image.At<std::uint32_t>(entry + nameOffset);
    if (name == 0) return;
    names.push_back(image.TextAt(name));
  }
}

}  // namespace

PortableExecutable::PortableExecutable(const std::filesystem::path& path) {
  Image image(path);
  const std::size_t header = image.At<std::uint32_t>(0x3C);
  if (image.At<std::uint16_t>(0) != 0x5A4D || image.At<std::uint32_t>(header) != 0x4550 ||
      image.At<std::uint16_t>(header + 4) != 0x8664 || image.At<std::uint16_t>(header + 24) != 0x20B) {
    throw std::runtime_error("not a 64-bit Windows file");
  }
  m_uTimestamp = image.At<std::uint32_t>(header + 8);
  const std::size_t optional = header + 24;
  m_uDllCharacteristics = image.At<std::uint16_t>(optional + 70);

  const std::size_t sectionCount = image.At<std::uint16_t>(header + 6);
  const std::size_t sectionTable = optional + image.At<std::uint16_t>(header + 20);
  for (std::size_t index = 0; index < sectionCount; ++index) {
    const std::size_t entry = sectionTable + 40 * index;
    image.AddSection({image.At<std::uint32_t>(entry + 12), image.At<std::uint32_t>(entry + 16),
                      image.At<std::uint32_t>(entry + 20)});
  }

  const std::size_t directories = optional + 112;
  if (const auto exports = image.At<std::uint32_t>(directories); exports != 0) {
    const std::size_t table = image.OffsetOf(exports);
    const auto count = image.At<std::uint32_t>(table + 24);
    // Functions without a name would be exports too.
    if (image.At<std::uint32_t>(table + 20) != count) throw std::runtime_error("exports by number only");
    const std::size_t names = image.OffsetOf(image.At<std::uint32_t>(table + 32));
    for (std::size_t index = 0; index < count; ++index) {
      m_exports.push_back(image.TextAt(image.At<std::uint32_t>(names + 4 * index)));
    }
  }
  ReadLibraries(image, image.At<std::uint32_t>(directories + 8), 20, 12, m_imports);
  ReadLibraries(image, image.At<std::uint32_t>(directories + 8 * 13), 32, 4, m_imports);
}

}  // namespace sorvex::test
