#include "catalogue/capabilities.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include "shared/json_writer.h"

namespace palvin {
namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

constexpr std::string_view kUtf8Bom = "\xEF\xBB\xBF";

// Length of the UTF-8 sequence at the start of `rest`, or 0 when it does not start with a
// well-formed one.
std::size_t validUtf8Length(std::string_view rest) {
  for (std::size_t len = 1; len <= 4 && len <= rest.size(); ++len) {
    if (json::isValidUtf8(rest.substr(0, len))) return len;
  }
  return 0;
}

// Strings that are not UTF-8 are written with each offending byte replaced by
// U+FFFD, so that encoding always yields valid JSON.
void appendStringLossy(std::string& out, std::string_view s) {
  if (!json::appendString(out, s)) json::appendString(out, json::toValidUtf8(s));
}

std::string formatDouble(double d) {
  std::array<char, 32> buf{};
  auto [end, ec] = std::to_chars(buf.data(), buf.data() + buf.size(), d);
  return ec == std::errc() ? std::string(buf.data(), end) : std::string("?");
}

// ----------------------------------------------------------------------------------------------
// Locating syntax errors. simdjson says what kind of error it met but not where, so on the failure
// path only the text is scanned again by this strict, iterative RFC 8259 checker. It reports the
// first error in the text with its offset. It follows simdjson where RFC 8259 leaves a choice
// (nesting limit, number range, unpaired surrogate escapes), so that both reject the same texts.

struct SyntaxError {
  std::string what;
  std::optional<std::size_t> offset;  // absent when no position helps (an empty document)
};

class SyntaxScanner {
 public:
  SyntaxScanner(std::string_view text, std::size_t start, std::size_t maxDepth)
      : text_(text), pos_(start), maxDepth_(maxDepth) {}

  // The first syntax error, or nothing when the text is well-formed.
  std::optional<SyntaxError> firstError();

 private:
  enum class Expect { Value, ValueOrClose, Name, NameOrClose, Colon, CommaOrClose, End };

  bool atEnd() const { return pos_ >= text_.size(); }
  unsigned char peek() const { return static_cast<unsigned char>(text_[pos_]); }
  void skipWhitespace();
  std::string found() const;  // what stands at pos_, for "expected X, found Y"
  std::optional<SyntaxError> fail(std::string what, std::size_t offset) const {
    return SyntaxError{std::move(what), offset};
  }
  std::optional<SyntaxError> string();
  std::optional<SyntaxError> number();
  std::optional<SyntaxError> literal();
  std::optional<SyntaxError> unicodeEscape(std::size_t escape, std::uint32_t& codePoint);

  std::string_view text_;
  std::size_t pos_;
  std::size_t maxDepth_;
};

void SyntaxScanner::skipWhitespace() {
  while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) ++pos_;
}

std::string SyntaxScanner::found() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  if (atEnd()) return "end of input";
  unsigned char c = peek();
  if (c == '\'') return "\"'\"";
  if (c > 0x20 && c < 0x7F) return std::string{'\'', static_cast<char>(c), '\''};
  std::size_t len = validUtf8Length(text_.substr(pos_));
  if (len == 0) return std::string("invalid UTF-8 byte 0x") + kHex[c >> 4] + kHex[c & 0xF];
  std::uint32_t cp = len == 1 ? c : c & (0x7F >> len);
  for (std::size_t i = 1; i < len; ++i) cp = (cp << 6) | (static_cast<unsigned char>(text_[pos_ + i]) & 0x3F);
  std::string hex;
  for (int shift = cp > 0xFFFF ? 20 : 12; shift >= 0; shift -= 4) hex.push_back(kHex[(cp >> shift) & 0xF]);
  return "U+" + hex;
}

