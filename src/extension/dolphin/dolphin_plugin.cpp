// The Dolphin (KDE) shell: a KIO file item action plugin that translates
// between Dolphin's context menu and the controller, as the Objective-C++ one
// does for Finder. KIO calls it on Dolphin's UI thread. Every entry catches
// whatever the C++ side might throw: an exception must not unwind through
// Qt's event loop.
#include <KAbstractFileItemActionPlugin>
#include <KFileItem>
#include <KFileItemListProperties>
#include <KPluginFactory>
#include <QAction>
#include <QApplication>
#include <QCoreApplication>
#include <QFile>
#include <QIcon>
#include <QIconEngine>
#include <QMenu>
#include <QPainter>
#include <QPalette>
#include <QWidget>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "extension/dolphin/dolphin_platform.h"
#include "extension/shell/extension_shell.h"
#include "extension/shell/menu_rendering.h"
#include "extension/shell/module_bundle.h"
#include "platform/platform.h"
#include "services/log.h"

namespace palvin {
namespace {

// KIO makes a plugin object for every context menu, so the principal object
// is the process's one controller, made at the first menu and ended with the
// application.
struct Shell {
  std::unique_ptr<DolphinPlatform> platform;
  std::unique_ptr<ExtensionShell> controller;
};
Shell* gShell = nullptr;

// Runs when Qt's application object goes, on the main thread: the controller
// stops watching mounts, and the log writes what is queued and ends its
// worker, so no thread of ours outlives the application.
void endShell() {
  Shell* shell = std::exchange(gShell, nullptr);
  if (shell == nullptr) return;
  try {
    shell->controller.reset();
    FinderLog::shutdown();
  } catch (...) {
  }
  installPlatform(nullptr);
  delete shell;
}

Shell* shell() {
  if (gShell != nullptr) return gShell;
  if (QCoreApplication::instance() == nullptr) return nullptr;
  auto shell = std::make_unique<Shell>();
  shell->platform = std::make_unique<DolphinPlatform>(module_bundle::platformOptions());
  installPlatform(shell->platform.get());
  shell->controller = std::make_unique<ExtensionShell>(*shell->platform);
  gShell = shell.release();
  qAddPostRoutine(endShell);
  return gShell;
}

// Each item's local path (desktop:/ and recent items have one too), with
// Dolphin's own type for it. Items without one, and those in the trash, which
// the host app must not write beside, are left out.
std::vector<SelectedItem> selectedItems(const KFileItemList& items) {
  std::vector<SelectedItem> selection;
  for (const KFileItem& item : items) {
    if (item.isNull() || item.url().scheme() == QLatin1String("trash")) continue;
    const QString path = item.localPath();
    if (path.isEmpty()) continue;
    selection.push_back(SelectedItem{QFile::encodeName(path).toStdString(), item.isDir()});
  }
  return selection;
}

// A dark colour scheme draws light text on a dark window: macOS's dark
// appearance, whose symbol images are white.
std::optional<std::string> appearanceOf(const QPalette& palette) {
  if (palette.color(QPalette::Window).lightness() < palette.color(QPalette::WindowText).lightness()) {
    return "Dark";
  }
  return std::nullopt;
}

// A theme icon drawn in one colour, the symbol image's palette: each pixmap's
// shape is filled with it. Disabled items keep the style's greyed form. The
// theme's name stays the icon's name.
class TintedIconEngine : public QIconEngine {
 public:
  TintedIconEngine(QIcon icon, QColor colour) : icon_(std::move(icon)), colour_(colour) {}
  void paint(QPainter* painter, const QRect& rect, QIcon::Mode mode, QIcon::State state) override {
    painter->drawPixmap(rect, pixmap(rect.size(), mode, state));
  }
  QPixmap pixmap(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
    QPixmap pixmap = icon_.pixmap(size, mode, state);
    if (pixmap.isNull() || mode == QIcon::Disabled) return pixmap;
    QPainter painter(&pixmap);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(pixmap.rect(), colour_);
    return pixmap;
  }
  QSize actualSize(const QSize& size, QIcon::Mode mode, QIcon::State state) override {
    return icon_.actualSize(size, mode, state);
  }
  QList<QSize> availableSizes(QIcon::Mode mode, QIcon::State state) const override {
    return icon_.availableSizes(mode, state);
  }
  QString iconName() const override { return icon_.name(); }
  QIconEngine* clone() const override { return new TintedIconEngine(icon_, colour_); }

