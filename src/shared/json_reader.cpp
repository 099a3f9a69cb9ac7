#include "shared/json_reader.h"

#include <locale.h>
#include <stdlib.h>
#ifdef __APPLE__
#include <xlocale.h>
#endif

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <system_error>

#include "shared/json_writer.h"

namespace palvin::json {
namespace {

constexpr std::string_view kUtf8Bom = "\xEF\xBB\xBF";

// The "C" locale, made once: JSON's decimal point is '.', whatever locale the
// host process set. Null only when it could not be made.
locale_t cLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
  return locale;
}

// Length of the UTF-8 sequence at the start of `rest`, or 0 when it does not start with a
// well-formed one.
std::size_t validUtf8Length(std::string_view rest) {
  for (std::size_t len = 1; len <= 4 && len <= rest.size(); ++len) {
    if (json::isValidUtf8(rest.substr(0, len))) return len;
  }
  return 0;
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
  // Four hex digits at least, more only as the code point needs them: U+00E9, U+1F600.
  std::string hex;
  for (int shift = cp > 0xFFFFF ? 20 : cp > 0xFFFF ? 16 : 12; shift >= 0; shift -= 4)
    hex.push_back(kHex[(cp >> shift) & 0xF]);
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
  // Only overflow is an error: underflow reads as zero. strtod rounds correctly and gives infinity
  // exactly when the value does not fit (floating-point from_chars is missing from Apple's libc++);
  // it reads in the "C" locale, as the host's may take ',' for the decimal point.
  const locale_t c = cLocale();
  if (c != static_cast<locale_t>(0) && std::isinf(strtod_l(std::string(token).c_str(), nullptr, c)))
    return fail("number out of range", start);
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

}  // namespace

std::string_view typeName(simdjson::dom::element_type type) {
  using simdjson::dom::element_type;
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

Result<simdjson::dom::element> parseDocument(std::string_view bytes) {
  // One parser per thread keeps its buffers between documents; it copies the text into its own
  // padded buffer, so the caller's bytes need no padding.
  thread_local simdjson::dom::parser parser;
  const std::size_t start = bytes.substr(0, kUtf8Bom.size()) == kUtf8Bom ? kUtf8Bom.size() : 0;
  const std::string_view text = bytes.substr(start);
  simdjson::dom::element root;
  const simdjson::error_code code = parser.parse(text.empty() ? "" : text.data(), text.size()).get(root);
  if (code != simdjson::SUCCESS) return Error{describeSyntaxError(bytes, start, parser.max_depth(), code)};
  return root;
}

Error wrongType(const std::string& path, const char* expected, simdjson::dom::element value) {
  return Error{path + ": expected " + expected + ", found " + std::string(typeName(value.type()))};
}

bool lastMember(simdjson::dom::object object, std::string_view key, simdjson::dom::element& value) {
  bool found = false;
  for (auto field : object) {
    if (field.key == key) {
      value = field.value;
      found = true;
    }
  }
  return found;
}

Status readString(simdjson::dom::object object, std::string_view key, const std::string& path,
                  std::string& out) {
  simdjson::dom::element value;
  if (!lastMember(object, key, value)) return Error{path + ": missing"};
  std::string_view text;
  if (value.get(text) != simdjson::SUCCESS) return wrongType(path, "string", value);
  out.assign(text);
  return success();
}

}  // namespace palvin::json
