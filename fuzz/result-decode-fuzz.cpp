// Any bytes as a result document: decoding answers without crashing, and a
// document that decodes encodes and decodes again to the same value.
#include "fuzz_check.h"
#include "requests/conversion_result.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace palvin;
  auto decoded = FinderConversionResult::decode(fuzz::bytes(data, size));
  if (!decoded.ok()) {
    FUZZ_CHECK(!decoded.error().empty());
    return 0;
  }
  auto encoded = decoded->encode();
  FUZZ_CHECK(encoded.ok());
  auto again = FinderConversionResult::decode(*encoded);
  FUZZ_CHECK(again.ok() && *again == *decoded);
  return 0;
}
