#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "host/image_catalogue.h"

namespace palvin::host {
namespace {

// As ImageIO and the type system describe a few types on a Mac, with the odd
// cases beside them.
std::vector<ImageType> someTypes() {
  return {
      {"public.png", "png", {"png"}, "PNG image", true, true},
      {"public.jpeg", "jpeg", {"jpeg", "JPG", ".jpe"}, "JPEG image", true, true},
      {"org.webmproject.webp", "webp", {"webp"}, "WebP image", true, false},
      {"com.example.raw", "", {"raw"}, "Camera raw", true, false},
      {"com.example.writeonly", "wo", {"wo"}, "", false, true},
      {"com.example.neither", "nei", {"nei"}, "", false, false},
      {"public.zz-png-again", "PNG", {"png", "png2"}, "", true, true},
  };
}

TEST(HostCatalogue, ExactlyWhatImageIOReadsAndWrites) {
  ImageCatalogue catalogue = buildImageCatalogue(someTypes(), "2026-01-02T03:04:05.678Z");
  const FinderCapabilities& c = catalogue.capabilities;
  // Identifier order; the second "png" is dropped; the type without an
  // extension is known by its identifier; only writable types are targets.
  EXPECT_EQ(
      c.encode(false),
      R"({"schemaVersion":1,"generatedAt":"2026-01-02T03:04:05.678Z","categories":[{"id":"image",)"
      R"("label":"Images","icon":"photo"}],"formats":[{"id":"com.example.raw","displayName":"Camera raw",)"
      R"("category":"image","primaryExtension":""},{"id":"wo","displayName":"WO","category":"image",)"
      R"("primaryExtension":"wo"},{"id":"webp","displayName":"WebP","category":"image","primaryExtension":)"
      R"("webp"},{"id":"jpeg","displayName":"JPEG","category":"image","primaryExtension":"jpeg"},{"id":)"
      R"("png","displayName":"PNG","category":"image","primaryExtension":"png"}],"extensionToFormatId":)"
      R"({"jpe":"jpeg","jpeg":"jpeg","jpg":"jpeg","png":"png","raw":"com.example.raw","webp":"webp"},)"
      R"("conversions":{"com.example.raw":["wo","jpeg","png"],"jpeg":["wo","png"],"png":["wo","jpeg"],)"
      R"("webp":["wo","jpeg","png"]}})");
  EXPECT_EQ(catalogue.typeByFormatId.at("jpeg"), "public.jpeg");

  // The same document whatever order ImageIO lists the types in.
  auto shuffled = someTypes();
  std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
  EXPECT_EQ(buildImageCatalogue(shuffled, c.generatedAt).capabilities.encode(true), c.encode(true));
}

TEST(HostCatalogue, InstalledWhenOursIsNewer) {
  const std::string at = "2026-05-01T10:00:00.000Z";
  auto document = [](std::string generatedAt, std::string title = "") {
    FinderCapabilities c = buildImageCatalogue(someTypes(), std::move(generatedAt)).capabilities;
    if (!title.empty()) c.convertMenuTitle = title;
    return c.encode(true);
  };
  const std::string ours = document(at);
  struct Case {
    const char* what;
    Result<std::string> installed;
    std::string ourGeneratedAt;
    bool install;
  };
  const Case cases[] = {
      {"none installed", Error{"missing"}, at, true},
      {"an unusable one", std::string("{\"schemaVersion\":"), at, true},
      {"one from an older build", document("2026-04-30T23:59:59.999Z"), at, true},
      {"one from a newer build", document("2026-05-01T10:00:00.001Z"), at, false},
      {"this build's, unchanged", ours, at, false},
      {"this build's, but ImageIO changed", document(at, "other"), at, true},
      {"one whose time is not ours to order", document("yesterday"), at, true},
      {"ours of unknown age over a dated one", document(at), "", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(shouldInstallCatalogue(ours, c.ourGeneratedAt, c.installed), c.install) << c.what;
  }
}

}  // namespace
}  // namespace palvin::host
