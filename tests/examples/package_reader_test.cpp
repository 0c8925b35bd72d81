#include "package_reader.h"

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "checksum.h"

namespace {

using namespace inventory;

PackageFile Read(const std::string& text) {
  std::istringstream stream(text);
  return ReadPackages(stream);
}

std::string Stanza(const std::string& name) {
  return "Package: " + name +
         "\n"
         "Status: install ok installed\n"
         "Installed-Size: 12\n"
         "Architecture: all\n"
         "Version: 1.0-1\n"
         "Description: a package\n"
         " with two lines\n"
         "\n";
}

// The one error of a text that has a good stanza before and behind the bad one, which begins in
// line 9. Both good ones must have survived.
ReadError ErrorOf(const std::string& badStanza) {
  const PackageFile file = Read(Stanza("before") + badStanza + "\n" + Stanza("behind"));
  EXPECT_EQ(file.packages.size(), 2u);
  for (const Package& package : file.packages)
    EXPECT_TRUE(package.name == "before" || package.name == "behind") << package.name;
  EXPECT_EQ(file.errors.size(), 1u);
  return file.errors.empty() ? ReadError{} : file.errors.front();
}

bool Mentions(const ReadError& error, std::string_view text) {
  return error.message.find(text) != std::string::npos;
}

std::string Hex(const Checksum& checksum) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : checksum) {
    text.push_back(DIGITS[byte >> 4]);
    text.push_back(DIGITS[byte & 15]);
  }
  return text;
}

TEST(PackageReader, ReadsAllFieldsOfAWellFormedStanza) {
  const PackageFile file = Read(
      "Package: libsample1\n"
      "Status: install ok installed\n"
      "Essential: yes\n"
      "Section: libs\n"
      "Installed-Size: 4294967296\n"
      "Architecture: amd64\n"
      "Version: 1:2.0~rc1-3\n"
      "Provides: sample-abi, libsample (= 2.0)\n"
      "Pre-Depends: base (>= 3)\n"
      "Depends: one, two (<< 5) | three:any\n"
      "Description: sample\n");
  ASSERT_TRUE(file.errors.empty()) << file.errors.front().message;
  ASSERT_EQ(file.packages.size(), 1u);
  const Package& package = file.packages.front();
  EXPECT_EQ(package.name, "libsample1");
  EXPECT_EQ(package.status, "install ok installed");
  EXPECT_EQ(package.state, PackageState::INSTALLED);
  EXPECT_TRUE(package.essential);
  EXPECT_EQ(package.section, "libs");
  EXPECT_EQ(package.installedSizeKib, 4294967296u);
  EXPECT_EQ(package.architecture, "amd64");
  EXPECT_EQ(package.version, "1:2.0~rc1-3");
  EXPECT_EQ(package.provides, (std::vector<std::string>{"sample-abi", "libsample (= 2.0)"}));
  EXPECT_EQ(package.line, 1u);
  ASSERT_EQ(package.dependencies.size(), 4u);
  EXPECT_EQ(package.dependencies[0].package, "base");
  EXPECT_EQ(package.dependencies[0].relation, ">=");
  EXPECT_EQ(package.dependencies[0].version, "3");
  EXPECT_EQ(package.dependencies[1].package, "one");
  EXPECT_EQ(package.dependencies[1].relation, "");
  EXPECT_EQ(package.dependencies[2].package, "two");
  EXPECT_EQ(package.dependencies[2].relation, "<<");
  EXPECT_EQ(package.dependencies[2].version, "5");
  EXPECT_EQ(package.dependencies[3].package, "three:any");
}

TEST(PackageReader, GivesAlternativesOfOneDependencyTheSameGroup) {
  std::vector<Dependency> dependencies;
  EXPECT_EQ(ParseDependencies("a | b (= 1), c", dependencies), "");
  EXPECT_EQ(ParseDependencies("d", dependencies), "");
  std::vector<std::uint32_t> groups;
  groups.reserve(dependencies.size());
  for (const Dependency& dependency : dependencies) groups.push_back(dependency.group);
  EXPECT_EQ(groups, (std::vector<std::uint32_t>{0, 0, 1, 2}));
}

TEST(PackageReader, JoinsContinuationLines) {
  const PackageFile file = Read(
      "Package: wide\n"
      "Status: install ok installed\n"
      "Version: 1\n"
      "Depends: one,\n"
      " two (>= 1),\n"
      "\tthree\n"
      "Conffiles:\n"
      " /etc/wide.conf 0123\n"
      "Description: wide\n"
      " Text: that looks like a field.\n"
      " .\n"
      " More text.\n");
  ASSERT_TRUE(file.errors.empty()) << file.errors.front().message;
  ASSERT_EQ(file.packages.size(), 1u);
  ASSERT_EQ(file.packages.front().dependencies.size(), 3u);
  EXPECT_EQ(file.packages.front().dependencies[2].package, "three");
}

