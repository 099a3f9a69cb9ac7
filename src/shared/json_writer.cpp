#include "shared/json_writer.h"

#include <cstdint>
#include <cstring>

namespace palvin::json {

namespace {

// The length of the well-formed UTF-8 sequence at p, or 0 when there is none.
int sequenceLength(const unsigned char* p, const unsigned char* end) {
  unsigned char c = *p;
  if (c < 0x80) return 1;
  int extra;
  std::uint32_t cp;
  if (c >= 0xC2 && c <= 0xDF) {
    extra = 1;
    cp = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    extra = 2;
    cp = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    extra = 3;
    cp = c & 0x07;
  } else {
    return 0;  // continuation byte, overlong lead (C0, C1) or past F4
  }
  if (end - p <= extra) return 0;
  for (int i = 1; i <= extra; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (p[i] & 0x3F);
  }
  if ((extra == 2 && cp < 0x800) || (extra == 3 && cp < 0x10000) || cp > 0x10FFFF ||
      (cp >= 0xD800 && cp <= 0xDFFF)) {
    return 0;
  }
  return extra + 1;
}

}  // namespace

bool isValidUtf8(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const auto* end = p + s.size();
  while (p < end) {
    // Paths and names are mostly ASCII: eight bytes at a time until a byte
    // with the high bit set.
    while (end - p >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, sizeof word);
      if ((word & 0x8080808080808080ull) != 0) break;
      p += 8;
    }
    if (p == end) break;
    int n = sequenceLength(p, end);
    if (n == 0) return false;
    p += n;
  }
  return true;
}

std::string toValidUtf8(std::string_view s) {
  const auto* begin = reinterpret_cast<const unsigned char*>(s.data());
  const auto* p = begin;
  const auto* end = p + s.size();
  std::string out;
  out.reserve(s.size());
  while (p < end) {
    int n = sequenceLength(p, end);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      ++p;
    } else {
      out.append(s.substr(p - begin, n));
      p += n;
    }
  }
  return out;
}

bool appendString(std::string& out, std::string_view s, bool escapeSlash) {
  if (!isValidUtf8(s)) return false;
  static constexpr char kHex[] = "0123456789abcdef";
  out.reserve(out.size() + s.size() + 2);
  out.push_back('"');
  for (char ch : s) {
    auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '/':
        if (escapeSlash) out.push_back('\\');
        out.push_back('/');
        break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out.push_back(kHex[c >> 4]);
          out.push_back(kHex[c & 0xF]);
        } else {
          out.push_back(ch);
        }
    }
  }
  out.push_back('"');
  return true;
}

}  // namespace palvin::json
