#include "common/FVFGenerationIdentifierUtils.h"
#include "common/FVFSignatureManager.h"
#include "platform/Encoding.h"
#include "tests/support/Process.h"
#include "tests/support/TestContainer.h"

#include <cerrno>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace florvane {
namespace {

using test::runProcess;
using test::TestContainer;
using test::writeText;
using Utils = FVFGenerationIdentifierUtils;

// Words in the machine's byte order.
Data words(const std::vector<std::uint32_t>& list) { return {list.data(), list.size() * sizeof(std::uint32_t)}; }

TEST(GenerationIdentifierTest, IsTwelveBytesWithAThirdWordOrNothing) {
  EXPECT_EQ(Utils::normalizedGenerationIdentifier(words({1, 2, 3, 4})), words({1, 2, 3}));
  EXPECT_EQ(Utils::normalizedGenerationIdentifier(words({0, 0, 0x01000000})), words({0, 0, 0x01000000}));
  EXPECT_EQ(Utils::normalizedGenerationIdentifier(words({1, 2, 0})), std::nullopt);
  EXPECT_EQ(Utils::normalizedGenerationIdentifier(words({1, 2, 0, 4})), std::nullopt);
  EXPECT_EQ(Utils::normalizedGenerationIdentifier(words({1, 2, 3, 4, 5})), std::nullopt);
  EXPECT_EQ(Utils::normalizedGenerationIdentifier(Data::fromString("8 bytes!")), std::nullopt);
  EXPECT_EQ(Utils::normalizedGenerationIdentifier(Data()), std::nullopt);
  EXPECT_EQ(Utils::normalizedGenerationIdentifier(std::nullopt), std::nullopt);
}

TEST(GenerationIdentifierTest, FilesFallBackToTheirSignatureAndPackagesDoNot) {
  TestContainer container;
  URL url = URL::fileURL(container.file("file"));
  writeText(url.path(), "contents");
  auto generation = Utils::generationIdentifierForItemWithURL(url);
  ASSERT_TRUE(generation && *generation);
  EXPECT_EQ((*generation)->size(), 12U);
  EXPECT_EQ(Utils::versionIdentifierForFileWithURL(url).value(), *generation);
  EXPECT_TRUE(Utils::versionIdentifierForPackageWithURL(URL::fileURL(container.path())).value());

  auto fallback = Utils::versionIdentifier(words({1, 2, 0}), url);
  ASSERT_TRUE(fallback && *fallback);
  EXPECT_EQ((*fallback)->size(), 21U);
  // A file system that keeps no generations.
  auto kernels = Utils::versionIdentifierForFileWithURL(URL::fileURL("/proc/version"));
  ASSERT_TRUE(kernels && *kernels);
  EXPECT_EQ((*kernels)->size(), 21U);
  EXPECT_EQ(Utils::versionIdentifierForPackageWithURL(URL::fileURL("/proc/self")).value(), std::nullopt);

  auto missing = Utils::versionIdentifierForFileWithURL(URL::fileURL(container.file("none")));
  ASSERT_FALSE(missing);
  EXPECT_TRUE(missing.error().is(QuilbarErrorDomain, FileReadNoSuchFileError)) << "no signature after an error";
}

TEST(GenerationIdentifierTest, SignaturesAreOfTheContentsAlone) {
  TestContainer container;
  auto& manager = FVFSignatureManager::sharedInstance();
  EXPECT_EQ(&manager, &FVFSignatureManager::sharedInstance());
  for (std::size_t size : {std::size_t{0}, std::size_t{5}, std::size_t{1'000'003}}) {
    URL url = URL::fileURL(container.file("file " + std::to_string(size)));
    writeText(url.path(), std::string(size, 'x'));
    auto judge = runProcess({"sha256sum", url.path()});
    auto signature = manager.signatureOfFileAtURL(url);
    ASSERT_TRUE(signature);
    EXPECT_EQ(hexEncode(*signature), "01" + judge.standardOutput.substr(0, 40));
  }
  URL missing = URL::fileURL(container.file("not there"));
  for (const auto& [url, code] : {std::pair(missing, ENOENT), std::pair(URL::fileURL(container.path()), EISDIR)}) {
    auto refused = manager.signatureOfFileAtURL(url);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().is(POSIXErrorDomain, code));
    EXPECT_EQ(refused.error().userInfo().string("url"), url.absoluteString());
  }
}

}  // namespace
}  // namespace florvane
