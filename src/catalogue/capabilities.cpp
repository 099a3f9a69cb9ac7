#include "catalogue/capabilities.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "shared/json_reader.h"
#include "shared/json_writer.h"

namespace palvin {
namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

// Strings that are not UTF-8 are written with each offending byte replaced by
// U+FFFD, so that encoding always yields valid JSON.
void appendStringLossy(std::string& out, std::string_view s) {
  if (!json::appendString(out, s)) json::appendString(out, json::toValidUtf8(s));
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
    return fail(at,
                "expected " + std::string(expected) + ", found " + std::string(json::typeName(found.type())));
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
      if (d != std::trunc(d)) return fail(at, "expected integer, found number " + json::formatNumber(d));
      if (d < -9223372036854775808.0 || d >= 9223372036854775808.0) {
        return fail(at, json::formatNumber(d) + " is out of range for a signed 64-bit integer");
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
  auto parsed = json::parseDocument(bytes);
  if (!parsed.ok()) return Error{parsed.error()};
  element root = *parsed;

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
