#include "common/FVFRequestUtils.h"
#include "tests/support/Process.h"

#include <gtest/gtest.h>

namespace florvane {
namespace {

using Items = FVFRequestUtils::QueryItems;

const Data kDocument("\x0a\x1b", 2), kVersion("\x01", 1), kParent("\xff\x00", 2), kParentVersion("\x02", 1),
    kShare("\x7f", 1);

std::string queryOf(const std::string& uri, const Items& items) {
  return URL::fromString("https://server:1")->resolving(uri)->withQueryItems(items).absoluteString();
}

TEST(RequestUtils, WritesEveryCommandWithItsItemsInOrder) {
  Items items;
  EXPECT_EQ(FVFRequestUtils::URIForContentsOfVirtualRootDirectory(), "fv/v1/root");
  std::string uri = FVFRequestUtils::URIForContentsOfDirectoryWithDocumentIdentifier(kDocument, kShare, &items);
  EXPECT_EQ(queryOf(uri, items), "https://server:1/fv/v1/ls?d=0a1b&s=7f");
  uri = FVFRequestUtils::URIForContentsOfFileWithDocumentIdentifier(kDocument, kShare, &items);
  EXPECT_EQ(queryOf(uri, items), "https://server:1/fv/v1/cat?d=0a1b&s=7f");
  uri = FVFRequestUtils::URIForWatchWithSharepointDocumentIdentifier(kShare, &items);
  EXPECT_EQ(queryOf(uri, items), "https://server:1/fv/v1/watch?s=7f");
  uri = FVFRequestUtils::URIForReplaceFileWithDocumentIdentifier(kDocument, kVersion, kParent, kParentVersion, kShare,
                                                                 &items);
  EXPECT_EQ(queryOf(uri, items), "https://server:1/fv/v1/replace?d=0a1b&v=01&D=ff00&V=02&s=7f");
  uri = FVFRequestUtils::URIForReplaceFileWithDocumentIdentifier(kDocument, std::nullopt, std::nullopt, std::nullopt,
                                                                 kShare, &items);
  EXPECT_EQ(queryOf(uri, items), "https://server:1/fv/v1/replace?d=0a1b&s=7f");
  uri = FVFRequestUtils::URIForWriteFileWithName("a b.txt", kParent, Data(), kShare, &items);
  EXPECT_EQ(queryOf(uri, items), "https://server:1/fv/v1/write?n=a%2520b.txt&D=ff00&V=&s=7f");
}

TEST(RequestUtils, NamesComeBackWholeThroughTwoDecodings) {
  for (std::string name : {"100% sure.txt", "a&b=c+d#e?f.txt", "%25", "grün 🙂.pdf", "back\\slash\"quote'"}) {
    Items items;
    std::string uri = FVFRequestUtils::URIForWriteFileWithName(name, kParent, std::nullopt, kShare, &items);
    std::string url = queryOf(uri, items);
    EXPECT_EQ(FVFRequestUtils::nameFromURIQueryItems(URL::fromString(url)->queryItems()), name);
    auto judged = test::runPython(
        "import sys,urllib.parse as p\n"
        "q=dict(p.parse_qsl(p.urlsplit(sys.argv[1]).query.replace('+','%2B')));print(p.unquote(q['n']),end='')",
        {url});
    EXPECT_EQ(judged.standardOutput, name);
  }
}

TEST(RequestUtils, TakesItemsApartAndTellsAbsentFromEmpty) {
  Items items{{"d", "0A1b"}, {"d", "ff"}, {"v", ""}, {"s", "xyz"}, {"V", std::nullopt}, {"n", "%zz"}};
  EXPECT_EQ(FVFRequestUtils::documentIdentifierFromURIQueryItems(items), kDocument);
  EXPECT_EQ(FVFRequestUtils::versionIdentifierFromURIQueryItems(items), Data());
  EXPECT_EQ(FVFRequestUtils::parentDocumentIdentifierFromURIQueryItems(items), std::nullopt);
  EXPECT_EQ(FVFRequestUtils::parentVersionIdentifierFromURIQueryItems(items), std::nullopt);
  EXPECT_EQ(FVFRequestUtils::sharepointDocumentIdentifierFromURIQueryItems(items), std::nullopt);
  EXPECT_EQ(FVFRequestUtils::nameFromURIQueryItems(items), std::nullopt);
}

TEST(RequestUtils, TakesPathStyleRequestsApart) {
  auto components = FVFRequestUtils::URIComponentsFromPath("/fv/v1/write/a%20b/ff00");
  EXPECT_EQ(FVFRequestUtils::versionFromURIComponents(components), "v1");
  EXPECT_EQ(FVFRequestUtils::commandFromURIComponents(components), "write");
  EXPECT_EQ(FVFRequestUtils::nameFromWriteFileURIComponents(components), "a b");
  EXPECT_EQ(FVFRequestUtils::parentDocumentIdentifierFromWriteFileURIComponents(components), kParent);
  components = FVFRequestUtils::URIComponentsFromPath("/fv/v1/cat/0a1b");
  EXPECT_EQ(FVFRequestUtils::documentIdentifierFromContentsOfFileURIComponents(components), kDocument);
  EXPECT_EQ(FVFRequestUtils::parentDocumentIdentifierFromWriteFileURIComponents(components), std::nullopt);
  EXPECT_EQ(FVFRequestUtils::commandFromURIComponents(FVFRequestUtils::URIComponentsFromPath("/fv/v1")), std::nullopt);
  EXPECT_TRUE(FVFRequestUtils::URIComponentsFromPath("").empty());
}

}  // namespace
}  // namespace florvane
