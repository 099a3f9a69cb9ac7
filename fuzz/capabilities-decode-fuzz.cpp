// Any bytes as "capabilities.json": decoding and the developers' check must
// answer without crashing, and agree on whether the document decodes.
#include "catalogue/capabilities.h"
#include "catalogue/capabilities_check.h"
#include "fuzz_check.h"
#include "platform/linux_text.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace palvin;
  const std::string_view text = fuzz::bytes(data, size);
  auto decoded = FinderCapabilities::decode(text);
  FUZZ_CHECK(decoded.ok() || !decoded.error().empty());

  const CapabilityCheckReport report = checkCapabilities(text, *linux_text::currentRules());
  FUZZ_CHECK(report.usable == (decoded.ok() && decoded->schemaVersion == 1));
  if (!decoded.ok()) FUZZ_CHECK(!report.findings.empty());
  return 0;
}
