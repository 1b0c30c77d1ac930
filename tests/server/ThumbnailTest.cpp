#include "server/PictureHeader.h"
#include "tests/server/StoreFixture.h"

#include <memory>

#include <gd.h>

namespace florvane::test {
namespace {

class ThumbnailTest : public StoreFixture {
 protected:
  using Encoder = void* (*)(gdImagePtr, int*);

  static std::string encoded(int width, int height, Encoder encoder) {
    const std::unique_ptr<gdImage, decltype(&gdImageDestroy)> image(gdImageCreateTrueColor(width, height),
                                                                    gdImageDestroy);
    gdImageFilledRectangle(image.get(), 0, 0, width, height / 2, gdTrueColor(255, 0, 0));
    int size = 0;
    const std::unique_ptr<void, decltype(&gdFree)> bytes(encoder(image.get(), &size), gdFree);
    return {static_cast<const char*>(bytes.get()), static_cast<std::size_t>(size)};
  }
  static Data thumbnailOf(const Dictionary& file) {
    return file.data(FVFileThumbnailDocumentIdentifierKey).value_or(Data());
  }
  static std::optional<PictureHeader> header(const std::string& bytes) {
    return PictureHeader::read({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
  }
};

TEST_F(ThumbnailTest, MakesSmallPNGsOfEveryKind) {
  const std::pair<const char*, Encoder> kinds[] = {
      {"a.png", gdImagePngPtr},
      {"b.gif", gdImageGifPtr},
      {"c.jpg", [](gdImagePtr image, int* size) { return gdImageJpegPtr(image, size, 90); }},
      {"d.webp", gdImageWebpPtr},
      {"e.bmp", [](gdImagePtr image, int* size) { return gdImageBmpPtr(image, size, 0); }}};
  for (const auto& [name, encoder] : kinds) make(name, encoded(600, 300, encoder));
  make("small.png", encoded(20, 30, gdImagePngPtr));
  make("text.txt");
  open();
  const Entries listed = entries(share());
  for (const auto& [name, encoder] : kinds) {
    const auto picture = header(read(thumbnailOf(listed.at(name))));
    ASSERT_TRUE(picture) << name;
    EXPECT_EQ(picture->kind, PictureKind::PNG);
    EXPECT_EQ(picture->width, 256U) << name;
    EXPECT_EQ(picture->height, 128U) << name;
  }
  EXPECT_EQ(header(read(thumbnailOf(listed.at("small.png"))))->width, 20U);
  EXPECT_FALSE(listed.at("text.txt").contains(FVFileThumbnailDocumentIdentifierKey));

  const Dictionary file = listed.at("a.png");
  const auto opened = store->contents(thumbnailOf(file), {}, {});
  ASSERT_TRUE(opened);
  std::string hex;
  for (const std::uint8_t byte : identifier(file)) {
    hex += "0123456789abcdef"[byte >> 4];
    hex += "0123456789abcdef"[byte & 15];
  }
  EXPECT_EQ(opened->metadata.string(ResourceNameKey), hex + ".png");
  EXPECT_EQ(identifier(opened->metadata), thumbnailOf(file));
  EXPECT_EQ(opened->metadata.date(ResourceContentModificationDateKey), file.date(ResourceContentModificationDateKey));
  EXPECT_TRUE(store->contents(thumbnailOf(file), {}, opened->version)->notModified);

  make("a.png", encoded(100, 400, gdImagePngPtr));
  const Dictionary edited = entry("a.png");
  EXPECT_EQ(thumbnailOf(edited), thumbnailOf(file));
  EXPECT_EQ(header(read(thumbnailOf(edited)))->width, 64U);
}

TEST_F(ThumbnailTest, RefusesWhatIsNoPictureOrTooLarge) {
  const std::string png = encoded(300, 300, gdImagePngPtr);
  make("text.png", "no picture at all, only words");
  make("cut.png", png.substr(0, 60));
  std::string huge = png;
  for (const std::size_t offset : {16U, 20U}) huge.replace(offset, 4, std::string("\0\0\xEA\x60", 4));
  make("huge.png", huge);
  std::string jpeg = encoded(30, 30, [](gdImagePtr image, int* size) { return gdImageJpegPtr(image, size, 90); });
  make("cut.jpg", jpeg.substr(0, 20));
  open();
  for (const auto& [name, file] : entries(share())) {
    EXPECT_EQ(read(thumbnailOf(file)), "status 404") << name;
    EXPECT_GT(read(identifier(file)).size(), 0U);
  }
}

}  // namespace
}  // namespace florvane::test
