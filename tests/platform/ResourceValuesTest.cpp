#include "platform/FileSystem.h"
#include "platform/ResourceValues.h"
#include "platform/TypeDatabase.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>

namespace florvane {
namespace {

using test::TemporaryDirectory;
using test::writeText;

struct ResourceValuesTest : testing::Test {
  TemporaryDirectory directory;
};

TEST_F(ResourceValuesTest, AFileIsDescribedWholeAndToTheMicrosecond) {
  std::string path = directory.file(".Report.PNG");
  Date before = Date::now() - std::chrono::seconds(1);
  writeText(path, "12345");
  Date modified = Date::fromMicroseconds(1'234'567'890'123'456);
  {
    FileDescriptor file(open(path.c_str(), O_RDONLY));
    ASSERT_TRUE(setContentModificationDate(file.get(), modified));
  }
  EXPECT_FALSE(setContentModificationDate(-1, modified));
  auto values = resourceValues(path);
  ASSERT_TRUE(values);
  EXPECT_EQ(values->string(ResourceNameKey), ".Report.PNG");
  EXPECT_EQ(values->string(ResourcePathKey), path);
  EXPECT_EQ(values->string(ResourceFileResourceTypeKey), ResourceTypeRegular);
  EXPECT_EQ(values->integer(ResourceFileSizeKey), 5);
  EXPECT_EQ(values->boolean(ResourceIsDirectoryKey), false);
  EXPECT_EQ(values->boolean(ResourceIsPackageKey), false);
  EXPECT_EQ(values->boolean(ResourceIsReadableKey), true);
  EXPECT_EQ(values->boolean(ResourceIsWritableKey), true);
  EXPECT_EQ(values->boolean(ResourceIsHiddenKey), true);
  EXPECT_EQ(values->boolean(ResourceHasHiddenExtensionKey), false);
  EXPECT_EQ(values->string(ResourceTypeIdentifierKey), "image/png");
  EXPECT_EQ(values->string(ResourceLocalizedTypeDescriptionKey), "PNG image");
  EXPECT_EQ(values->date(ResourceContentModificationDateKey), modified);
  EXPECT_GE(*values->date(ResourceAttributeModificationDateKey), before);
  EXPECT_TRUE(values->date(ResourceCreationDateKey));
  EXPECT_FALSE(values->contains(ResourceAddedToDirectoryDateKey));
}

TEST_F(ResourceValuesTest, GivesOnlyWhatIsAskedFor) {
  const std::string_view keys[] = {ResourceFileSizeKey, ResourceNameKey, "FVDocumentIdentifierKey"};
  auto values = resourceValues(directory.path() + "/", keys);
  ASSERT_TRUE(values);
  EXPECT_EQ(*values, (Dictionary{{ResourceNameKey, directory.path().substr(directory.path().rfind('/') + 1)}}));
}

TEST_F(ResourceValuesTest, LinksAreNotFollowedAndOnlyPlainItemsHaveAFileType) {
  std::filesystem::create_directory_symlink(directory.path(), directory.file("link"));
  auto link = resourceValues(directory.file("link"));
  ASSERT_TRUE(link);
  EXPECT_FALSE(link->contains(ResourceFileResourceTypeKey));
  EXPECT_FALSE(link->contains(ResourceFileSizeKey));
  EXPECT_EQ(link->boolean(ResourceIsDirectoryKey), false);
  EXPECT_EQ(link->string(ResourceTypeIdentifierKey), "inode/symlink");
  auto folder = resourceValues(directory.path());
  EXPECT_EQ(folder->string(ResourceFileResourceTypeKey), ResourceTypeDirectory);
  EXPECT_EQ(folder->string(ResourceTypeIdentifierKey), "inode/directory");
  EXPECT_TRUE(resourceValues(directory.file("none")).error().is(QuilbarErrorDomain, FileReadNoSuchFileError));
}

TEST_F(ResourceValuesTest, TypesFollowWholeNamesThenWeightThenLength) {
  writeText(
      directory.file("globs2"),
      "# comment\n80:a/heavy:*.x.y\n60:a/numbered:*.so.[0-9]*\n50:a/gz:*.gz\n50:a/tar-gz:*.tar.gz\n"
      "50:a/light:*.longer.x.y\n50:a/c++:*.C:cs\n50:a/c:*.c:cs\n50:a/any-c:*.c\n50:a/makefile:makefile\n50:a/mk:*file\n"
      "50:a/backup:*~\nbroken\nx:y:z\n50::*.none\n");
  std::filesystem::create_directories(directory.file("a"));
  writeText(directory.file("a/gz.xml"),
            "<mime-type xmlns='http://www.freedesktop.org/standards/shared-mime-info' type='a/gz'>"
            "<comment xml:lang='de'>Gepackt</comment><comment>Packed &amp; small</comment></mime-type>");
  TypeDatabase database(directory.path());
  auto type = [&](std::string_view name) { return std::string(*database.typeForName(name).asString()); };
  EXPECT_EQ(type("a.b.TAR.gz"), "a/tar-gz");
  EXPECT_EQ(type("A.TAR.GZ"), "a/tar-gz");
  EXPECT_EQ(type("a.longer.x.y"), "a/heavy");
  EXPECT_EQ(type("lib.so.6"), "a/numbered");
  EXPECT_EQ(type("x.C"), "a/c++");
  EXPECT_EQ(type("x.c"), "a/c");
  EXPECT_EQ(type("Makefile"), "a/makefile");
  EXPECT_EQ(type("my.makefile"), "a/mk");
  EXPECT_EQ(type("notes~"), "a/backup");
  for (const char* name : {"", ".", "x.none", "gz", "x.\xff"})
    EXPECT_EQ(type(name), "application/octet-stream") << name;

  EXPECT_EQ(database.description("a/gz"), Value("Packed & small"));
  for (const char* unknown : {"a/none", "", "a", "../a/gz", "a/../a/gz", "/a/gz", "a/"}) {
    EXPECT_EQ(database.description(unknown), Value(unknown));
  }
}

}  // namespace
}  // namespace florvane
