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

#include "extension/common/file_manager_platform.h"
#include "extension/common/freedesktop_icons.h"
#include "extension/common/menu_session.h"
#include "extension/common/module_bundle.h"
#include "platform/platform.h"
#include "services/log.h"
#include "shared/paths.h"

namespace palvin {
namespace {

// KIO makes a plugin object for every context menu, so the principal object
// is the process's one controller, made at the first menu and ended with the
// application.
struct Shell {
  std::unique_ptr<FileManagerPlatform> platform;
  std::unique_ptr<MenuSession> session;
};
Shell* gShell = nullptr;

// Runs when Qt's application object goes, on the main thread: the controller
// stops watching mounts, and the log writes what is queued and ends its
// worker, so no thread of ours outlives the application.
void endShell() {
  Shell* shell = std::exchange(gShell, nullptr);
  if (shell == nullptr) return;
  try {
    shell->session.reset();
    FinderLog::shutdown();
  } catch (...) {
  }
  installPlatform(nullptr);
  delete shell;
}

MenuSession* session() {
  if (gShell != nullptr) return gShell->session.get();
  if (QCoreApplication::instance() == nullptr) return nullptr;
  auto shell = std::make_unique<Shell>();
  LinuxPlatform::Options options;
  options.bundlePath = moduleBundlePath();
  if (options.bundlePath) options.stringsDirectory = paths::join(*options.bundlePath, "Resources");
  shell->platform = std::make_unique<FileManagerPlatform>(std::move(options));
  installPlatform(shell->platform.get());
  shell->session = std::make_unique<MenuSession>(*shell->platform);
  gShell = shell.release();
  qAddPostRoutine(endShell);
  return gShell->session.get();
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
  std::optional<std::string_view> name = freedesktopIconName(image->symbolName);
  if (!name) return {};
  QIcon themed = QIcon::fromTheme(QString::fromUtf8(name->data(), static_cast<int>(name->size())));
  if (themed.isNull()) return {};
  QColor colour = image->paletteColor == PaletteColor::white ? Qt::white : Qt::black;
  return QIcon(new TintedIconEngine(themed, colour));
}

// Qt takes "&" as the mark of a mnemonic; doubled, it shows as itself.
QString actionText(const std::string& title) {
  return QString::fromStdString(title).replace(QLatin1Char('&'), QLatin1String("&&"));
}

// The slots run inside Qt's event loop, after the menu that made them may
// have gone: they reach the controller only through the shell, if it still
// exists.
void connectAction(QAction* action, const MenuItem& item, const MenuSession& built,
                   const std::shared_ptr<const MenuOrigin>& origin) {
  if (item.action == MenuAction::openHostApp) {
    QObject::connect(action, &QAction::triggered, action, [] {
      try {
        if (gShell != nullptr) gShell->session->openHostApp();
      } catch (...) {
      }
    });
  } else if (item.action == MenuAction::convertAction) {
    QObject::connect(action, &QAction::triggered, action, [pick = built.pickFor(item, origin)] {
      try {
        if (gShell != nullptr) gShell->session->convert(pick);
      } catch (...) {
      }
    });
  }
}

void fillMenu(QMenu* qmenu, const Menu& menu, const MenuSession& built,
              const std::shared_ptr<const MenuOrigin>& origin) {
  qmenu->setTitle(actionText(menu.title));
  for (const MenuItem& item : menu.items) {
    if (item.isSeparator) {
      qmenu->addSeparator();
      continue;
    }
    QAction* action = nullptr;
    if (item.submenu) {
      QMenu* submenu = qmenu->addMenu(categoryIcon(item.image), actionText(item.title));
      fillMenu(submenu, *item.submenu, built, origin);
      action = submenu->menuAction();
    } else {
      action = qmenu->addAction(categoryIcon(item.image), actionText(item.title));
    }
    action->setEnabled(item.enabled);
    connectAction(action, item, built, origin);
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
      palvin::MenuSession* session = palvin::session();
      if (session == nullptr) return result;
      const QPalette palette = parentWidget != nullptr ? parentWidget->palette() : QApplication::palette();
      palvin::gShell->platform->setAppearance(palvin::appearanceOf(palette));
      auto [menu, origin] = session->build(palvin::selectedItems(items.items()));
      for (const palvin::MenuItem& item : menu.items) {
        auto* action = new QAction(palvin::actionText(item.title), this);
        if (item.submenu) {
          auto* submenu = new QMenu();
          QObject::connect(action, &QObject::destroyed, [submenu] { delete submenu; });
          palvin::fillMenu(submenu, *item.submenu, *session, origin);
          action->setMenu(submenu);
        }
        palvin::connectAction(action, item, *session, origin);
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
