#include "Client/Client/DCLog.h"
#include "Client/Client/DCPath.h"
#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"

#include <filesystem>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace florvane {
namespace {

using testing::HasSubstr;

template <typename Action>
std::string refusal(Action action) {
  try {
    action();
  } catch (const InvalidArgumentException& exception) {
    return exception.reason();
  }
  return "none";
}

class DCPathTest : public testing::Test {
 protected:
  DCRelativePath::Ptr relative(std::string_view string) {
    return DCRelativePath::relativePathWithString(string, service());
  }
  std::shared_ptr<DCService> service() {
    if (!service_) service_ = DCService::serviceWithHostName("host", "server");
    return service_;
  }
  std::string documents(const std::string& name) { return container_.file("File Provider Storage/server/" + name); }

  test::TestContainer container_;
  test::RecordingSystemLog log_;
  std::shared_ptr<DCService> service_;
};

TEST_F(DCPathTest, PrefixesEndWhereComponentsDo) {
  EXPECT_TRUE(DUPathStringHasPathPrefix("/a/b", "/a"));
  EXPECT_FALSE(DUPathStringHasPathPrefix("/ab", "/a"));
  EXPECT_TRUE(DUPathStringHasPathPrefix("/a", "/a"));
  EXPECT_TRUE(DUPathStringHasPathPrefix("/x", "/"));
  EXPECT_FALSE(DUPathStringHasPathPrefix("/a/b", "/a/"));
  EXPECT_FALSE(DUPathStringHasPathPrefix("/a", "/a/b"));
  EXPECT_EQ(DUPathCharacterFromString("ax\u00e9y", 2), "\u00e9");
  EXPECT_EQ(refusal([] { DUPathCharacterFromString("a", 1); }), "Illegal index: 1");
}

TEST_F(DCPathTest, TheDirectoriesAreSetOnce) {
  EXPECT_EQ(DUPathRootDirectoryPath(), std::nullopt);
  EXPECT_EQ(DUTemporaryDirectory(), std::nullopt);
  std::string root = container_.file("in/Documents");
  std::string metadata = container_.file("in/Data");
  EXPECT_EQ(refusal([&] { DUPathSetDirectoryPaths("Documents", metadata); }), "Illegal root path: Documents");
  EXPECT_EQ(refusal([&] { DUPathSetDirectoryPaths(std::nullopt, metadata); }), "Illegal root path: (null)");
  EXPECT_EQ(refusal([&] { DUPathSetDirectoryPaths(root, ""); }), "Illegal metadata path: ");
  EXPECT_EQ(DUPathRootDirectoryPath(), std::nullopt);
  EXPECT_FALSE(DUPathSetDirectoryPaths(root, metadata)) << "both were missing";
  EXPECT_TRUE(std::filesystem::is_directory(root));
  EXPECT_TRUE(DUPathSetDirectoryPaths(root, metadata));
  EXPECT_EQ(refusal([&] { DUPathSetDirectoryPaths(root + "x", metadata); }),
            "Illegal to change root path: " + root + "x");
  EXPECT_EQ(refusal([&] { DUPathSetDirectoryPaths(root, metadata + "/"); }),
            "Illegal to change metadata path: " + metadata + "/");
  DUPathSetDefaultDirectoryPaths();
  EXPECT_EQ(DUPathRootDirectoryPath(), root);
  EXPECT_EQ(DUTemporaryDirectory(), container_.file("in/tmp"));
  EXPECT_TRUE(std::filesystem::is_directory(container_.file("in/tmp")));
  EXPECT_EQ(DCFullPath::metadataRootForService(service())->string(), metadata + "/server");
}

TEST_F(DCPathTest, SanitisedDirectoriesAreNoLongerTheArgument) {
  std::filesystem::create_directories(container_.file("real"));
  std::filesystem::create_symlink(container_.file("real"), container_.file("link"));
  DUPathSetDirectoryPaths(container_.file("link/Documents"), container_.file("Data"));
  EXPECT_EQ(DUPathRootDirectoryPath(), container_.file("real/Documents"));
  EXPECT_THAT(refusal([&] { DUPathSetDirectoryPaths(container_.file("link/Documents"), container_.file("Data")); }),
              HasSubstr("Illegal to change root path: "));
}

TEST_F(DCPathTest, ByDefaultEverythingIsInTheContainer) {
  DUPathVerifyPathSetup();
  EXPECT_EQ(DUPathRootDirectoryPath(), container_.file("File Provider Storage"));
  EXPECT_EQ(DUPathMetadataDirectoryPath(), container_.file("Metadata"));
  EXPECT_EQ(DUTemporaryDirectory(), container_.file("tmp"));
}

TEST_F(DCPathTest, WithoutContainerThereAreNoPaths) {
  test::writeText(container_.file("file"), "");
  setenv("FLORVANE_CONTAINER", container_.file("file/below").c_str(), 1);
  EXPECT_EQ(refusal([&] { relative("a"); }), "Illegal nil root path");
  EXPECT_EQ(refusal([&] { DCService::serviceWithHostName("h", "i"); }), "Illegal nil root path");
}

TEST_F(DCPathTest, RelativePathsKnowTheirComponents) {
  auto root = relative("");
  EXPECT_TRUE(root->isRoot());
  EXPECT_EQ(root->firstPathComponent(), "");
  EXPECT_EQ(root->lastPathComponent(), "");
  EXPECT_EQ(root->relativePathByDeletingLastPathComponent(), nullptr);
  EXPECT_EQ(DCRelativePath::rootForService(service()), DCRelativePath::rootForService(service()));
  auto path = relative("a//b/c d/");
  EXPECT_EQ(path->string(), "a/b/c d");
  EXPECT_EQ(path->firstPathComponent(), "a");
  EXPECT_EQ(path->lastPathComponent(), "c d");
  EXPECT_EQ(path->service(), service());
  EXPECT_EQ(path->relativePathByDeletingLastPathComponent()->string(), "a/b");
  EXPECT_EQ(relative("a")->relativePathByDeletingLastPathComponent(), DCRelativePath::rootForService(service()));
  EXPECT_EQ(path->description(),
            format("<%@ service=server, path='a/b/c d'>", baseDescription("DCRelativePath", path.get())));
  for (const char* illegal : {"/a", "a/../b", "./a", ".", "..", "\xff"}) {
    EXPECT_EQ(refusal([&] { relative(illegal); }), format("Illegal path: %@", illegal));
  }
}

TEST_F(DCPathTest, RelativePathsGrow) {
  auto root = DCRelativePath::rootForService(service());
  EXPECT_EQ(root->relativePathByAppendingPathComponent("a")->relativePathByAppendingPathComponent("b")->string(),
            "a/b");
  EXPECT_EQ(refusal([&] { root->relativePathByAppendingPathComponent("x/y"); }), "Illegal path: x/y");
  EXPECT_EQ(relative("a")->relativePathByAppendingPath("x/y")->string(), "a/x/y");
  EXPECT_EQ(refusal([&] { relative("a")->relativePathByAppendingPath("../y"); }), "Illegal path: ../y");
  Data identifier = Data::fromString("\x01\xff");
  EXPECT_EQ(relative("Docs/a.pdf")->relativePathForAssetType(DCPathAssetTypeThumbnail, identifier)->string(),
            "Docs/a.pdf/01ff.png");
  EXPECT_TRUE(log_.messages().empty());
  EXPECT_EQ(relative("a")->relativePathForAssetType(DCPathAssetTypePreview, identifier)->string(), "a/01ff.png");
  EXPECT_THAT(log_.messages().back().text, HasSubstr("failed assertion 'assetType == DCPathAssetTypeThumbnail'"));
  EXPECT_EQ(relative("a")->metadataPath(), nullptr);
  EXPECT_THAT(log_.messages().back().text, HasSubstr("Client/Client/DCPath:"));
  EXPECT_THAT(log_.messages().back().text, HasSubstr("failed assertion '0'"));
  DCRelativePath::relativePathWithString("a", nullptr);
  EXPECT_THAT(log_.messages().back().text, HasSubstr("failed assertion 'service'"));
}

// A share's path is legal whatever lies in the folder that the program was started in.
TEST_F(DCPathTest, TheShellsFolderDoesNotMatter) {
  std::filesystem::current_path(container_.path());
  test::writeText(container_.file("Projects"), "");
  EXPECT_EQ(relative("Projects")->string(), "Projects");
  std::filesystem::current_path("/");
}

TEST_F(DCPathTest, ItemsLieUnderTheirIdentifier) {
  Data identifier = Data::fromString("\x0a\x1b");
  auto contents = DCFullPath::fullPathWithDocumentIdentifier(identifier, relative("a/b.txt"));
  EXPECT_EQ(contents->string(), documents("0a1b/b.txt"));
  EXPECT_EQ(contents->url(), URL::fileURL(documents("0a1b/b.txt")));
  EXPECT_EQ(contents->description(),
            format("<%@ url='%@'>", baseDescription("DCFullPath", contents.get()), contents->url()));
  auto metadata = DCFullPath::metadataFullPathWithDocumentIdentifier(identifier, "n", service());
  EXPECT_EQ(metadata->string(), container_.file("Metadata/server/0a1b/n"));
  EXPECT_EQ(contents->documentIdentifier(), identifier);
  EXPECT_EQ(metadata->documentIdentifier(), identifier);
  EXPECT_EQ(DCFullPath::_fullPathWithDocumentIdentifier(identifier, std::nullopt, service()), nullptr);
  EXPECT_TRUE(log_.messages().empty());
  EXPECT_EQ(DCFullPath::fullPathWithDocumentIdentifier(std::nullopt, relative("a")), nullptr);
  EXPECT_THAT(log_.messages().back().text, HasSubstr("failed assertion 'documentIdentifier'"));
  EXPECT_EQ(DCFullPath::documentRootForService(service()), DCFullPath::documentRootForService(service()));
  for (const std::string& other : {documents("0a1b/b/c"), documents("0a1b"), documents("0x/b"), documents("0a1/b"),
                                   container_.file("File Provider Storage/servers/0a1b/b"), std::string("/")}) {
    EXPECT_EQ(DCFullPath::fullPathWithString(other, service())->documentIdentifier(), std::nullopt) << other;
  }
  EXPECT_EQ(DCFullPath::fullPathWithString(documents("0a1b/b"), DCRelativePath::ServicePtr())->documentIdentifier(),
            std::nullopt);
}

TEST_F(DCPathTest, NewUploadsWaitBesideTheItems) {
  auto path = DCFullPath::uploadFullPathWithParentRelativePath(relative("Projects/2015"), "report.txt");
  EXPECT_EQ(path->string(), documents("upload+Projects:2015/report.txt"));
  EXPECT_TRUE(std::filesystem::is_directory(documents("upload+Projects:2015")));
  EXPECT_EQ(DCFullPath::uploadFullPathWithParentRelativePath(relative(""), "n")->string(), documents("upload+/n"));
  auto colon = DCFullPath::uploadFullPathWithParentRelativePath(relative("Projects:2015"), "report.txt");
  EXPECT_NE(colon->string(), path->string());
  std::string deep(200, 'a');
  auto far = DCFullPath::uploadFullPathWithParentRelativePath(relative(deep + "/" + deep), "n");
  EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(far->string()).parent_path()));
  EXPECT_TRUE(log_.messages().empty());
  test::writeText(documents("upload+taken"), "in the way");
  EXPECT_EQ(DCFullPath::uploadFullPathWithParentRelativePath(relative("taken"), "n")->string(),
            documents("upload+taken/n"));
}

