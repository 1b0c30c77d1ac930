#include "common/FVFPathUtils.h"
#include "common/FVFURLUtils.h"
#include "platform/Exceptions.h"
#include "platform/FileSystem.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>

#include <gtest/gtest.h>

namespace florvane {
namespace {

const FVFPathHost kPlainHost;

std::string relative(std::string_view string, bool multiple = true, const FVFPathHost& host = kPlainHost) {
  try {
    return FVFPathUtils::stringBySanitizingPath(string, true, multiple, host);
  } catch (const InvalidArgumentException& exception) {
    return exception.reason();
  }
}

std::string absolute(std::string_view string, const FVFPathHost& host = kPlainHost) {
  try {
    return FVFPathUtils::stringBySanitizingPath(string, false, true, host);
  } catch (const InvalidArgumentException& exception) {
    return exception.reason();
  }
}

TEST(FVFPathUtils, CleansRelativePaths) {
  EXPECT_TRUE(FVFPathUtils::isRelativePath(""));
  EXPECT_TRUE(FVFPathUtils::isRelativePath("a/b"));
  EXPECT_FALSE(FVFPathUtils::isRelativePath("/a"));
  EXPECT_EQ(relative(""), "");
  EXPECT_EQ(relative("a/b/"), "a/b");
  EXPECT_EQ(relative("a//b"), "a/b");
  EXPECT_EQ(relative("..."), "...");
  EXPECT_EQ(relative("a:b\n.txt", false), "a:b\n.txt");
  for (std::string illegal : {"/a", "a/../b", "./a", "a/.", "..", "\xc3", "a\xff/b"}) {
    EXPECT_EQ(relative(illegal), "Illegal path: " + illegal);
  }
  EXPECT_EQ(relative(std::string_view("a\0b", 3)), "Illegal path: a");
  EXPECT_EQ(relative("a/b", false), "Illegal path: a/b");
  EXPECT_EQ(relative("", false), "");
}

TEST(FVFPathUtils, RelativePathsMustNotExistInTheCurrentDirectory) {
  test::TemporaryDirectory directory;
  FVFPathHost host{directory.path(), false};
  EXPECT_EQ(relative("a/b", true, host), "a/b");
  std::filesystem::create_directories(directory.file("a"));
  EXPECT_EQ(relative("a/b", true, host), "a/b") << "the whole string is looked up, not its beginning";
  EXPECT_EQ(relative("a", true, host), "Illegal path: a");
  test::writeText(directory.file("f"), "");
  EXPECT_EQ(relative("f/b", true, host), "f/b");
  EXPECT_EQ(relative(std::string(300, 'x') + "/b", true, host), std::string(300, 'x') + "/b");
  FVFPathUtils::setCurrentDirectory(directory.path());
  EXPECT_EQ(relative("a", true, FVFPathHost::current()), "Illegal path: a");
  FVFPathUtils::setCurrentDirectory("");
  EXPECT_EQ(relative("a", true, FVFPathHost::current()), "a");
}

TEST(FVFPathUtils, ResolvesAbsolutePaths) {
  test::TemporaryDirectory directory;
  std::filesystem::create_directories(directory.file("real/inner"));
  std::filesystem::create_symlink("real", directory.file("link"));
  std::filesystem::create_symlink("nowhere", directory.file("dangling"));
  std::filesystem::create_symlink("loop", directory.file("loop"));
  EXPECT_EQ(absolute(directory.file("link/inner/")), directory.file("real/inner"));
  EXPECT_EQ(absolute(directory.file("link/new//file")), directory.file("real/new/file"));
  EXPECT_EQ(absolute(directory.file("dangling/x")), directory.file("dangling/x"));
  EXPECT_EQ(absolute(directory.file("loop/x")), directory.file("loop/x"));
  EXPECT_EQ(absolute(directory.file("link/../real")), directory.file("real")) << "the system resolves what exists";
  EXPECT_EQ(absolute(directory.file("new/../real")), "Illegal path: " + directory.file("new/../real"));
  EXPECT_EQ(absolute("/"), "/");
  EXPECT_EQ(absolute("//nowhere-at-all"), "/nowhere-at-all");
  for (std::string illegal : {"", "a", "./a"}) EXPECT_EQ(absolute(illegal), "Illegal path: " + illegal);
  std::string percent = directory.file("100%25 \xe2\x82\xac?#");
  EXPECT_EQ(absolute(percent), percent);
}

TEST(FVFPathUtils, AgreesWithAnotherResolverAboutWhatExists) {
  test::TemporaryDirectory directory;
  std::filesystem::create_directories(directory.file("a/b"));
  std::filesystem::create_symlink("../a/b", directory.file("a/up"));
  std::filesystem::create_symlink(directory.file("a"), directory.file("c"));
  for (const char* path : {"a/up", "c/up/.", "c/b/../up//", "a/./b", "c/up/new/file"}) {
    auto judged = test::runPython("import os,sys;print(os.path.realpath(sys.argv[1]),end='')", {directory.file(path)});
    EXPECT_EQ(absolute(directory.file(path)), judged.standardOutput);
  }
}

// Machines differ in where /tmp, /var and /etc really lie.
TEST(FVFPathUtils, PrivateIsRestoredWhereTheMachineHasIt) {
  FVFPathHost privately{"", true};
  for (const char* path : {"/var/nowhere/x", "/tmp/nowhere/x", "/etc/nowhere"}) {
    EXPECT_EQ(absolute(path, privately), std::string("/private") + path);
    EXPECT_EQ(absolute(path, kPlainHost), path);
  }
  EXPECT_EQ(absolute("/variety/x", privately), "/variety/x");
  EXPECT_EQ(absolute("/private/var/x", privately), "/private/var/x");
  EXPECT_EQ(absolute("/private/var/x", kPlainHost), "/private/var/x");
  EXPECT_EQ(URLByReallyResolvingSymlinksInPath(*URL::fromString("https://h/var/x"), true).absoluteString(),
            "https://h/var/x");
}

TEST(FVFPathUtils, VeryLongStringsCostNoMoreThanTheirLength) {
  std::string string;
  for (int component = 0; component < 200'000; ++component) string += "/ab";
  EXPECT_EQ(absolute(string), string);
  EXPECT_EQ(relative(string.substr(1), true, {"/", false}), string.substr(1));
}

}  // namespace
}  // namespace florvane
