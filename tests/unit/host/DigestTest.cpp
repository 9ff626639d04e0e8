#include <host/Digest.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace WindowsAgentCommon {
namespace {

using sorvex::test::TemporaryDirectory;

std::string Sum(std::string_view text) { return MD5Sum(text.data(), text.size()); }

TEST(Digest, MatchesTheVectorsOfRfc1321) {
  EXPECT_EQ(Sum(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(Sum("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(Sum("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(Sum("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(Sum("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(Sum("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"), "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(Sum("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Digest, OfNothingNeedsNoPointer) { EXPECT_EQ(MD5Sum(nullptr, 0), "d41d8cd98f00b204e9800998ecf8427e"); }

TEST(Digest, OfAFileIsThatOfItsContent) {
  const TemporaryDirectory directory;
  EXPECT_EQ(MD5Sum(PathToWide(directory.Write("file", "message digest"))), "f96b697d7cb7938d525a2f31aaf161d0");
}

TEST(Digest, OfAnEmptyFile) {
  const TemporaryDirectory directory;
  EXPECT_EQ(MD5Sum(PathToWide(directory.Write("empty", ""))), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Digest, OfAFileOfManyChunks) {
  const TemporaryDirectory directory;
  // A million times the letter a.
  EXPECT_EQ(MD5Sum(PathToWide(directory.Write("large", std::string(1'000'000, 'a')))),
            "7707d6ae4e027c70eea2a935c2296f21");
}

TEST(Digest, OfAFileOfExactlyOneChunk) {
  const TemporaryDirectory directory;
  // 65536 zero bytes.
  EXPECT_EQ(MD5Sum(PathToWide(directory.Write("chunk", std::string(65536, '\0')))), "fcd6bcb56c1689fcef28b57c22475bad");
}

TEST(Digest, ReadsAFileWhosePathHoldsOtherCharacters) {
  const TemporaryDirectory directory("\xC3\xA4 \xE6\x97\xA5");
  const std::filesystem::path name = WideToPath(Utf8ToWide("\xC3\xB6 \xF0\x9F\x98\x80.bin"));
  EXPECT_EQ(MD5Sum(PathToWide(directory.Write(name, "abc"))), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Digest, OfAMissingFileIsEmpty) {
  const TemporaryDirectory directory;
  EXPECT_EQ(MD5Sum(PathToWide(directory.Path() / "missing")), "");
}

TEST(Digest, OfADirectoryIsEmpty) {
  const TemporaryDirectory directory;
  EXPECT_EQ(MD5Sum(directory.Wide()), "");
}

TEST(Digest, OfADeviceIsEmpty) {
  EXPECT_EQ(MD5Sum(std::wstring(std::filesystem::path::preferred_separator == '/' ? L"/dev/null" : L"NUL")), "");
}

TEST(Digest, OfAnEmptyPathIsEmpty) { EXPECT_EQ(MD5Sum(std::wstring()), ""); }

}  // namespace
}  // namespace WindowsAgentCommon