std::optional<SyntaxError> SyntaxScanner::firstError() {
  // One byte per open container, '[' or '{'; bounded by the nesting limit.
  std::vector<char> open;
  skipWhitespace();
  if (atEnd()) return SyntaxError{"empty document", std::nullopt};
  Expect expect = Expect::Value;
  auto afterValue = [&] { expect = open.empty() ? Expect::End : Expect::CommaOrClose; };
  while (true) {
    skipWhitespace();
    if (expect == Expect::End) {
      if (atEnd()) return std::nullopt;
      return fail("expected end of input after the top-level value, found " + found(), pos_);
    }
    const char c = atEnd() ? '\0' : static_cast<char>(peek());
    switch (expect) {
      case Expect::Value:
      case Expect::ValueOrClose:
        if (expect == Expect::ValueOrClose && !atEnd() && c == ']') {
          open.pop_back();
          ++pos_;
          afterValue();
          break;
        }
        if (atEnd()) return fail("expected a value, found end of input", pos_);
        if (c == '[' || c == '{') {
          if (open.size() >= maxDepth_) {
            return fail("nesting deeper than " + std::to_string(maxDepth_) + " levels", pos_);
          }
          open.push_back(c);
          ++pos_;
          expect = c == '[' ? Expect::ValueOrClose : Expect::NameOrClose;
          break;
        }
        if (c == '"') {
          if (auto error = string()) return error;
        } else if (c == '-' || (c >= '0' && c <= '9')) {
          if (auto error = number()) return error;
        } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
          if (auto error = literal()) return error;
        } else {
          return fail("expected a value, found " + found(), pos_);
        }
        afterValue();
        break;
      case Expect::Name:
      case Expect::NameOrClose:
        if (expect == Expect::NameOrClose && !atEnd() && c == '}') {
          open.pop_back();
          ++pos_;
          afterValue();
          break;
        }
        if (atEnd() || c != '"')
          return fail("expected a member name in double quotes, found " + found(), pos_);
        if (auto error = string()) return error;
        expect = Expect::Colon;
        break;
      case Expect::Colon:
        if (atEnd() || c != ':') return fail("expected ':' after the member name, found " + found(), pos_);
        ++pos_;
        expect = Expect::Value;
        break;
      case Expect::CommaOrClose: {
        const char close = open.back() == '[' ? ']' : '}';
        if (!atEnd() && c == ',') {
          ++pos_;
          expect = open.back() == '[' ? Expect::Value : Expect::Name;
        } else if (!atEnd() && c == close) {
          open.pop_back();
          ++pos_;
          afterValue();
        } else {
          return fail(std::string("expected ',' or '") + close + "', found " + found(), pos_);
        }
        break;
      }
      case Expect::End:
        break;
    }
  }
}

std::optional<SyntaxError> SyntaxScanner::unicodeEscape(std::size_t escape, std::uint32_t& codePoint) {
  // pos_ is at the 'u'.
  if (text_.size() - pos_ < 5) return fail("invalid \\u escape", escape);
  codePoint = 0;
  for (std::size_t i = 1; i <= 4; ++i) {
    char h = text_[pos_ + i];
    int digit = h >= '0' && h <= '9'   ? h - '0'
                : h >= 'a' && h <= 'f' ? h - 'a' + 10
                : h >= 'A' && h <= 'F' ? h - 'A' + 10
                                       : -1;
    if (digit < 0) return fail("invalid \\u escape", escape);
    codePoint = codePoint * 16 + static_cast<std::uint32_t>(digit);
  }
  pos_ += 5;
  return std::nullopt;
}

