#include "Client/Client/DCError.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

class DCErrorTest : public testing::Test {
 protected:
  test::TestContainer container_;
  test::RecordingSystemLog log_;
};

TEST_F(DCErrorTest, CodesAndTextsAreFixed) {
  struct Row {
    Error (*make)(const DCError::UserInfo&);
    std::int64_t code;
    const char* text;
  };
  const Row rows[] = {{DCError::errorInvalidArgumentWithUserInfo, 1, "Invalid argument."},
                      {DCError::errorConnectionTimedOutWithUserInfo, 2, "Connection timed out."},
                      {DCError::errorNotConnectedWithUserInfo, 2, "Connection failure."},
                      {DCError::errorVersionConflictWithUserInfo, 3, "Version conflict."},
                      {DCError::errorItemNotDownloadedWithUserInfo, 4, "Item not yet downloaded."},
                      {DCError::errorItemNotUploadedWithUserInfo, 5, "Item not yet uploaded."},
                      {DCError::errorMistmatchedTypeWithUserInfo, 6, "Mistmatched file type."},
                      {DCError::errorDirectoryNotEmptyWithUserInfo, 7, "Directory not empty."},
                      {DCError::errorItemNotYetAvilableWithUserInfo, 8, "Item not yet available."},
                      {DCError::errorItemAlreadyExistsWithUserInfo, 9, "Item already exists."},
                      {DCError::errorNoPreviewAvailableWithUserInfo, 10, "No preview available."},
                      {DCError::errorNoSuchItemWithUserInfo, 11, "No such item."},
                      {DCError::errorNoPermissionWithUserInfo, 12, "No permission to perform operation."},
                      {DCError::errorInternalWithUserInfo, 13, "Internal error."},
                      {DCError::errorInvalidHeaderWithUserInfo, 14, "Invalid header."},
                      {DCError::errorNoThumbnailAvailableWithUserInfo, 15, "No thumbnail available."}};
  for (const Row& row : rows) {
    Error error = row.make(Dictionary{{"key", 1}, {LocalizedDescriptionKey, "replaced"}});
    EXPECT_EQ(error.domain(), "Florvane Client Error Domain");
    EXPECT_EQ(error.code(), row.code);
    EXPECT_EQ(error.userInfo(), (Dictionary{{"key", 1}, {LocalizedDescriptionKey, row.text}}));
    EXPECT_EQ(row.make(std::nullopt).userInfo(), (Dictionary{{LocalizedDescriptionKey, row.text}}));
    EXPECT_TRUE(pc_isDCErrorWithCode(error, row.code));
    EXPECT_FALSE(pc_isDCErrorWithCode(error, row.code + 1));
    EXPECT_FALSE(pc_isQuilbarErrorWithCode(error, row.code));
  }
  EXPECT_FALSE(pc_isDCErrorWithCode(Error(QuilbarErrorDomain, 4), 4));
  EXPECT_TRUE(pc_isQuilbarErrorWithCode(Error(QuilbarErrorDomain, 4), 4));
}

TEST_F(DCErrorTest, UserInfoNamesWhatItIsAbout) {
  auto service = DCService::serviceWithHostName("host", "server");
  auto relativePath = DCRelativePath::relativePathWithString("a/b", service);
  auto fullPath = DCFullPath::fullPathWithString(container_.file("x y"), service);
  EXPECT_EQ(DCError::userInfoWithArgument(7),
            (Dictionary{{"argument", 7}, {LocalizedDescriptionKey, "Illegal argument: 7"}}));
  EXPECT_EQ(DCError::userInfoWithFullPath(*fullPath), (Dictionary{{FilePathErrorKey, container_.file("x y")}}));
  EXPECT_EQ(DCError::userInfoWithHeaderName("ETag"), (Dictionary{{DCHeaderNameKey, "ETag"}}));
  EXPECT_EQ(DCError::userInfoWithRelativePath(*relativePath), (Dictionary{{DCFileRelativePathKey, "a/b"}}));
  EXPECT_EQ(DCError::userInfoWithURL(URL::fileURL("/x y")), (Dictionary{{FilePathErrorKey, "/x y"}}));
  struct Item {
    DCRelativePath::Ptr relative;
    DCFullPath::Ptr full;
    DCRelativePath::Ptr relativePath() const { return relative; }
    DCFullPath::Ptr fullPath() const { return full; }
  };
  EXPECT_EQ(DCError::userInfoWithItem(Item{relativePath, fullPath}),
            (Dictionary{{DCFileRelativePathKey, "a/b"}, {FilePathErrorKey, container_.file("x y")}}));
  EXPECT_EQ(DCError::userInfoWithItem(Item{relativePath, nullptr}), (Dictionary{{DCFileRelativePathKey, "a/b"}}));
}

TEST_F(DCErrorTest, WrappingKeepsTheErrorAndTranslationDoesNothing) {
  Error original(QuilbarErrorDomain, 4, Dictionary{{FilePathErrorKey, "/original"}});
  auto path = DCFullPath::fullPathWithString("/elsewhere", DCFullPath::ServicePtr());
  Error once = DCError::errorWithUnderlyingError(original, path);
  EXPECT_TRUE(once.is(QuilbarErrorDomain, 4));
  EXPECT_EQ(once.userInfo(), original.userInfo());
  ASSERT_NE(once.underlyingError(), nullptr);
  Error twice = DCError::errorWithUnderlyingError(once, nullptr);
  ASSERT_NE(twice.underlyingError(), nullptr);
  ASSERT_NE(twice.underlyingError()->underlyingError(), nullptr);
  EXPECT_EQ(twice.underlyingError()->underlyingError()->description(), original.description());
  Error same = DCError::transformFileManagerError(original);
  EXPECT_TRUE(same.is(QuilbarErrorDomain, 4));
  EXPECT_EQ(same.userInfo(), original.userInfo());
  ASSERT_EQ(log_.messages().size(), 1U);
  EXPECT_EQ(log_.messages()[0].text, "Client/Client/DCError:121: failed assertion '0'\n");
}

}  // namespace
}  // namespace florvane
