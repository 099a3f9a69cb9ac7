#include "catalogue/capabilities_check.h"

#include <simdjson.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "catalogue/capabilities.h"
#include "shared/json_writer.h"

namespace palvin {

namespace {

using Severity = CapabilityFinding::Severity;

// Splits a decoding failure such as "formats[3].primaryExtension: missing"
// into its path and its message. Map keys in a path may hold ": " inside
// their quotes, and a description without a path ("invalid JSON: ...") has a
// blank before its first ": ", which no path has outside quotes.
std::pair<std::string, std::string> splitDescription(const std::string& description) {
  bool quoted = false;
  for (std::size_t i = 0; i < description.size(); ++i) {
    char c = description[i];
    if (quoted) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        quoted = false;
      }
    } else if (c == '"') {
      quoted = true;
    } else if (c == ' ') {
      break;
    } else if (c == ':' && i + 1 < description.size() && description[i + 1] == ' ') {
      if (i == 0) break;
      return {description.substr(0, i), description.substr(i + 2)};
    }
  }
  return {"(root)", description};
}

// A string as a JSON literal, so that names with quotes or blanks stay
// readable and unambiguous in paths and messages.
std::string quote(std::string_view s) {
  std::string out;
  if (!json::appendString(out, s)) out = "\"" + std::string(s) + "\"";
  return out;
}

bool isIdentifier(std::string_view key) {
  if (key.empty()) return false;
  for (std::size_t i = 0; i < key.size(); ++i) {
    auto c = static_cast<unsigned char>(key[i]);
    bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
    bool digit = c >= '0' && c <= '9';
    if (!letter && !(digit && i > 0)) return false;
  }
  return true;
}

// What a JSON value stands for in the document, which decides what is
// checked in it. `other` values are only searched for repeated member names.
enum class Node { other, root, categories, category, formats, format, extensionMap, conversionsMap, targets };

class Walker {
 public:
  Walker(const FinderCapabilities& catalogue, const TextRules& text, std::vector<CapabilityFinding>& findings)
      : text_(text), findings_(findings) {
    for (const auto& format : catalogue.formats) formatIds_.insert(format.id);
    for (const auto& category : catalogue.categories) categoryIds_.insert(category.id);
  }

  void walk(simdjson::dom::element value, const std::string& path, Node node) {
    simdjson::dom::object object;
    simdjson::dom::array array;
    if (value.get(object) == simdjson::SUCCESS) {
      walkObject(object, path, node);
    } else if (value.get(array) == simdjson::SUCCESS) {
      walkArray(array, path, node);
    }
  }

 private:
  void warn(std::string path, std::string message) {
    findings_.push_back({Severity::warning, std::move(path), std::move(message)});
  }

  static std::string memberPath(const std::string& parent, std::string_view key, Node node) {
    bool map = node == Node::extensionMap || node == Node::conversionsMap;
    if (!map && isIdentifier(key)) {
      return parent.empty() ? std::string(key) : parent + "." + std::string(key);
    }
    return parent + "[" + quote(key) + "]";
  }

  static Node memberNode(Node parent, std::string_view key) {
    switch (parent) {
      case Node::root:
        if (key == "categories") return Node::categories;
        if (key == "formats") return Node::formats;
        if (key == "extensionToFormatId") return Node::extensionMap;
        if (key == "conversions") return Node::conversionsMap;
        return Node::other;
      case Node::conversionsMap:
        return Node::targets;
      default:
        return Node::other;
    }
  }

  void walkObject(simdjson::dom::object object, const std::string& path, Node node) {
    // Where each name occurs last: that member is the one the decoder keeps.
    std::unordered_map<std::string_view, std::size_t> lastIndex;
    std::size_t index = 0;
    for (auto field : object) lastIndex[field.key] = index++;

    std::unordered_set<std::string_view> seen;
    index = 0;
    for (auto field : object) {
      std::string childPath = memberPath(path, field.key, node);
      if (!seen.insert(field.key).second) {
        warn(childPath, "member " + quote(field.key) +
                            " is repeated in this object; the last one wins and the others are "
                            "ignored");
      }
      bool effective = lastIndex[field.key] == index++;
      Node child = effective ? memberNode(node, field.key) : Node::other;
      if (effective) checkMember(node, field.key, field.value, childPath);
      walk(field.value, childPath, child);
    }
  }

