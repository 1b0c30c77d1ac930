#include "common/FVFDictionaryUtils.h"
#include "common/FVFMetadataUtils.h"
#include "common/FVFResponseContainer.h"
#include "common/FVFTimeUtils.h"
#include "platform/ResourceValues.h"
#include "platform/SystemLog.h"
#include "tests/support/TemporaryDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace florvane {
namespace {

class CollectedLog : public SystemLog {
 public:
  CollectedLog() { setShared(this); }
  ~CollectedLog() override { setShared(nullptr); }
  void write(const SystemLogMessage& message) override { messages.push_back(message); }
  std::vector<SystemLogMessage> messages;
};

TEST(ResponseContainer, ArchivesComeBackAndForeignValuesAreRefused) {
  CollectedLog log;
  Dictionary metadata{
      {ResourceNameKey, "a"}, {FVDocumentIdentifierKey, Data("\x01", 1)}, {"nested", Dictionary{{"n", 1}}}};
  auto container = FVFResponseContainer::containerWithURL(URL::fileURL("/tmp/body"), 4, metadata);
  auto decoded = FVFResponseContainer::containerWithArchive(container->archive());
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->url(), container->url());
  EXPECT_EQ(decoded->transferType(), FVFResponseContainerTransferTypeDropBoxFile);
  EXPECT_EQ(decoded->metadata(), metadata);
  EXPECT_TRUE(log.messages.empty());

  Dictionary archive = container->archive();
  for (const Value& bad :
       {Value(Array{1}), Value(Dictionary{{ResourceNameKey, Dictionary{{"deep", Array{}}}}}), Value("text")}) {
    archive.set("metadata", bad.kind() == Value::Kind::Array ? Value(Dictionary{{"list", bad}}) : bad);
    EXPECT_FALSE(FVFResponseContainer::containerWithArchive(archive)) << bad.description();
  }
  archive = container->archive();
  archive.set("transferType", std::int64_t{1} << 32);
  EXPECT_FALSE(FVFResponseContainer::containerWithArchive(archive));
}

TEST(ResponseContainer, MetadataWithoutANameIsReportedAndKept) {
  CollectedLog log;
  auto container = FVFResponseContainer::containerWithURL(std::nullopt, 1, Dictionary{{"size", 3}});
  ASSERT_EQ(log.messages.size(), 1U);
  EXPECT_EQ(log.messages[0].level, 3);
  EXPECT_EQ(log.messages[0].text,
            "-[FVFResponseContainer initWithURL:transferType:metadata:] metadata missing ResourceNameKey {size = 3}");
  EXPECT_TRUE(container->metadata());
  EXPECT_NE(container->debugDescription().find(" url='(null)', fileHandle=(null), type=1, metadata={size = 3}>"),
            std::string::npos);
}

TEST(DictionaryUtils, ADifferenceAppliedToTheFirstGivesTheSecond) {
  Dictionary a{{"same", 1},
               {"changed", 1},
               {"kind", 5},
               {"gone", "x"},
               {"nested", Dictionary{{"in", 1}, {"lost", 2}}},
               {"equal", Dictionary{{"k", 1}}}};
  Dictionary b{{"same", 1.0},
               {"changed", 2},
               {"kind", "5"},
               {"new", Array{1}},
               {"nested", Dictionary{{"in", 3}}},
               {"equal", Dictionary{{"k", 1}}}};
  Dictionary difference = FVFDictionaryUtils::differencesBetweenDictionary(a, b);
  Dictionary expected{{"changed", 2},
                      {"kind", "5"},
                      {"new", Array{1}},
                      {"nested", Dictionary{{"in", 3}, {DUDictionaryDifferenceRemovedKeys, Array{"lost"}}}},
                      {DUDictionaryDifferenceRemovedKeys, Array{"gone"}}};
  EXPECT_EQ(Value(difference), Value(expected)) << Value(difference).description();
  ASSERT_TRUE(FVFDictionaryUtils::applyDictionaryDifferences(difference, a));
  EXPECT_TRUE(FVFDictionaryUtils::differencesBetweenDictionary(a, b).empty());

  Dictionary untouched = a;
  EXPECT_TRUE(FVFDictionaryUtils::applyDictionaryDifferences({}, a));
  EXPECT_FALSE(
      FVFDictionaryUtils::applyDictionaryDifferences({{"x", 1}, {DUDictionaryDifferenceRemovedKeys, "no list"}}, a));
  EXPECT_TRUE(a == untouched);
  EXPECT_TRUE(fv_isEqualToNumber(1, fv_dictionaryForKeys({{"n", 1.0}, {"m", 2}}, {"n", "absent"}).find("n")));
  EXPECT_FALSE(fv_isEqualToNumber(1, nullptr));
}

TEST(MetadataUtils, SetsTheDateOfTheFileItselfAndNeverThroughALink) {
  test::TemporaryDirectory folder;
  std::string path = folder.file("a"), link = folder.file("link");
  test::writeText(path, "x");
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  Date date = Date::fromMicroseconds(1'700'000'000'123'457);
  Dictionary values{{ResourceContentModificationDateKey, date},
                    {ResourceNameKey, "b"},
                    {"FVOther", 1},
                    {ResourceCreationDateKey, date}};
  ASSERT_TRUE(FVFMetadataUtils::setMetadataOnURL(URL::fileURL(path), values));
  struct stat status{};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(Date::fromTimespec(status.st_mtim), date);
  auto refused = FVFMetadataUtils::setMetadataOnURL(URL::fileURL(link), values);
  ASSERT_FALSE(refused);
  EXPECT_TRUE(refused.error().is(POSIXErrorDomain, ELOOP));
  FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(FVFMetadataUtils::setTimespecForFD(file.get(), FVCommonAttribute::AddedTime, {})
                  .error()
                  .is(POSIXErrorDomain, ENOTSUP));
}

TEST(TimeUtils, FractionsSplitDownwards) {
  timeval value{};
  FVFTimeUtils::setTimeVal(value, Date::fromMicroseconds(-1));
  EXPECT_EQ(value.tv_sec, -1);
  EXPECT_EQ(value.tv_usec, 999'999);
  timespec spec{};
  FVFTimeUtils::setTimeSpec(spec, value);
  EXPECT_EQ(spec.tv_nsec, 999'999'000);
  EXPECT_NEAR(FVFTimeUtils::timeIntervalWithTimeSpec(spec), -0.000001, 1e-12);
  EXPECT_DOUBLE_EQ(FVFTimeUtils::timeIntervalWithTimeVal({3, 250'000}), 3.25);
}

}  // namespace
}  // namespace florvane
