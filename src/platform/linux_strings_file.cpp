#include "platform/linux_strings_file.h"

#include <algorithm>
#include <optional>

#include "shared/json_writer.h"

namespace palvin::linux_strings_file {
namespace {

void appendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

bool isHighSurrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
bool isLowSurrogate(char32_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}

std::optional<std::string> utf16ToUtf8(std::string_view bytes, bool bigEndian) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  std::string out;
  out.reserve(bytes.size());
  auto unit = [&](std::size_t i) -> char32_t {
    auto a = static_cast<unsigned char>(bytes[i]);
    auto b = static_cast<unsigned char>(bytes[i + 1]);
    return bigEndian ? (char32_t{a} << 8 | b) : (char32_t{b} << 8 | a);
  };
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    char32_t c = unit(i);
    if (isHighSurrogate(c)) {
      if (i + 3 >= bytes.size() || !isLowSurrogate(unit(i + 2))) return std::nullopt;
      c = 0x10000 + ((c - 0xD800) << 10) + (unit(i + 2) - 0xDC00);
      i += 2;
    } else if (isLowSurrogate(c)) {
      return std::nullopt;
    }
    appendUtf8(out, c);
  }
  return out;
}

// Characters of an unquoted string in the property-list text format.
bool isBareChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("_$+/:.-").find(c) != std::string_view::npos;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  Result<Table> run() {
    Table table;
    for (;;) {
      if (auto bad = skipSpace()) return *bad;
      if (at_ == text_.size()) return table;
      auto key = string("a key");
      if (!key.ok()) return Error{key.error()};
      if (auto bad = skipSpace()) return *bad;
      std::string value;
      if (peek() == ';') {
        value = *key;  // "key"; stands for "key" = "key";
      } else {
        if (peek() != '=') return failure("expected '=' after the key");
        ++at_;
        if (auto bad = skipSpace()) return *bad;
        auto parsed = string("a value");
        if (!parsed.ok()) return Error{parsed.error()};
        value = std::move(*parsed);
        if (auto bad = skipSpace()) return *bad;
        if (peek() != ';') return failure("expected ';' after the value");
      }
      ++at_;
      table.insert_or_assign(std::move(*key), std::move(value));
    }
  }

 private:
  char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  bool startsComment() const {
    return peek() == '/' && at_ + 1 < text_.size() && (text_[at_ + 1] == '/' || text_[at_ + 1] == '*');
  }

  Error failure(std::string_view what) const {
    auto line = 1 + std::count(text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(at_), '\n');
    return Error{"line " + std::to_string(line) + ": " + std::string(what)};
  }

  std::optional<Error> skipSpace() {
    while (at_ < text_.size()) {
      char c = text_[at_];
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
        ++at_;
      } else if (startsComment() && text_[at_ + 1] == '/') {
        auto end = text_.find('\n', at_);
        at_ = end == std::string_view::npos ? text_.size() : end + 1;
      } else if (startsComment()) {
        auto end = text_.find("*/", at_ + 2);
        if (end == std::string_view::npos) return failure("unterminated comment");
        at_ = end + 2;
      } else {
        break;
      }
    }
    return std::nullopt;
  }

  Result<std::string> string(std::string_view what) {
    if (peek() == '"') return quoted();
    std::size_t start = at_;
    while (at_ < text_.size() && isBareChar(text_[at_]) && !startsComment()) ++at_;
    if (at_ == start) return failure("expected " + std::string(what));
    return std::string(text_.substr(start, at_ - start));
  }

  Result<std::string> quoted() {
    std::size_t opening = at_++;
    std::string out;
    char32_t pendingHigh = 0;  // a \U escape's high surrogate, waiting for its low half
    auto flushHigh = [&] {
      if (pendingHigh != 0) appendUtf8(out, 0xFFFD);
      pendingHigh = 0;
    };
    while (at_ < text_.size()) {
      char c = text_[at_++];
      if (c == '"') {
        flushHigh();
        return out;
      }
      if (c != '\\') {
        flushHigh();
        out.push_back(c);
        continue;
      }
      if (at_ == text_.size()) break;
      char e = text_[at_++];
      if (e == 'U' || e == 'u') {
        char32_t unit = 0;
        int digits = 0;
        for (; digits < 4 && at_ < text_.size() && hexValue(text_[at_]) >= 0; ++digits) {
          unit = unit * 16 + static_cast<char32_t>(hexValue(text_[at_++]));
        }
        if (digits == 0) return failure("expected hex digits after \\U");
        if (isLowSurrogate(unit) && pendingHigh != 0) {
          appendUtf8(out, 0x10000 + ((pendingHigh - 0xD800) << 10) + (unit - 0xDC00));
          pendingHigh = 0;
          continue;
        }
        flushHigh();
        if (isHighSurrogate(unit)) {
          pendingHigh = unit;
        } else {
          appendUtf8(out, isLowSurrogate(unit) ? char32_t{0xFFFD} : unit);
        }
        continue;
      }
      flushHigh();
      if (e >= '0' && e <= '7') {
        char32_t code = static_cast<char32_t>(e - '0');
        for (int digits = 1; digits < 3 && at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '7';
             ++digits) {
          code = code * 8 + static_cast<char32_t>(text_[at_++] - '0');
        }
        appendUtf8(out, code);
        continue;
      }
      switch (e) {
        case 'n':
          out.push_back('\n');
          break;
        case 't':
          out.push_back('\t');
          break;
        case 'r':
          out.push_back('\r');
          break;
        case 'a':
          out.push_back('\a');
          break;
        case 'b':
          out.push_back('\b');
          break;
        case 'f':
          out.push_back('\f');
          break;
        case 'v':
          out.push_back('\v');
          break;
        default:
          out.push_back(e);
          break;  // \" \\ \' and any other character stand for themselves
      }
    }
    at_ = opening;
    return failure("unterminated string");
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

Result<Table> parse(std::string_view bytes) {
  std::string converted;
  if (bytes.substr(0, 2) == "\xFF\xFE" || bytes.substr(0, 2) == "\xFE\xFF") {
    auto text = utf16ToUtf8(bytes.substr(2), bytes[0] == '\xFE');
    if (!text) return Error{"not valid UTF-16"};
    converted = std::move(*text);
    bytes = converted;
  } else if (bytes.substr(0, 3) == "\xEF\xBB\xBF") {
    bytes.remove_prefix(3);
  }
  if (!json::isValidUtf8(bytes)) return Error{"not valid UTF-8"};
  return Parser(bytes).run();
}

}  // namespace palvin::linux_strings_file