std::optional<SyntaxError> SyntaxScanner::string() {
  const std::size_t quote = pos_++;
  while (!atEnd()) {
    unsigned char c = peek();
    if (c == '"') {
      ++pos_;
      return std::nullopt;
    }
    if (c == '\\') {
      const std::size_t escape = pos_++;
      if (atEnd()) break;
      switch (peek()) {
        case '"':
        case '\\':
        case '/':
        case 'b':
        case 'f':
        case 'n':
        case 'r':
        case 't':
          ++pos_;
          break;
        case 'u': {
          std::uint32_t cp = 0;
          if (auto error = unicodeEscape(escape, cp)) return error;
          // Like simdjson (and Foundation), an escaped surrogate must be half of a pair.
          if (cp >= 0xDC00 && cp <= 0xDFFF) return fail("unpaired surrogate in \\u escape", escape);
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            std::uint32_t low = 0;
            if (text_.substr(pos_, 2) != "\\u") return fail("unpaired surrogate in \\u escape", escape);
            ++pos_;
            if (auto error = unicodeEscape(pos_ - 1, low)) return error;
            if (low < 0xDC00 || low > 0xDFFF) return fail("unpaired surrogate in \\u escape", escape);
          }
          break;
        }
        default: {
          const unsigned char e = peek();
          if (e > 0x20 && e < 0x7F)
            return fail(std::string("invalid escape sequence '\\") + char(e) + "'", escape);
          return fail("invalid escape sequence: backslash before " + found(), escape);
        }
      }
      continue;
    }
    if (c < 0x20) return fail("unescaped control character " + found() + " in string", pos_);
    if (c < 0x80) {
      ++pos_;
      continue;
    }
    std::size_t len = validUtf8Length(text_.substr(pos_));
    if (len == 0) return fail("invalid UTF-8 in string", pos_);
    pos_ += len;
  }
  return fail("unclosed string", quote);
}

std::optional<SyntaxError> SyntaxScanner::number() {
  // The token runs over everything a reader would take for part of it ("0x1F", "1.e5", "-Infinity"),
  // so that the whole token is reported rather than a confusing character after its valid prefix.
  const std::size_t start = pos_;
  auto isTokenChar = [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '+' ||
           c == '-' || c == '.';
  };
  while (!atEnd() && isTokenChar(peek())) ++pos_;
  const std::string_view token = text_.substr(start, pos_ - start);

  std::size_t i = 0;
  auto digits = [&] {
    std::size_t from = i;
    while (i < token.size() && token[i] >= '0' && token[i] <= '9') ++i;
    return i - from;
  };
  if (i < token.size() && token[i] == '-') ++i;
  const std::size_t integerStart = i;
  const std::size_t integerDigits = digits();
  bool valid = integerDigits > 0 && !(integerDigits > 1 && token[integerStart] == '0');
  bool integral = true;
  if (valid && i < token.size() && token[i] == '.') {
    ++i;
    integral = false;
    valid = digits() > 0;
  }
  if (valid && i < token.size() && (token[i] == 'e' || token[i] == 'E')) {
    ++i;
    integral = false;
    if (i < token.size() && (token[i] == '+' || token[i] == '-')) ++i;
    valid = digits() > 0;
  }
  if (!valid || i != token.size()) return fail("invalid number", start);

  // simdjson keeps integers as 64-bit integers and rejects those that fit neither signed nor
  // unsigned; other numbers are rejected only when they overflow a double.
  const char* first = token.data();
  const char* last = token.data() + token.size();
  if (integral) {
    std::int64_t s = 0;
    std::uint64_t u = 0;
    bool fits = std::from_chars(first, last, s).ec == std::errc() ||
                (token[0] != '-' && std::from_chars(first, last, u).ec == std::errc());
    if (!fits) return fail("number out of range", start);
    return std::nullopt;
  }
  double d = 0;
  if (std::from_chars(first, last, d).ec == std::errc::result_out_of_range) {
    // Out of range is either overflow or underflow; only the first is an error (underflow reads as
    // zero). The decimal exponent of the first significant digit tells them apart.
    std::size_t mantissaEnd = token.find_first_of("eE");
    if (mantissaEnd == std::string_view::npos) mantissaEnd = token.size();
    const std::string_view mantissa = token.substr(integerStart, mantissaEnd - integerStart);
    const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
    const std::size_t firstSignificant = mantissa.find_first_of("123456789");
    // Exponents are held to half the range, so that adding the digit position cannot overflow.
    constexpr long long kLowest = std::numeric_limits<long long>::min() / 2;
    constexpr long long kHighest = std::numeric_limits<long long>::max() / 2;
    long long exponent = 0;
    if (mantissaEnd < token.size()) {
      std::string_view e = token.substr(mantissaEnd + 1);
      if (!e.empty() && e[0] == '+') e.remove_prefix(1);
      if (std::from_chars(e.data(), e.data() + e.size(), exponent).ec != std::errc()) {
        exponent = e[0] == '-' ? kLowest : kHighest;
      }
      exponent = std::clamp(exponent, kLowest, kHighest);
    }
    if (firstSignificant != std::string_view::npos) {
      long long position = firstSignificant < point ? static_cast<long long>(point - firstSignificant) - 1
                                                    : -static_cast<long long>(firstSignificant - point);
      if (exponent + position > 0) return fail("number out of range", start);
    }
  }
  return std::nullopt;
}

