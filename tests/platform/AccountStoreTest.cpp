#include "platform/AccountStore.h"
#include "platform/Encoding.h"
#include "platform/FileSystem.h"
#include "platform/PreferencesStore.h"
#include "tests/support/TemporaryDirectory.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace florvane {
namespace {

using test::readText;
using test::TemporaryDirectory;

Account accountNamed(const std::string& name) {
  Account account;
  account.name = name;
  account.userName = "ida";
  account.hostName = "docs.example.org";
  return account;
}

struct AccountStoreTest : testing::Test {
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    auto accounts = AccountStore(directory.path()).accounts().value();
    result.reserve(accounts.size());
    for (const auto& account : accounts) result.push_back(account.name);
    return result;
  }
  std::string accountsFile() const { return directory.file("Accounts.plist"); }
  std::string credentialsFile() const { return directory.file("Credentials.plist"); }

  TemporaryDirectory directory;
  AccountStore store{directory.path()};
  Secret password{std::string_view("geheim\0\xff", 8)};
};

TEST_F(AccountStoreTest, WhatWasAddedIsThereForEveryProcessUntilItIsRemoved) {
  EXPECT_TRUE(store.accounts().value().empty());
  Account given = accountNamed("work");
  given.identifier = "of the caller's making";
  given.dataClassHostName = "other.example.org";
  given.dataClassPortNumber = 65535;
  auto added = store.add(given, password);
  ASSERT_TRUE(added);
  EXPECT_TRUE(isUUID(added->identifier));
  ASSERT_TRUE(store.add(accountNamed("höme ~"), Secret("other")));
  EXPECT_THAT(names(), testing::ElementsAre("work", "höme ~"));

  AccountStore other(directory.path());
  auto found = other.accountWithIdentifier(added->identifier).value();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->userName, "ida");
  EXPECT_EQ(found->hostName, "docs.example.org");
  EXPECT_EQ(found->dataClassHostName, "other.example.org");
  EXPECT_EQ(found->dataClassPortNumber, 65535);
  EXPECT_EQ(other.accountWithName("work").value()->identifier, added->identifier);
  EXPECT_EQ(other.accountWithName("höme ~").value()->dataClassPortNumber, std::nullopt);
  EXPECT_FALSE(other.accountWithName("Work").value());
  EXPECT_EQ(other.credentials().password(added->identifier).value(), password);

  ASSERT_TRUE(other.remove(added->identifier));
  EXPECT_TRUE(store.remove(added->identifier).error().is(POSIXErrorDomain, ENOENT));
  EXPECT_EQ(store.credentials().password(added->identifier).value(), std::nullopt);
  EXPECT_THAT(names(), testing::ElementsAre("höme ~"));
}

TEST_F(AccountStoreTest, NamesAreLegalAndUnique) {
  for (const char* name : {"", "a:b", "a/b", "a\nb", "a\x7f", "\xff"}) {
    EXPECT_TRUE(store.add(accountNamed(name), password).error().is(POSIXErrorDomain, EINVAL)) << name;
  }
  EXPECT_FALSE(fileExists(credentialsFile()));

  // Of several processes that take one name at once a single one gets it.
  std::vector<pid_t> children;
  children.reserve(6);
  for (int i = 0; i < 6; ++i) {
    children.push_back(fork());
    if (children.back() == 0) {
      auto added = store.add(accountNamed("same"), password);
      _exit(added ? 0 : added.error().is(POSIXErrorDomain, EEXIST) ? 1 : 2);
    }
  }
  std::vector<int> outcomes;
  for (pid_t child : children) {
    int status = -1;
    waitpid(child, &status, 0);
    outcomes.push_back(WEXITSTATUS(status));
  }
  EXPECT_THAT(outcomes, testing::UnorderedElementsAre(0, 1, 1, 1, 1, 1));
  EXPECT_THAT(names(), testing::ElementsAre("same"));
}

TEST_F(AccountStoreTest, PasswordsThatOthersCouldReadAreRefused) {
  auto added = store.add(accountNamed("work"), password);
  ASSERT_TRUE(added);
  struct stat status{};
  ASSERT_EQ(stat(credentialsFile().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  EXPECT_EQ(readText(accountsFile()).find("geheim"), std::string::npos);

  std::string before = readText(credentialsFile());
  for (mode_t mode : {0640, 0604, 0620}) {
    ASSERT_EQ(chmod(credentialsFile().c_str(), mode), 0);
    auto refused = store.credentials().password(added->identifier);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().is(QuilbarErrorDomain, FileReadNoPermissionError));
    EXPECT_NE(refused.error().localizedDescription().find("chmod 600"), std::string::npos);
    EXPECT_FALSE(store.credentials().setPassword(added->identifier, Secret("new")));
    EXPECT_FALSE(store.add(accountNamed("second"), password));
    EXPECT_FALSE(store.remove(added->identifier));
  }
  EXPECT_THAT(names(), testing::ElementsAre("work"));
  EXPECT_EQ(readText(credentialsFile()), before);
  ASSERT_EQ(chmod(credentialsFile().c_str(), 0600), 0);
  EXPECT_EQ(store.credentials().password(added->identifier).value(), password);
}

TEST_F(AccountStoreTest, ADamagedRecordIsAnErrorThatNamesIt) {
  auto added = store.add(accountNamed("work"), password);
  ASSERT_TRUE(added);
  PreferencesStore file(accountsFile());
  auto damage = [&](const std::string& identifier, const std::string& key, const Value& value) {
    auto original = file.snapshot().value();
    EXPECT_TRUE(file.update([&](Dictionary& contents) {
      Dictionary record = *contents.dictionary(added->identifier);
      record.set(key, value);
      contents.set(identifier, record);
    }));
    auto accounts = store.accounts();
    EXPECT_FALSE(accounts);
    if (!accounts) {
      EXPECT_NE(accounts.error().localizedDescription().find(identifier), std::string::npos);
    }
    EXPECT_FALSE(store.add(accountNamed("second"), password));
    EXPECT_TRUE(file.update([&](Dictionary& contents) { contents = original; }));
  };
  damage(added->identifier, "Name", Value("a:b"));
  damage(added->identifier, "UserName", Value(1));
  damage(added->identifier, "DataClassPortNumber", Value(65536));
  damage("../../elsewhere", "Name", Value("other"));
  EXPECT_THAT(names(), testing::ElementsAre("work"));
}

}  // namespace
}  // namespace florvane