TEST(PackageReader, TakesFieldNamesInAnyCase) {
  const PackageFile file = Read("PACKAGE: a\nstatus: install ok installed\nversion: 1\n");
  ASSERT_EQ(file.packages.size(), 1u);
  EXPECT_EQ(file.packages.front().name, "a");
}

TEST(PackageReader, ReadsTheLastStanzaWithoutFinalNewline) {
  const PackageFile file = Read(
      "Package: a\nStatus: install ok installed\nVersion: 1\n\n"
      "Package: b\nStatus: install ok installed\nVersion: 2");
  EXPECT_TRUE(file.errors.empty());
  ASSERT_EQ(file.packages.size(), 2u);
  EXPECT_EQ(file.packages[1].version, "2");
}

TEST(PackageReader, FindsNothingInAnEmptyFile) {
  for (const char* text : {"", "\n", "\n\n\n"}) {
    const PackageFile file = Read(text);
    EXPECT_TRUE(file.packages.empty());
    EXPECT_TRUE(file.errors.empty());
  }
}

TEST(PackageReader, PassesOverSeveralEmptyLines) {
  const PackageFile file = Read("\n\n" + Stanza("a") + "\n\n" + Stanza("b"));
  ASSERT_EQ(file.packages.size(), 2u);
  EXPECT_EQ(file.packages[0].line, 3u);
  EXPECT_EQ(file.packages[1].line, 13u);
}

TEST(PackageReader, TellsStatesApart) {
  const std::vector<std::pair<std::string, PackageState>> cases = {
      {"install ok installed", PackageState::INSTALLED},
      {"hold ok installed", PackageState::INSTALLED},
      {"deinstall ok config-files", PackageState::REMOVED},
      {"purge ok not-installed", PackageState::REMOVED},
      {"install ok unpacked", PackageState::IN_BETWEEN},
      {"install ok half-configured", PackageState::IN_BETWEEN},
      {"install reinstreq half-installed", PackageState::IN_BETWEEN},
      {"install ok triggers-pending", PackageState::IN_BETWEEN},
      {"install ok triggers-awaited", PackageState::IN_BETWEEN}};
  for (const auto& [status, state] : cases) {
    const PackageFile file = Read("Package: a\nVersion: 1\nStatus: " + status + "\n");
    ASSERT_EQ(file.packages.size(), 1u) << status;
    EXPECT_EQ(file.packages.front().state, state) << status;
  }
}

TEST(PackageReader, TakesAMissingInstalledSizeAsZero) {
  const PackageFile file = Read("Package: a\nStatus: install ok installed\nVersion: 1\n");
  ASSERT_EQ(file.packages.size(), 1u);
  EXPECT_EQ(file.packages.front().installedSizeKib, 0u);
}

TEST(PackageReader, KeepsTheSamePackageOfTwoArchitectures) {
  const std::string one = "Package: a\nStatus: install ok installed\nVersion: 1\nArchitecture: ";
  const PackageFile file = Read(one + "amd64\n\n" + one + "i386\n");
  EXPECT_EQ(file.packages.size(), 2u);
  EXPECT_TRUE(file.errors.empty());
}

TEST(PackageReader, ReportsAMissingPackageFieldAtTheStanza) {
  const ReadError error = ErrorOf("Status: install ok installed\nVersion: 1\n");
  EXPECT_EQ(error.line, 9u);
  EXPECT_TRUE(Mentions(error, "Package")) << error.message;
}

TEST(PackageReader, ReportsAMissingStatusField) {
  const ReadError error = ErrorOf("Package: a\nVersion: 1\n");
  EXPECT_EQ(error.line, 9u);
  EXPECT_TRUE(Mentions(error, "Status")) << error.message;
}

TEST(PackageReader, ReportsAnInstalledPackageWithoutVersion) {
  const ReadError error = ErrorOf("Package: a\nStatus: install ok installed\n");
  EXPECT_EQ(error.line, 9u);
  EXPECT_TRUE(Mentions(error, "Version")) << error.message;
}

TEST(PackageReader, ReportsAnEmptyPackageField) {
  const ReadError error = ErrorOf("Version: 1\nPackage:\nStatus: install ok installed\n");
  EXPECT_EQ(error.line, 10u);
  EXPECT_TRUE(Mentions(error, "Package")) << error.message;
}

TEST(PackageReader, ReportsAnInstalledSizeThatIsNoNumber) {
  for (const char* size : {"12 kB", "-1", "0x10", "18446744073709551616", "many"}) {
    const ReadError error = ErrorOf(
        "Package: a\nStatus: install ok installed\nVersion: 1\n"
        "Installed-Size: " +
        std::string(size) + "\n");
    EXPECT_EQ(error.line, 12u) << size;
    EXPECT_TRUE(Mentions(error, size)) << error.message;
  }
}

TEST(PackageReader, ReportsALineThatIsNoField) {
  const ReadError error = ErrorOf("Package: a\nStatus: install ok installed\nwhat is this\n");
  EXPECT_EQ(error.line, 11u);
  EXPECT_TRUE(Mentions(error, "what is this")) << error.message;
}