 private:
  QIcon icon_;
  QColor colour_;
};

QIcon categoryIcon(const std::optional<SymbolImage>& image) {
  if (!image) return {};
  std::optional<std::string_view> name = menu_rendering::freedesktopIconName(image->symbolName);
  if (!name) return {};
  QIcon themed = QIcon::fromTheme(QString::fromUtf8(name->data(), static_cast<int>(name->size())));
  if (themed.isNull()) return {};
  QColor colour = image->paletteColor == PaletteColor::white ? Qt::white : Qt::black;
  return QIcon(new TintedIconEngine(themed, colour));
}

// Qt takes "&" as the mark of a mnemonic; doubled, it shows as itself.
QString actionText(const std::string& title) {
  return QString::fromStdString(menu_rendering::escapeMnemonics(title, '&'));
}

// The slots run inside Qt's event loop, after the menu that made them may
// have gone: they reach the controller only through the shell, if it still
// exists. `built` is the build the item came from: its number and selection.
void connectAction(QAction* action, const MenuItem& item, const ExtensionShell::Pick& built) {
  if (item.action == MenuAction::openHostApp) {
    QObject::connect(action, &QAction::triggered, action, [] {
      try {
        if (gShell != nullptr) gShell->controller->openHostApp();
      } catch (...) {
      }
    });
  } else if (item.action == MenuAction::convertAction) {
    ExtensionShell::Pick pick = built;
    pick.tag = item.tag;
    pick.formatId = gShell->controller->formatIdForTag(item.tag).value_or(std::string());
    QObject::connect(action, &QAction::triggered, action, [pick = std::move(pick)] {
      try {
        if (gShell != nullptr) gShell->controller->convert(pick);
      } catch (...) {
      }
    });
  }
}

void fillMenu(QMenu* qmenu, const Menu& menu, const ExtensionShell::Pick& built) {
  qmenu->setTitle(actionText(menu.title));
  for (const MenuItem& item : menu.items) {
    if (item.isSeparator) {
      qmenu->addSeparator();
      continue;
    }
    QAction* action = nullptr;
    if (item.submenu) {
      QMenu* submenu = qmenu->addMenu(categoryIcon(item.image), actionText(item.title));
      fillMenu(submenu, *item.submenu, built);
      action = submenu->menuAction();
    } else {
      action = qmenu->addAction(categoryIcon(item.image), actionText(item.title));
    }
    action->setEnabled(item.enabled);
    connectAction(action, item, built);
  }
}

}  // namespace
}  // namespace palvin

class PalvinConvertPlugin : public KAbstractFileItemActionPlugin {
  Q_OBJECT

 public:
  PalvinConvertPlugin(QObject* parent, const QVariantList&) : KAbstractFileItemActionPlugin(parent) {}

  // The top menu's items, owned by this object as KIO asks; a submenu goes
  // with its item, since a menu can't be a child of a plain object.
  QList<QAction*> actions(const KFileItemListProperties& items, QWidget* parentWidget) override {
    QList<QAction*> result;
    try {
      palvin::Shell* shell = palvin::shell();
      if (shell == nullptr) return result;
      const QPalette palette = parentWidget != nullptr ? parentWidget->palette() : QApplication::palette();
      shell->platform->setAppearance(palvin::appearanceOf(palette));
      palvin::ExtensionShell::Pick built;
      built.selection = palvin::selectedItems(items.items());
      palvin::Menu menu = shell->controller->menuForItems(built.selection);
      built.build = shell->controller->build();
      for (const palvin::MenuItem& item : menu.items) {
        auto* action = new QAction(palvin::actionText(item.title), this);
        if (item.submenu) {
          auto* submenu = new QMenu();
          QObject::connect(action, &QObject::destroyed, [submenu] { delete submenu; });
          palvin::fillMenu(submenu, *item.submenu, built);
          action->setMenu(submenu);
        }
        palvin::connectAction(action, item, built);
        result.append(action);
      }
    } catch (...) {
      qDeleteAll(result);
      result.clear();
    }
    return result;
  }
};

K_PLUGIN_CLASS_WITH_JSON(PalvinConvertPlugin, "dolphin_plugin.json")

#include "dolphin_plugin.moc"
