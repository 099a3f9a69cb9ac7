// Whatever decodes, encodes (decoded text is always UTF-8), decodes again to
// the same request, and encodes again to the very same bytes: the compact form
// has exactly one spelling per request.
#include "fuzz_check.h"
#include "requests/request.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace palvin;
  auto decoded = FinderConversionRequest::decode(fuzz::bytes(data, size));
  if (!decoded.ok()) return 0;

  auto encoded = decoded->encode();
  FUZZ_CHECK(encoded.ok());
  FUZZ_CHECK(encoded->find('\n') == std::string::npos);
  for (std::size_t slash = encoded->find('/'); slash != std::string::npos;
       slash = encoded->find('/', slash + 1)) {
    FUZZ_CHECK(slash > 0 && (*encoded)[slash - 1] == '\\');
  }
  auto again = FinderConversionRequest::decode(*encoded);
  FUZZ_CHECK(again.ok());
  FUZZ_CHECK(*again == *decoded);
  auto reencoded = again->encode();
  FUZZ_CHECK(reencoded.ok());
  FUZZ_CHECK(*reencoded == *encoded);
  return 0;
}
