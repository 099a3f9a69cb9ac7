#include "shared/json_writer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <limits>
#include <locale>
#include <sstream>
#include <utility>

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

// Streams in the classic locale: their decimal point is '.' whatever the
// global C and C++ locales are.
std::string scientific(double value, int precision) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out << std::scientific << std::setprecision(precision) << value;
  return out.str();
}

bool readsBackAs(const std::string& text, double value) {
  std::istringstream in(text);
  in.imbue(std::locale::classic());
  double back = 0;
  in >> back;
  // Out of range fails; a subnormal may fail too (underflow) and still be read exactly.
  if (in.fail() && !(value < std::numeric_limits<double>::min())) return false;
  return back == value;
}

// Significant digits and decimal exponent of a positive finite value: the
// fewest digits that read back as it (nearest first, then the next one up,
// which the wider gap above a power of two can admit).
std::pair<std::string, int> shortestDigits(double value) {
  for (int precision = 0;; ++precision) {
    const std::string text = scientific(value, precision);
    const std::size_t e = text.find('e');
    std::string digits = text.substr(0, e);
    if (digits.size() > 1) digits.erase(1, 1);  // the point
    const int exponent = std::stoi(text.substr(e + 1));
    if (precision >= 16 || readsBackAs(text, value)) return {digits, exponent};
    std::string up = digits;
    std::size_t i = up.size();
    while (i > 0 && up[i - 1] == '9') up[--i] = '0';
    if (i == 0) continue;  // rounds up to a power of ten: fewer digits, tried already
    ++up[i - 1];
    const std::string candidate = up.substr(0, 1) + "." + up.substr(1) + "e" + std::to_string(exponent);
    if (readsBackAs(candidate, value)) return {up, exponent};
  }
}

}  // namespace

std::string formatNumber(double value) {
  if (std::isnan(value)) return std::signbit(value) ? "-nan" : "nan";
  const std::string sign = std::signbit(value) ? "-" : "";
  if (std::isinf(value)) return sign + "inf";
  if (value == 0) return sign + "0";
  const auto [digits, exponent] = shortestDigits(std::fabs(value));
  const int n = static_cast<int>(digits.size());
  const int exponentDigits = std::max(2, static_cast<int>(std::to_string(std::abs(exponent)).size()));
  const int scientificLength = n + (n > 1 ? 1 : 0) + 2 + exponentDigits;
  const int plainLength = exponent >= n - 1 ? exponent + 1 : (exponent >= 0 ? n + 1 : n + 1 - exponent);
  if (plainLength <= scientificLength) {
    if (exponent >= n - 1) {
      // A whole number: its exact digits, not the shortest ones padded with zeros.
      std::ostringstream out;
      out.imbue(std::locale::classic());
      out << std::fixed << std::setprecision(0) << value;
      return out.str();
    }
    if (exponent >= 0) return sign + digits.substr(0, exponent + 1) + "." + digits.substr(exponent + 1);
    return sign + "0." + std::string(-exponent - 1, '0') + digits;
  }
  std::string text = sign + digits.substr(0, 1);
  if (n > 1) text += "." + digits.substr(1);
  std::string power = std::to_string(std::abs(exponent));
  if (power.size() < 2) power.insert(0, "0");
  return text + (exponent < 0 ? "e-" : "e+") + power;
}

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