TEST(PackageReader, ReportsAFieldNameWithABlank) {
  EXPECT_EQ(ErrorOf("Package: a\nInstalled Size: 3\n").line, 10u);
  EXPECT_EQ(ErrorOf("Package: a\n: 3\n").line, 10u);
}

TEST(PackageReader, ReportsAContinuationLineWithoutField) {
  EXPECT_EQ(ErrorOf(" lost text\nPackage: a\nStatus: install ok installed\n").line, 9u);
}

TEST(PackageReader, ReportsALineOfBlanksInsideAStanza) {
  EXPECT_EQ(ErrorOf("Package: a\nStatus: install ok installed\nVersion: 1\n \n").line, 12u);
}

TEST(PackageReader, ReportsAFieldThatIsThereTwice) {
  const ReadError error = ErrorOf(
      "Package: a\nVersion: 1\nStatus: install ok installed\n"
      "version: 2\n");
  EXPECT_EQ(error.line, 12u);
  EXPECT_TRUE(Mentions(error, "line 10")) << error.message;
}

TEST(PackageReader, ReportsAPackageThatIsThereTwice) {
  const ReadError error = ErrorOf(Stanza("before"));
  EXPECT_EQ(error.line, 9u);
  EXPECT_TRUE(Mentions(error, "line 1")) << error.message;
}

TEST(PackageReader, ReportsAStatusThatItDoesNotKnow) {
  for (const char* status : {"installed", "install ok", "install ok sleeping", "a b c d"}) {
    const ReadError error =
        ErrorOf("Package: a\nVersion: 1\nStatus: " + std::string(status) + "\n");
    EXPECT_EQ(error.line, 11u) << status;
    EXPECT_TRUE(Mentions(error, status)) << error.message;
  }
}

TEST(PackageReader, ReportsAMalformedDependency) {
  for (const char* depends :
       {"a (>= 1", "a (1.0)", "a (>=)", "a (=> 1)", "a b", "(>= 1)", "a, b | (= 2)", "a () x"}) {
    const ReadError error = ErrorOf(
        "Package: a\nStatus: install ok installed\nVersion: 1\n"
        "Depends: " +
        std::string(depends) + "\n");
    EXPECT_EQ(error.line, 12u) << depends;
    EXPECT_TRUE(Mentions(error, "Depends")) << error.message;
  }
}

TEST(PackageReader, ReportsANulByte) {
  const std::string line = std::string("Version: 1") + '\0' + "2\n";
  EXPECT_EQ(ErrorOf("Package: a\nStatus: install ok installed\n" + line).line, 11u);
}

TEST(PackageReader, ReportsOneErrorForEachMalformedStanza) {
  const PackageFile file = Read("Package: a\nbad\nworse\n\n" + Stanza("good") + "Version: 1\n\n");
  ASSERT_EQ(file.errors.size(), 2u);
  EXPECT_EQ(file.errors[0].line, 2u);
  EXPECT_EQ(file.errors[1].line, 13u);
  ASSERT_EQ(file.packages.size(), 1u);
  EXPECT_EQ(file.packages.front().name, "good");
}

TEST(PackageReader, GivesEachStanzaTheChecksumOfItsText) {
  const std::string text = "Package: a\nStatus: install ok installed\nVersion: 1\n";
  const PackageFile file = Read(text + "\n" + Stanza("b"));
  ASSERT_EQ(file.packages.size(), 2u);
  EXPECT_EQ(file.packages[0].checksum, Sha256(text));
  EXPECT_NE(file.packages[0].checksum, file.packages[1].checksum);
}

// The first three are the examples that NIST gives for FIPS 180-4. The rest lie at the edges of the
// padding: 55 bytes are the most that fit into one block with their length.
TEST(Checksum, GivesThePublishedDigests) {
  EXPECT_EQ(Hex(Sha256("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Hex(Sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(Hex(Sha256(std::string(1000000, 'a'))),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(Hex(Sha256("")), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Hex(Sha256(std::string(55, 'x'))),
            "d5e285683cd4efc02d021a5c62014694958901005d6f71e89e0989fac77e4072");
  EXPECT_EQ(Hex(Sha256(std::string(56, 'x'))),
            "04c26261370ee7541549d16dee320c723e3fd14671e66a099afe0a377c16888e");
  EXPECT_EQ(Hex(Sha256(std::string(63, 'x'))),
            "75220b47218278e656f2013bb8f0c455a25eaf01e86c64924e9d48d89776d6f2");
  EXPECT_EQ(Hex(Sha256(std::string(64, 'x'))),
            "7ce100971f64e7001e8fe5a51973ecdfe1ced42befe7ee8d5fd6219506b5393c");
  EXPECT_EQ(Hex(Sha256(std::string(65, 'x'))),
            "9537c5fdf120482f7d58d25e9ed583f52c02b4e304ea814db1633ad565aed7e9");
}

}  // namespace