TEST_F(DCPathTest, ManyThreadsGetTheSameRoots) {
  service();
  std::vector<DCFullPath::Ptr> documentRoots(4);
  std::vector<std::thread> threads;
  threads.reserve(documentRoots.size());
  for (auto& root : documentRoots) {
    threads.emplace_back([&] {
      auto other = DCService::serviceWithHostName("host", "another");
      (void)DCFullPath::metadataRootForService(other);
      root = DCFullPath::documentRootForService(other);
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& root : documentRoots) EXPECT_EQ(root, documentRoots[0]);
}

TEST_F(DCPathTest, TracesItsOperations) {
  service();
  dc_log_set_level(dc_log_default_category(), 7);
  dc_log_trace_enabled = true;
  auto path = relative("a");
  log_.waitFor("+[DCRelativePath relativePathWithString:forService:] (string=a, service=" + service()->description() +
               ")");
  (void)path->relativePathByAppendingPath("b");
  log_.waitFor("-[DCRelativePath relativePathByAppendingPath:] (path=b)");
  (void)DCFullPath::uploadFullPathWithParentRelativePath(path, "n");
  log_.waitFor("+[DCFullPath uploadFullPathWithParentRelativePath:name:] (parentRelativePath=" + path->description() +
               ", name=n)");
}

}  // namespace
}  // namespace florvane
