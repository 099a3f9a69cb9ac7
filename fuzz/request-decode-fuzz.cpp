// Any bytes as a request file: decoding answers without crashing.
#include "fuzz_check.h"
#include "requests/request.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace palvin;
  auto decoded = FinderConversionRequest::decode(fuzz::bytes(data, size));
  FUZZ_CHECK(decoded.ok() || !decoded.error().empty());
  return 0;
}