std::optional<SyntaxError> SyntaxScanner::literal() {
  const std::size_t start = pos_;
  auto isAlnum = [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  };
  while (!atEnd() && isAlnum(peek())) ++pos_;
  const std::string_view token = text_.substr(start, pos_ - start);
  if (token == "true" || token == "false" || token == "null") return std::nullopt;
  constexpr std::size_t kShown = 16;
  std::string shown(token.substr(0, kShown));
  if (token.size() > kShown) shown += "...";
  return fail("invalid literal '" + shown + "'", start);
}

std::string describeLocation(std::string_view text, std::size_t offset) {
  const std::string_view before = text.substr(0, offset);
  const std::size_t line = 1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
  const std::size_t lineStart = before.rfind('\n');
  const std::size_t column = lineStart == std::string_view::npos ? offset + 1 : offset - lineStart;
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// The kind of error from simdjson's code, used when the scanner cannot place it.
std::string_view parseErrorKind(simdjson::error_code code) {
  switch (code) {
    case simdjson::EMPTY:
      return "empty document";
    case simdjson::CAPACITY:
      return "document too large";
    case simdjson::MEMALLOC:
      return "out of memory";
    case simdjson::DEPTH_ERROR:
      return "nesting too deep";
    case simdjson::STRING_ERROR:
      return "invalid string";
    case simdjson::UNCLOSED_STRING:
      return "unclosed string";
    case simdjson::UNESCAPED_CHARS:
      return "unescaped control character in string";
    case simdjson::T_ATOM_ERROR:
    case simdjson::F_ATOM_ERROR:
    case simdjson::N_ATOM_ERROR:
      return "invalid literal";
    case simdjson::NUMBER_ERROR:
      return "invalid number";
    case simdjson::UTF8_ERROR:
      return "invalid UTF-8";
    case simdjson::INCOMPLETE_ARRAY_OR_OBJECT:
      return "unexpected end of input";
    case simdjson::TRAILING_CONTENT:
      return "content after the top-level value";
    default:
      return "malformed document";
  }
}

std::string describeSyntaxError(std::string_view text, std::size_t start, std::size_t maxDepth,
                                simdjson::error_code code) {
  std::string description = "invalid JSON: ";
  if (auto error = SyntaxScanner(text, start, maxDepth).firstError()) {
    description += error->what;
    if (error->offset) description += " at " + describeLocation(text, *error->offset);
  } else {
    description += parseErrorKind(code);
  }
  return description;
}

// ----------------------------------------------------------------------------------------------
// Decoding a parsed document into the record.

// Where a value sits in the document. Steps live on the stack of the decoding functions and are
// rendered into text only when decoding fails.
struct PathStep {
  enum class Kind { Root, Member, Index, Key };
  Kind kind = Kind::Root;
  const PathStep* parent = nullptr;
  std::string_view name;
  std::size_t index = 0;

  PathStep member(std::string_view n) const { return {Kind::Member, this, n, 0}; }
  PathStep at(std::size_t i) const { return {Kind::Index, this, {}, i}; }
  PathStep key(std::string_view k) const { return {Kind::Key, this, k, 0}; }

  std::string render() const {
    std::vector<const PathStep*> steps;
    for (const PathStep* s = this; s->kind != Kind::Root; s = s->parent) steps.push_back(s);
    if (steps.empty()) return "(root)";
    std::string out;
    for (auto it = steps.rbegin(); it != steps.rend(); ++it) {
      const PathStep& s = **it;
      switch (s.kind) {
        case Kind::Member:
          if (!out.empty()) out += '.';
          out += s.name;
          break;
        case Kind::Index:
          out += '[' + std::to_string(s.index) + ']';
          break;
        case Kind::Key:
          // Written as a JSON string literal so that odd keys stay readable and unambiguous.
          out += '[';
          appendStringLossy(out, s.name);
          out += ']';
          break;
        case Kind::Root:
          break;
      }
    }
    return out;
  }
};

std::string_view typeName(element_type type) {
  switch (type) {
    case element_type::ARRAY:
      return "array";
    case element_type::OBJECT:
      return "object";
    case element_type::INT64:
    case element_type::UINT64:
    case element_type::DOUBLE:
      return "number";
    case element_type::STRING:
      return "string";
    case element_type::BOOL:
      return "boolean";
    case element_type::NULL_VALUE:
      return "null";
  }
  return "value";
}

// The members of an object that a record reads, found in one pass. A name that occurs more than
// once keeps its last value, as Foundation's JSON decoding does; members with other names are
// ignored.
template <std::size_t N>
struct Members {
  std::array<element, N> value{};
  std::array<bool, N> present{};

  Members(simdjson::dom::object object, const std::array<std::string_view, N>& names) {
    for (auto field : object) {
      for (std::size_t i = 0; i < N; ++i) {
        if (field.key == names[i]) {
          value[i] = field.value;
          present[i] = true;
          break;
        }
      }
    }
  }
};

class Decoder {
 public:
  const std::string& error() const { return error_; }
  bool document(element root, FinderCapabilities& out);

 private:
  bool fail(const PathStep& at, std::string_view what) {
    error_ = at.render();
    error_ += ": ";
    error_ += what;
    return false;
  }
  bool mismatch(const PathStep& at, std::string_view expected, element found) {
    return fail(at, "expected " + std::string(expected) + ", found " + std::string(typeName(found.type())));
  }
  bool object(element e, const PathStep& at, simdjson::dom::object& out);
  bool array(element e, const PathStep& at, simdjson::dom::array& out);
  bool string(element e, const PathStep& at, std::string& out);
  bool integer(element e, const PathStep& at, std::int64_t& out);
  bool stringList(element e, const PathStep& at, std::vector<std::string>& out);
  bool category(element e, const PathStep& at, FinderCapabilities::Category& out);
  bool format(element e, const PathStep& at, FinderCapabilities::Format& out);

  template <std::size_t N>
  bool requiredString(const Members<N>& members, std::size_t i, std::string_view name, const PathStep& at,
                      std::string& out) {
    const PathStep step = at.member(name);
    if (!members.present[i]) return fail(step, "missing");
    return string(members.value[i], step, out);
  }

  template <class T, class DecodeOne>
  bool list(element e, const PathStep& at, std::vector<T>& out, DecodeOne decodeOne);
  template <class T, class DecodeValue>
  bool map(element e, const PathStep& at, std::unordered_map<std::string, T>& out, DecodeValue decodeValue);

  std::string error_;
};

bool Decoder::object(element e, const PathStep& at, simdjson::dom::object& out) {
  if (e.type() != element_type::OBJECT) return mismatch(at, "object", e);
  out = e.get_object().value_unsafe();
  return true;
}

bool Decoder::array(element e, const PathStep& at, simdjson::dom::array& out) {
  if (e.type() != element_type::ARRAY) return mismatch(at, "array", e);
  out = e.get_array().value_unsafe();
  return true;
}

bool Decoder::string(element e, const PathStep& at, std::string& out) {
  if (e.type() != element_type::STRING) return mismatch(at, "string", e);
  out.assign(e.get_string().value_unsafe());
  return true;
}

bool Decoder::integer(element e, const PathStep& at, std::int64_t& out) {
  switch (e.type()) {
    case element_type::INT64:
      out = e.get_int64().value_unsafe();
      return true;
    case element_type::UINT64:
      // simdjson uses this type only for integers above the signed range.
      return fail(
          at, std::to_string(e.get_uint64().value_unsafe()) + " is out of range for a signed 64-bit integer");
    case element_type::DOUBLE: {
      // A number written with a fraction or exponent counts when its value is a whole number
      // (1.0, 1e0), as Foundation reads it.
      const double d = e.get_double().value_unsafe();
      if (d != std::trunc(d)) return fail(at, "expected integer, found number " + formatDouble(d));
      if (d < -9223372036854775808.0 || d >= 9223372036854775808.0) {
        return fail(at, formatDouble(d) + " is out of range for a signed 64-bit integer");
      }
      out = static_cast<std::int64_t>(d);
      return true;
    }
    default:
      return mismatch(at, "integer", e);
  }
}

template <class T, class DecodeOne>
bool Decoder::list(element e, const PathStep& at, std::vector<T>& out, DecodeOne decodeOne) {
  simdjson::dom::array items;
  if (!array(e, at, items)) return false;
  out.reserve(items.size());
  std::size_t index = 0;
  for (element item : items) {
    T value;
    if (!decodeOne(item, at.at(index++), value)) return false;
    out.push_back(std::move(value));
  }
  return true;
}

template <class T, class DecodeValue>
bool Decoder::map(element e, const PathStep& at, std::unordered_map<std::string, T>& out,
                  DecodeValue decodeValue) {
  simdjson::dom::object members;
  if (!object(e, at, members)) return false;
  // The last occurrence of a repeated key wins. Values are decoded in document order, which decides
  // which failure is reported; a failing value that a later occurrence of its key replaces does not
  // count. The index of last occurrences is built on the first failure only, so this stays linear.
  std::optional<std::unordered_map<std::string_view, std::size_t>> last;
  out.reserve(members.size());
  std::size_t index = 0;
  for (auto field : members) {
    const std::size_t current = index++;
    T value;
    if (decodeValue(field.value, at.key(field.key), value)) {
      out.insert_or_assign(std::string(field.key), std::move(value));
      continue;
    }
    if (!last) {
      last.emplace();
      std::size_t i = 0;
      for (auto other : members) last->insert_or_assign(other.key, i++);
    }
    if (last->at(field.key) == current) return false;
  }
  return true;
}

bool Decoder::stringList(element e, const PathStep& at, std::vector<std::string>& out) {
  return list(e, at, out, [this](element item, const PathStep& step, std::string& value) {
    return string(item, step, value);
  });
}

bool Decoder::category(element e, const PathStep& at, FinderCapabilities::Category& out) {
  static constexpr std::array<std::string_view, 3> kNames{"id", "label", "icon"};
  simdjson::dom::object fields;
  if (!object(e, at, fields)) return false;
  const Members<3> m(fields, kNames);
  return requiredString(m, 0, kNames[0], at, out.id) && requiredString(m, 1, kNames[1], at, out.label) &&
         requiredString(m, 2, kNames[2], at, out.icon);
}

bool Decoder::format(element e, const PathStep& at, FinderCapabilities::Format& out) {
  static constexpr std::array<std::string_view, 4> kNames{"id", "displayName", "category",
                                                          "primaryExtension"};
  simdjson::dom::object fields;
  if (!object(e, at, fields)) return false;
  const Members<4> m(fields, kNames);
  return requiredString(m, 0, kNames[0], at, out.id) &&
         requiredString(m, 1, kNames[1], at, out.displayName) &&
         requiredString(m, 2, kNames[2], at, out.category) &&
         requiredString(m, 3, kNames[3], at, out.primaryExtension);
}

bool Decoder::document(element root, FinderCapabilities& out) {
  static constexpr std::array<std::string_view, 7> kNames{
      "schemaVersion",       "generatedAt", "categories",      "formats",
      "extensionToFormatId", "conversions", "convertMenuTitle"};
  const PathStep rootStep;
  simdjson::dom::object fields;
  if (!object(root, rootStep, fields)) return false;
  const Members<7> m(fields, kNames);

  // Required members are checked in field order, each just before it is decoded, so that the first
  // failure in that order is the one reported.
  auto required = [&](std::size_t i, auto decodeOne) {
    const PathStep step = rootStep.member(kNames[i]);
    if (!m.present[i]) return fail(step, "missing");
    return decodeOne(m.value[i], step);
  };
  const bool ok =
      required(0, [&](element e, const PathStep& s) { return integer(e, s, out.schemaVersion); }) &&
      required(1, [&](element e, const PathStep& s) { return string(e, s, out.generatedAt); }) &&
      required(2,
               [&](element e, const PathStep& s) {
                 return list(e, s, out.categories,
                             [this](element item, const PathStep& step, FinderCapabilities::Category& value) {
                               return category(item, step, value);
                             });
               }) &&
      required(3,
               [&](element e, const PathStep& s) {
                 return list(e, s, out.formats,
                             [this](element item, const PathStep& step, FinderCapabilities::Format& value) {
                               return format(item, step, value);
                             });
               }) &&
      required(4,
               [&](element e, const PathStep& s) {
                 return map(e, s, out.extensionToFormatId,
                            [this](element value, const PathStep& step, std::string& target) {
                              return string(value, step, target);
                            });
               }) &&
      required(5, [&](element e, const PathStep& s) {
        return map(e, s, out.conversions,
                   [this](element value, const PathStep& step, std::vector<std::string>& targets) {
                     return stringList(value, step, targets);
                   });
      });
  if (!ok) return false;

  // An absent or null title both mean "use the default title".
  if (m.present[6] && m.value[6].type() != element_type::NULL_VALUE) {
    if (m.value[6].type() != element_type::STRING) {
      return mismatch(rootStep.member(kNames[6]), "string or null", m.value[6]);
    }
    out.convertMenuTitle.emplace(m.value[6].get_string().value_unsafe());
  }
  return true;
}

// ----------------------------------------------------------------------------------------------
// Encoding.

class Encoder {
 public:
  explicit Encoder(bool pretty) : pretty_(pretty) {}

  std::string& out() { return out_; }
  void string(std::string_view s) { appendStringLossy(out_, s); }
  void colon() { out_ += pretty_ ? ": " : ":"; }
  // Separator between items written on one line ("a", "b").
  void inlineComma() { out_ += pretty_ ? ", " : ","; }
  // Start of a member or element that gets a line of its own when pretty-printing.
  void line(int depth, bool first) {
    if (!first) out_ += ',';
    if (pretty_) {
      out_ += '\n';
      out_.append(static_cast<std::size_t>(depth) * 2, ' ');
    }
  }
  void close(int depth, char bracket, bool empty) {
    if (pretty_ && !empty) {
      out_ += '\n';
      out_.append(static_cast<std::size_t>(depth) * 2, ' ');
    }
    out_ += bracket;
  }
  void key(int depth, bool first, std::string_view name) {
    line(depth, first);
    string(name);
    colon();
  }
  void inlineStrings(const std::vector<std::string>& items) {
    out_ += '[';
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (i > 0) inlineComma();
      string(items[i]);
    }
    out_ += ']';
  }

 private:
  bool pretty_;
  std::string out_;
};