  void walkArray(simdjson::dom::array array, const std::string& path, Node node) {
    Node child = node == Node::categories ? Node::category
                 : node == Node::formats  ? Node::format
                                          : Node::other;
    std::size_t index = 0;
    for (auto item : array) {
      std::string childPath = path + "[" + std::to_string(index++) + "]";
      if (node == Node::categories || node == Node::formats) elementPath_ = childPath;
      if (node == Node::targets) checkTarget(item, childPath);
      walk(item, childPath, child);
    }
  }

  void checkMember(Node node, std::string_view key, simdjson::dom::element value, const std::string& path) {
    std::string_view text;
    bool isString = value.get(text) == simdjson::SUCCESS;
    switch (node) {
      case Node::category:
        if (key == "id" && isString) checkUnique(firstCategory_, "category", text, path);
        break;
      case Node::format:
        if (key == "id" && isString) checkUnique(firstFormat_, "format", text, path);
        if (key == "category" && isString && !categoryIds_.contains(std::string(text))) {
          warn(path, "category " + quote(text) +
                         " is not listed in categories; its formats are offered only inline, to "
                         "selections of that same category");
        }
        break;
      case Node::extensionMap:
        // Selected files' extensions are lower-cased before lookup, so a key
        // that lower-casing changes can never be found.
        if (text_.lowercase(key) != key) {
          warn(path, "key has upper case and never matches; selected files' extensions are lower-cased");
        }
        if (!key.empty() && key.front() == '.') {
          warn(path, "key starts with \".\" and never matches; keys are extensions without the dot");
        }
        if (isString && !formatIds_.contains(std::string(text))) {
          warn(path, "format " + quote(text) + " is not listed in formats");
        }
        break;
      case Node::conversionsMap:
        if (!formatIds_.contains(std::string(key))) {
          warn(path, "source format " + quote(key) + " is not listed in formats");
        }
        source_ = key;
        targetsSeen_.clear();
        break;
      default:
        break;
    }
  }

  void checkUnique(std::unordered_map<std::string, std::string>& first, const char* what, std::string_view id,
                   const std::string& path) {
    auto [it, inserted] = first.try_emplace(std::string(id), elementPath_);
    if (!inserted) {
      warn(path, std::string("duplicate ") + what + " id " + quote(id) + " (first at " + it->second +
                     "); the first entry wins");
    }
  }

  void checkTarget(simdjson::dom::element item, const std::string& path) {
    std::string_view target;
    if (item.get(target) != simdjson::SUCCESS) return;
    if (!formatIds_.contains(std::string(target))) {
      warn(path, "target format " + quote(target) + " is not listed in formats; the menu drops it");
    }
    if (target == source_) {
      warn(path, quote(target) + " converts to itself; the menu never offers a file its own format");
    }
    auto [it, inserted] = targetsSeen_.try_emplace(std::string(target), path);
    if (!inserted) {
      warn(path,
           "target " + quote(target) + " is listed again (first at " + it->second + "); it counts once");
    }
  }

  const TextRules& text_;
  std::vector<CapabilityFinding>& findings_;
  std::unordered_set<std::string> formatIds_;
  std::unordered_set<std::string> categoryIds_;
  std::unordered_map<std::string, std::string> firstFormat_;    // id -> "formats[i]"
  std::unordered_map<std::string, std::string> firstCategory_;  // id -> "categories[i]"
  std::string elementPath_;                                     // the category or format being walked
  std::string source_;  // the conversions key whose targets are being walked
  std::unordered_map<std::string, std::string> targetsSeen_;  // within the current list
};

}  // namespace

CapabilityCheckReport checkCapabilities(std::string_view bytes, const TextRules& text) {
  CapabilityCheckReport report;
  auto decoded = FinderCapabilities::decode(bytes);
  if (!decoded) {
    auto [path, message] = splitDescription(decoded.error());
    report.findings.push_back({Severity::error, std::move(path), std::move(message)});
    return report;
  }

  const FinderCapabilities& catalogue = *decoded;
  report.usable = catalogue.schemaVersion == 1;
  if (!report.usable) {
    report.findings.push_back({Severity::error, "schemaVersion",
                               "schema version " + std::to_string(catalogue.schemaVersion) +
                                   " is not supported; the extension only reads version 1"});
  }

  // The decoder's record has no member order and hides repeated names, so
  // the warnings come from a walk over the document as written.
  simdjson::dom::parser parser;
  simdjson::padded_string padded(bytes);
  simdjson::dom::element root;
  if (parser.parse(padded).get(root) != simdjson::SUCCESS) return report;
  Walker(catalogue, text, report.findings).walk(root, "", Node::root);
  return report;
}

}  // namespace palvin
