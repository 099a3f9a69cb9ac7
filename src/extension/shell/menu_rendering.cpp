#include "extension/shell/menu_rendering.h"

#include <utility>

namespace palvin::menu_rendering {
namespace {

// Symbol names a catalogue is likely to use, by the kind of file they stand
// for; the icons are freedesktop.org's standard icon names, which Adwaita,
// Breeze and other themes draw. Symbolic icons take the theme's text colour,
// which is what the one-colour palette does on macOS.
constexpr std::pair<std::string_view, std::string_view> kIcons[] = {
    {"archivebox", "package-x-generic-symbolic"},
    {"camera", "image-x-generic-symbolic"},
    {"character", "font-x-generic-symbolic"},
    {"chart.bar", "x-office-spreadsheet-symbolic"},
    {"doc", "x-office-document-symbolic"},
    {"doc.plaintext", "text-x-generic-symbolic"},
    {"doc.richtext", "x-office-document-symbolic"},
    {"doc.text", "x-office-document-symbolic"},
    {"doc.zipper", "package-x-generic-symbolic"},
    {"film", "video-x-generic-symbolic"},
    {"folder", "folder-symbolic"},
    {"headphones", "audio-x-generic-symbolic"},
    {"music.note", "audio-x-generic-symbolic"},
    {"music.note.list", "audio-x-generic-symbolic"},
    {"paintbrush", "x-office-drawing-symbolic"},
    {"photo", "image-x-generic-symbolic"},
    {"photo.on.rectangle", "image-x-generic-symbolic"},
    {"photo.stack", "image-x-generic-symbolic"},
    {"play.rectangle", "video-x-generic-symbolic"},
    {"rectangle.on.rectangle", "x-office-presentation-symbolic"},
    {"shippingbox", "package-x-generic-symbolic"},
    {"speaker.wave.2", "audio-x-generic-symbolic"},
    {"tablecells", "x-office-spreadsheet-symbolic"},
    {"text.alignleft", "text-x-generic-symbolic"},
    {"textformat", "font-x-generic-symbolic"},
    {"video", "video-x-generic-symbolic"},
    {"waveform", "audio-x-generic-symbolic"},
};

}  // namespace

std::string escapeMnemonics(std::string_view title, char mark) {
  std::string label;
  label.reserve(title.size());
  for (char c : title) {
    label += c;
    if (c == mark) label += mark;
  }
  return label;
}

std::optional<std::string_view> freedesktopIconName(std::string_view symbolName) {
  constexpr std::string_view kFill = ".fill";
  if (symbolName.ends_with(kFill)) symbolName.remove_suffix(kFill.size());
  for (const auto& [symbol, icon] : kIcons) {
    if (symbol == symbolName) return icon;
  }
  return std::nullopt;
}

}  // namespace palvin::menu_rendering