// Map entries in byte order of their keys, so that the output does not depend on hashing.
template <class Map>
std::vector<const typename Map::value_type*> sortedEntries(const Map& map) {
  std::vector<const typename Map::value_type*> entries;
  entries.reserve(map.size());
  for (const auto& entry : map) entries.push_back(&entry);
  std::sort(entries.begin(), entries.end(), [](const auto* a, const auto* b) { return a->first < b->first; });
  return entries;
}

}  // namespace

Result<FinderCapabilities> FinderCapabilities::decode(std::string_view bytes) {
  // One parser per thread keeps its buffers between documents; it copies the text into its own
  // padded buffer, so the caller's bytes need no padding.
  thread_local simdjson::dom::parser parser;

  // A UTF-8 byte order mark is skipped, as Foundation does; positions in errors still count it.
  const std::size_t start = bytes.substr(0, kUtf8Bom.size()) == kUtf8Bom ? kUtf8Bom.size() : 0;
  const std::string_view text = bytes.substr(start);
  element root;
  const simdjson::error_code code = parser.parse(text.empty() ? "" : text.data(), text.size()).get(root);
  if (code != simdjson::SUCCESS) return Error{describeSyntaxError(bytes, start, parser.max_depth(), code)};

  FinderCapabilities capabilities;
  Decoder decoder;
  if (!decoder.document(root, capabilities)) return Error{decoder.error()};
  return capabilities;
}

