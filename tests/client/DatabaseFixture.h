#pragma once

#include "Client/Client/DCDatabase.h"
#include "platform/FileSystem.h"
#include "tests/support/ManualClock.h"
#include "tests/support/Process.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TestContainer.h"

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace florvane {

inline Data bytes(std::string_view text) { return Data::fromString(text); }

// A container whose stores a test opens, looks into from outside, and damages.
class DatabaseFixture : public testing::Test {
 protected:
  std::shared_ptr<DCDatabase> open(const std::string& identifier = "service") {
    return std::make_shared<DCDatabase>(DCService::serviceWithHostName("host", identifier), clock_);
  }
  std::string file(const std::string& name) { return container_.file("Metadata/db/" + name); }
  std::vector<std::string> filesNamed(const std::string& part) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(file(""))) {
      std::string name = entry.path().filename().string();
      if (name.find(part) != std::string::npos) names.push_back(name);
    }
    return names;
  }
  // Stores set aside; each may have its log beside it.
  std::size_t setAside() {
    std::size_t count = 0;
    for (const std::string& name : filesNamed(".damaged-2")) count += name.ends_with("Z") ? 1 : 0;
    return count;
  }
  // The outside judge: the results of statements, which stand on a line each.
  std::string sql(const std::string& statements) {
    auto result = test::runPython(
        "import sqlite3,sys\nc=sqlite3.connect(sys.argv[1])\n"
        "for s in sys.argv[2].split('\\n'):\n for r in c.execute(s): print(*r)\nc.commit()\n",
        {file("service.sqlite"), statements});
    EXPECT_EQ(result.exitStatus, 0) << result.standardError;
    return result.standardOutput;
  }
  // Fills the first page of a table or an index with nothing.
  void damage(const std::string& name) {
    auto result = test::runPython(
        "import sqlite3,sys\nc=sqlite3.connect(sys.argv[1])\nc.execute('PRAGMA wal_checkpoint(TRUNCATE)')\n"
        "s=c.execute('PRAGMA page_size').fetchone()[0]\n"
        "p=c.execute('SELECT rootpage FROM sqlite_master WHERE name=?',(sys.argv[2],)).fetchone()[0]\nc.close()\n"
        "f=open(sys.argv[1],'r+b')\nf.seek((p-1)*s)\nf.write(b'\\xff'*s)\n",
        {file("service.sqlite"), name});
    ASSERT_EQ(result.exitStatus, 0) << result.standardError;
  }
  void expectLogged(const std::string& part, int level) {
    for (const auto& message : log_.messages()) {
      if (message.text.find(part) == std::string::npos) continue;
      EXPECT_EQ(message.level, level);
      return;
    }
    ADD_FAILURE() << "not logged: " << part;
  }

  test::TestContainer container_;
  test::RecordingSystemLog log_;
  test::ManualClock clock_;
};

}  // namespace florvane
