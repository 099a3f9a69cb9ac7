// palvin-finder menu: the Finder on a terminal. Builds the real controller on
// the Linux platform, shows its contextual menu for the given files and can
// pick an item, exactly as the file manager would.
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "finder/finder_sync.h"
#include "loading.h"
#include "menu_view.h"
#include "platform/linux_platform.h"
#include "services/log.h"
#include "shared/paths.h"

namespace palvin::tool {
namespace {

constexpr std::string_view kName = "menu";

struct MenuOptions {
  std::string container;
  std::string appearance;
  std::string bundle;
  std::optional<std::int64_t> pick;
  bool openHostApp = false;
  bool interactive = false;
  std::vector<std::string> paths;
};

// Finder hands over absolute paths; keep the user's spelling otherwise
// (no symlink resolution, which would change the extension).
std::string absolutePath(const std::string& path) {
  return std::filesystem::absolute(path).lexically_normal().string();
}

class RawTerminal {
 public:
  RawTerminal() {
    if (tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios raw = saved_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    active_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
  }
  ~RawTerminal() {
    if (active_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
  }
  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;

 private:
  termios saved_{};
  bool active_ = false;
};

// Lets the user choose one of `items`; nothing when they quit.
std::optional<std::size_t> choose(const std::vector<PickableItem>& items, const Style& style) {
  auto show = [&](std::size_t selected, bool highlight) {
    for (std::size_t i = 0; i < items.size(); ++i) {
      std::string line = std::to_string(i + 1) + ". " + items[i].path;
      std::cout << (highlight && i == selected ? "> " + style.bold(line) : "  " + line) << '\n';
    }
  };
  if (isatty(STDIN_FILENO) != 1) {
    show(0, false);
    std::cout << "Pick a number (q to quit): " << std::flush;
    std::string answer;
    while (std::getline(std::cin, answer)) {
      if (answer == "q" || answer == "quit") return std::nullopt;
      try {
        std::size_t number = std::stoul(answer);
        if (number >= 1 && number <= items.size()) return number - 1;
      } catch (const std::exception&) {
      }
      std::cout << "Pick a number from 1 to " << items.size() << " (q to quit): " << std::flush;
    }
    return std::nullopt;
  }
  RawTerminal raw;
  std::size_t selected = 0;
  std::cout << style.dim("↑/↓ to move, Enter or a number to pick, q to quit") << '\n';
  show(selected, true);
  for (;;) {
    char c = 0;
    if (read(STDIN_FILENO, &c, 1) != 1 || c == 'q' || c == 4) return std::nullopt;
    if (c == '\n' || c == '\r') return selected;
    if (c >= '1' && c <= '9' && static_cast<std::size_t>(c - '0') <= items.size()) {
      return static_cast<std::size_t>(c - '1');
    }
    if (c == 0x1b) {
      char seq[2] = {0, 0};
      if (read(STDIN_FILENO, seq, 2) != 2 || seq[0] != '[') return std::nullopt;
      if (seq[1] == 'A' && selected > 0) --selected;
      if (seq[1] == 'B' && selected + 1 < items.size()) ++selected;
    }
    std::cout << "\x1b[" << items.size() << "A";  // redraw the list in place
    show(selected, true);
  }
}

int runMenu(const MenuOptions& options) {
  Style style = styleForStdout();
  // The item itself must exist: a symbolic link is selected as the link,
  // dangling or not, as the file manager selects it.
  for (const auto& path : options.paths) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
      return usageError(kName, path + ": no such file or directory (the selection must exist)");
    }
  }
  LinuxPlatform::Options platformOptions;
  platformOptions.container = resolveContainer(options.container);
  if (!options.appearance.empty()) platformOptions.appearance = options.appearance;
  if (!options.bundle.empty()) platformOptions.bundlePath = absolutePath(options.bundle);
  platformOptions.stringsDirectory = stringsDirectory();
  LinuxPlatform platform(platformOptions);
  std::vector<std::string> selection;
  for (const auto& path : options.paths) selection.push_back(absolutePath(path));
  platform.setSelection(selection);
  ScopedPlatform installed(platform);

  // The log lines this run adds show the user what the extension did.
  const auto& container = platformOptions.container;
  std::optional<LogTail> log;
  if (container) {
    log.emplace(paths::join(*container, FinderLog::kFileName));
    (void)log->take(true);
  }

  {
    FinderSync finder;
    Menu menu = finder.menuForMenuKind(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems));
    std::cout << style.bold("Menu") << " " << style.dim("(" + std::to_string(selection.size()) + " selected)")
              << '\n'
              << renderMenu(menu, style);
    if (options.interactive) {
      auto items = pickableItems(menu);
      if (items.empty()) {
        std::cout << "Nothing to pick.\n";
      } else if (auto chosen = choose(items, style)) {
        const MenuItem& item = *items[*chosen].item;
        if (item.action == MenuAction::convertAction) {
          finder.convertAction(item.tag);
        } else {
          finder.openHostApp();
        }
      }
    }
    if (options.pick) finder.convertAction(*options.pick);
    if (options.openHostApp) finder.openHostApp();
  }
  FinderLog::flush();
  std::cout << '\n';
  if (!container) {
    std::cout << style.yellow("No shared container: " + std::string(kNoContainerAdvice) + ".\n");
  } else if (auto added = log->take(true); added.ok() && !added->text.empty()) {
    std::cout << style.bold("Log") << " " << style.dim(paths::join(*container, FinderLog::kFileName)) << '\n'
              << added->text;
  }
  return kExitOk;
}

}  // namespace

void addMenuCommand(CommandLine commandLine) {
  auto options = std::make_shared<MenuOptions>();
  CLI::App* command = commandLine.app.add_subcommand(
      std::string(kName),
      "Build the extension's contextual menu for PATHs (which must exist; folders are dropped as the\n"
      "Finder extension drops them, and a symbolic link, even to a folder or dangling, counts as a\n"
      "file, as a selected link does in Finder) with the real controller, print it with tags, titles, "
      "separators,\n"
      "icons and tints, and optionally pick an item. The capabilities come from the shared\n"
      "container's capabilities.json; requests go to its requests directory; the log lines of the\n"
      "run are printed at the end.");
  addContainerOption(*command, options->container, false);
  command->add_option("--pick", options->pick, "then pick the target item with this tag (any integer)");
  command->add_flag("--open-host-app", options->openHostApp,
                    "then pick the fallback item (opens the host app)");
  command->add_flag("--interactive,-i", options->interactive,
                    "choose an item with the arrow keys or its number");
  command->add_option("--appearance", options->appearance,
                      "what the appearance setting reads, e.g. Dark (category icons are tinted white)");
  command->add_option("--bundle", options->bundle,
                      "the extension's bundle directory, where the search for the host app starts\n"
                      "(default: the directory of this executable)");
  command->add_option("paths", options->paths, "selected files and folders, in selection order")->required();
  command->footer(
      "\nExit codes: 0 the menu was built (whatever it offers); 2 bad arguments or a PATH that does not "
      "exist.");
  int& exitCode = commandLine.exitCode;
  command->callback([options, &exitCode] { exitCode = runMenu(*options); });
}

}  // namespace palvin::tool