// Strings that are not valid UTF-8 (which decoding never produces) are written with U+FFFD in
// place of each offending byte, so the output is always valid JSON.
std::string FinderCapabilities::encode(bool pretty) const {
  // The pretty form follows the hand-written example document: one top-level member, array
  // element or map entry per line, categories and formats each as a one-line object.
  Encoder w(pretty);
  std::string& out = w.out();
  out += '{';
  w.key(1, true, "schemaVersion");
  out += std::to_string(schemaVersion);
  w.key(1, false, "generatedAt");
  w.string(generatedAt);

  w.key(1, false, "categories");
  out += '[';
  for (std::size_t i = 0; i < categories.size(); ++i) {
    const Category& c = categories[i];
    w.line(2, i == 0);
    out += '{';
    w.string("id");
    w.colon();
    w.string(c.id);
    w.inlineComma();
    w.string("label");
    w.colon();
    w.string(c.label);
    w.inlineComma();
    w.string("icon");
    w.colon();
    w.string(c.icon);
    out += '}';
  }
  w.close(1, ']', categories.empty());

  w.key(1, false, "formats");
  out += '[';
  for (std::size_t i = 0; i < formats.size(); ++i) {
    const Format& f = formats[i];
    w.line(2, i == 0);
    out += '{';
    w.string("id");
    w.colon();
    w.string(f.id);
    w.inlineComma();
    w.string("displayName");
    w.colon();
    w.string(f.displayName);
    w.inlineComma();
    w.string("category");
    w.colon();
    w.string(f.category);
    w.inlineComma();
    w.string("primaryExtension");
    w.colon();
    w.string(f.primaryExtension);
    out += '}';
  }
  w.close(1, ']', formats.empty());

  w.key(1, false, "extensionToFormatId");
  out += '{';
  bool first = true;
  for (const auto* entry : sortedEntries(extensionToFormatId)) {
    w.key(2, first, entry->first);
    w.string(entry->second);
    first = false;
  }
  w.close(1, '}', extensionToFormatId.empty());

  w.key(1, false, "conversions");
  out += '{';
  first = true;
  for (const auto* entry : sortedEntries(conversions)) {
    w.key(2, first, entry->first);
    w.inlineStrings(entry->second);
    first = false;
  }
  w.close(1, '}', conversions.empty());

  if (convertMenuTitle) {
    w.key(1, false, "convertMenuTitle");
    w.string(*convertMenuTitle);
  }
  w.close(0, '}', false);
  if (pretty) out += '\n';
  return std::move(out);
}

}  // namespace palvin
