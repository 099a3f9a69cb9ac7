// Whatever decodes, encodes to a document that decodes to the same record, in
// both the compact and the pretty form, and encoding that again changes
// nothing.
#include "catalogue/capabilities.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace palvin;
  auto decoded = FinderCapabilities::decode(fuzz::bytes(data, size));
  if (!decoded.ok()) return 0;

  for (bool pretty : {false, true}) {
    const std::string encoded = decoded->encode(pretty);
    auto again = FinderCapabilities::decode(encoded);
    FUZZ_CHECK(again.ok());
    FUZZ_CHECK(*again == *decoded);
    FUZZ_CHECK(again->encode(pretty) == encoded);
  }
  return 0;
}
