// The GNOME Files module loaded as Nautilus loads it (GModule and a type
// module calling its three entry points) and driven through its menu provider
// with file-info objects, without a display. The module carries its own copy
// of the core, so this test links none of it and reads the results from disk.
#include <fcntl.h>
#include <glib-object.h>
#include <gmock/gmock.h>
#include <gmodule.h>
#include <gtest/gtest.h>
#include <palvin/identifiers.h>
#include <sys/mount.h>
#include <unistd.h>

extern "C" {
#include <nautilus-extension.h>
}

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <regex>
#include <thread>

#include "support/private_namespace.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using palvin::testing::readText;
using palvin::testing::TempDir;
using palvin::testing::threadCount;
using palvin::testing::waitFor;

// What Nautilus hands to get_file_items: a location, and for items shown under
// another scheme (recent:///) the URI that opens them.
using FileInfo = GObject;
using FileInfoClass = GObjectClass;
void fileInfoInterface(NautilusFileInfoInterface* iface) {
  iface->get_location = [](NautilusFileInfo* info) {
    return g_file_new_for_uri(static_cast<char*>(g_object_get_data(G_OBJECT(info), "uri")));
  };
  iface->get_activation_uri = [](NautilusFileInfo* info) {
    return g_strdup(static_cast<char*>(g_object_get_data(G_OBJECT(info), "target")));
  };
  iface->is_directory = [](NautilusFileInfo* info) {
    return static_cast<gboolean>(GPOINTER_TO_INT(g_object_get_data(G_OBJECT(info), "directory")));
  };
}
G_DEFINE_TYPE_WITH_CODE(FileInfo, file_info, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(NAUTILUS_TYPE_FILE_INFO, fileInfoInterface))
void file_info_class_init(FileInfoClass*) {}
void file_info_init(FileInfo*) {}

// Nautilus's loader in small: loading opens the library and initialises it;
// unloading, when no class of it is in use, shuts it down and closes it.
struct Loader {
  GTypeModule parent;
  GModule* library;
};
using LoaderClass = GTypeModuleClass;
std::string gModulePath;
template <typename Function>
Function entry(GTypeModule* module, const char* name) {
  gpointer symbol = nullptr;
  EXPECT_TRUE(g_module_symbol(((Loader*)module)->library, name, &symbol)) << g_module_error();
  return reinterpret_cast<Function>(symbol);
}
G_DEFINE_TYPE(Loader, loader, G_TYPE_TYPE_MODULE)
void loader_class_init(LoaderClass* c) {
  c->load = [](GTypeModule* module) -> gboolean {
    auto flags = GModuleFlags(G_MODULE_BIND_LAZY | G_MODULE_BIND_LOCAL);
    ((Loader*)module)->library = g_module_open(gModulePath.c_str(), flags);
    entry<void (*)(GTypeModule*)>(module, "nautilus_module_initialize")(module);
    return TRUE;
  };
  c->unload = [](GTypeModule* module) {
    entry<void (*)()>(module, "nautilus_module_shutdown")();
    g_module_close(((Loader*)module)->library);
  };
}
void loader_init(Loader*) {}

// "label <icon> {children}", items separated by " | "; each item is also
// recorded under its labels' path ("Convert using Palvin/WebP").
std::string render(GList* items, std::map<std::string, NautilusMenuItem*>& byPath,
                   const std::string& at = "") {
  std::string out;
  for (GList* node = items; node != nullptr; node = node->next) {
    g_autofree char* label = nullptr;
    g_autofree char* icon = nullptr;
    g_autoptr(NautilusMenu) menu = nullptr;
    g_object_get(node->data, "label", &label, "icon", &icon, "menu", &menu, nullptr);
    byPath[at + label] = NAUTILUS_MENU_ITEM(node->data);
    out += std::string(out.empty() ? "" : " | ") + label + (icon ? std::string(" <") + icon + ">" : "");
    if (menu == nullptr) continue;
    GList* children = nautilus_menu_get_items(menu);  // the menu keeps its own references
    out += " {" + render(children, byPath, at + label + "/") + "}";
    nautilus_menu_item_list_free(children);
  }
  return out;
}

class NautilusModule : public ::testing::Test {
 protected:
  // One copy of the module inside a host app whose AppRun records each launch;
  // listed once, as Nautilus does, and unloaded until the first provider.
  static void SetUpTestSuite() {
    static TempDir bundle;
    gModulePath = bundle.write("Recorder.app/Contents/PlugIns/PalvinFinder.appex/libpalvin-nautilus.so", "");
    fs::copy_file(PALVIN_NAUTILUS_MODULE, gModulePath, fs::copy_options::overwrite_existing);
    launches =
        bundle.write("Recorder.app/AppRun", "#!/bin/sh\necho \"$* $PALVIN_SHARED_CONTAINER\" >>\"$0.log\"\n");
    fs::permissions(launches, fs::perms::owner_all);
    launches += ".log";
    g_setenv("GIO_USE_VFS", "local", TRUE);
    // GLib's own worker thread, which file monitors start and which stays.
    g_object_unref(g_file_monitor_directory(g_file_new_for_path(bundle.str().c_str()), G_FILE_MONITOR_NONE,
                                            nullptr, nullptr));
    baseline = threadCount();
    GTypeModule* loader = G_TYPE_MODULE(g_object_new(loader_get_type(), nullptr));
    ASSERT_TRUE(g_type_module_use(loader));
    const GType* types = nullptr;
    int count = 0;
    entry<void (*)(const GType**, int*)>(loader, "nautilus_module_list_types")(&types, &count);
    ASSERT_EQ(count, 1);
    providerType = types[0];
    g_type_module_unuse(loader);
  }
  void SetUp() override {
    fs::remove(launches);
    g_setenv("XDG_DATA_HOME", dir.str().c_str(), TRUE);
    for (auto name : {"photo.png", "doc.pdf"}) dir.write(name, name);
    provider = NAUTILUS_MENU_PROVIDER(g_object_new(providerType, nullptr));
  }
  // Nautilus's end: nothing of the module may be left running.
  void TearDown() override {
    g_clear_object(&provider);
    EXPECT_EQ(threadCount(), baseline);
  }
  ~NautilusModule() override {
    for (GList* menu : menus) g_list_free_full(menu, g_object_unref);
  }

  void writeCatalogue(const std::string& text) {
    fs::create_directories(container);
    palvin::testing::writeText(container + "/capabilities.json", text);
  }
  // Files of the test's directory or URIs; "A -> B" is a location A opened by the URI B.
  // Nautilus's type of a name ending in "/" is a folder, of any other a file.
  std::string menuFor(const std::vector<std::string>& names) {
    GList* files = nullptr;
    for (const auto& name : names) {
      GObject* info = G_OBJECT(g_object_new(file_info_get_type(), nullptr));
      std::string at = name.substr(0, name.find(" -> "));
      if (at.ends_with('/')) {
        at.pop_back();
        g_object_set_data(info, "directory", GINT_TO_POINTER(1));
      }
      if (at.find(':') == at.npos) at = "file://" + dir / at;
      g_object_set_data_full(info, "uri", g_strdup(at.c_str()), g_free);
      if (name.find(" -> ") != name.npos)
        g_object_set_data_full(info, "target", g_strdup(name.substr(name.find(" -> ") + 4).c_str()), g_free);
      files = g_list_append(files, info);
    }
    menus.push_back(nautilus_menu_provider_get_file_items(provider, files));
    g_list_free_full(files, g_object_unref);
    return render(menus.back(), items);
  }
  std::vector<std::string> requests() {
    std::vector<std::string> found;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(container + "/requests", none)) {
      found.push_back(std::regex_replace(readText(entry.path()), std::regex(R"(\\/)"), "/"));
    }
    return found;
  }

  static inline std::string launches;
  static inline GType providerType;
  static inline std::size_t baseline;
  TempDir dir;
  const std::string container = dir / std::string(palvin::ids::kAppGroupIdentifier);
  NautilusMenuProvider* provider = nullptr;
  std::vector<GList*> menus;
  std::map<std::string, NautilusMenuItem*> items;  // the latest item under each path
};

const std::string kCatalogue = readText(PALVIN_SOURCE_DIR "/examples/capabilities.json");
const std::string kPhotoMenu =
    "Convert using Palvin {HEIC | JPEG | WebP | Documents <x-office-document-symbolic> {PDF}}";

TEST_F(NautilusModule, MenusForSelections) {
  struct {
    std::string catalogue;
    std::vector<std::string> selection;
    std::string menu;
  } cases[] = {
      {kCatalogue, {"photo.png"}, kPhotoMenu},
      {kCatalogue, {"photo.png/", "doc.pdf/"}, ""},  // the types are Nautilus's, whatever the disk holds
      {kCatalogue, {"recent:///photo.png -> file://" + dir / "photo.png"}, kPhotoMenu},
      {kCatalogue, {"trash:///photo.png"}, ""},  // no local path to hand over
      {R"({"schemaVersion":1,"generatedAt":"","convertMenuTitle":"To_Do",
          "categories":[{"id":"i","label":"Images","icon":"photo"},{"id":"v","label":"Video","icon":"cube"}],
          "formats":[{"id":"png","displayName":"PNG","category":"i","primaryExtension":"png"},
                     {"id":"mp4","displayName":"MP_4","category":"v","primaryExtension":"mp4"}],
          "extensionToFormatId":{"png":"png"},"conversions":{"png":["mp4"]}})",
       {"photo.png"},
       "To__Do {Video {MP__4}}"},  // "_" doubled shows as itself; no icon stands for "cube"
  };
  for (const auto& c : cases) {
    writeCatalogue(c.catalogue);
    EXPECT_EQ(menuFor(c.selection), c.menu) << c.selection.front();
  }
  // Once Nautilus lets go of the items, each item and its submenu are gone.
  // (Nautilus 43's own menus never release the items they hold.)
  std::vector<std::unique_ptr<GWeakRef, void (*)(GWeakRef*)>> made;
  for (GList* menu : menus) {
    for (GList* node = menu; node != nullptr; node = node->next) {
      g_autoptr(NautilusMenu) submenu = nullptr;
      g_object_get(node->data, "menu", &submenu, nullptr);
      for (gpointer object : {node->data, gpointer(submenu)}) {
        made.emplace_back(new GWeakRef, [](GWeakRef* ref) { g_weak_ref_clear(ref), delete ref; });
        g_weak_ref_init(made.back().get(), object);
      }
    }
  }
  for (GList* menu : std::exchange(menus, {})) g_list_free_full(menu, g_object_unref);
  for (auto& ref : made) {
    g_autoptr(GObject) alive = G_OBJECT(g_weak_ref_get(ref.get()));
    EXPECT_EQ(alive, nullptr) << G_OBJECT_TYPE_NAME(alive);
  }
}

// Before the host app has written a catalogue, the one item opens it to the
// front. The log growing beside it makes no new menu; the catalogue
// appearing, going away or changing makes Nautilus ask again for the same
// selection's items.
// A pick sends the request for the menu the user saw.
TEST_F(NautilusModule, MenusFollowTheCatalogueAndPicksSendWhatTheUserSaw) {
  int updates = 0;
  g_signal_connect_swapped(provider, "items-updated", G_CALLBACK(+[](int* count) { ++*count; }), &updates);
  auto updatedBy = [&](const std::function<void()>& change) {
    const int before = updates;
    change();
    return waitFor(
        [&] {
          while (g_main_context_iteration(nullptr, FALSE)) {
          }
          return updates > before;
        },
        std::chrono::seconds(20));
  };
  const std::string fallback = "Convert with Palvin \xE2\x80\x94 open to set up";
  const std::string catalogue = container + "/capabilities.json";
  EXPECT_EQ(menuFor({"photo.png"}), fallback);
  nautilus_menu_item_activate(items[fallback]);
  EXPECT_TRUE(waitFor([&] { return readText(launches) == "--activate " + container + "\n"; }));
  // The log growing and other files of the container change no menu (checked
  // first, so that no late event of a catalogue write is counted).
  std::ofstream(container + "/finder-extension.log", std::ios::app) << "a line\n";
  palvin::testing::writeText(container + "/notes.txt", "not the catalogue");
  for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
       std::chrono::steady_clock::now() < end; g_usleep(10000)) {
    g_main_context_iteration(nullptr, FALSE);
  }
  EXPECT_EQ(updates, 0);
  struct {
    const char* change;
    std::function<void()> make;
    std::string menu;
  } steps[] = {
      {"appears", [&] { writeCatalogue(kCatalogue); }, kPhotoMenu},
      {"goes away", [&] { fs::remove(catalogue); }, fallback},
      {"comes back", [&] { writeCatalogue(kCatalogue); }, kPhotoMenu},
  };
  for (const auto& step : steps) {
    EXPECT_TRUE(updatedBy(step.make)) << step.change;
    EXPECT_EQ(menuFor({"photo.png"}), step.menu) << step.change;
  }
  NautilusMenuItem* webp = items["Convert using Palvin/WebP"];
  // Another window's selection is built in between: the controller's tag 3 is now PNG for doc.pdf.
  EXPECT_EQ(menuFor({"doc.pdf"}),
            "Convert using Palvin {Plain Text | Images <image-x-generic-symbolic> {JPEG | PNG}}");
  nautilus_menu_item_activate(webp);
  nautilus_menu_item_activate(items["Convert using Palvin/Images/PNG"]);
  auto request = [&](std::string target, std::string file, std::string source) {
    return R"({"targetFormatId":")" + target + R"(","files":[{"path":")" + dir / file +
           R"(","sourceFormatId":")" + source + "\"}]}";
  };
  EXPECT_THAT(requests(), ::testing::UnorderedElementsAre(request("webp", "photo.png", "png"),
                                                          request("png", "doc.pdf", "pdf")));
  const std::string launched = "--activate " + container + "\n " + container + "\n " + container + "\n";
  EXPECT_TRUE(waitFor([&] { return readText(launches) == launched; })) << readText(launches);

  // A new title, and the photo's WebP item no longer names the target it showed.
  EXPECT_TRUE(updatedBy([&] {
    const std::string titled = std::regex_replace(kCatalogue, std::regex("\"schemaVersion\""),
                                                  R"("convertMenuTitle":"Palvin","schemaVersion")");
    writeCatalogue(std::regex_replace(titled, std::regex("\"webp\""), "\"webp2\""));
    fs::last_write_time(catalogue, fs::file_time_type::clock::now() + std::chrono::hours(1));
  }));
  EXPECT_EQ(menuFor({"photo.png"}),
            std::regex_replace(kPhotoMenu, std::regex("Convert using Palvin"), "Palvin"));
  nautilus_menu_item_activate(webp);
  EXPECT_EQ(requests().size(), 2u);
  EXPECT_GT(threadCount(), baseline);  // the mount watcher and the log's worker
  TearDown();
  // Every line was written before the provider went, the stale pick's last.
  EXPECT_THAT(readText(container + "/finder-extension.log"),
              ::testing::EndsWith("[WARN] convertAction: stale menu state for tag 3\n"));
}

// A FUSE file system whose server never reads a request, as a hung network
// mount (smb://, sftp:// under gvfs) stops answering: any look at a path in it
// waits until the mount is forced off. Mounted in the test's own namespace.
class HangingMount {
 public:
  explicit HangingMount(const std::string& at) : at_(at), fd_(::open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
    const std::string options = "fd=" + std::to_string(fd_) +
                                ",rootmode=40000,user_id=" + std::to_string(::getuid()) +
                                ",group_id=" + std::to_string(::getgid());
    mounted =
        fd_ >= 0 && ::mount("palvin-hanging", at.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
  }
  ~HangingMount() {
    end();
    if (fd_ >= 0) ::close(fd_);
  }
  // What waits on the mount fails at once.
  void end() {
    if (std::exchange(mounted, false)) ::umount2(at_.c_str(), MNT_FORCE | MNT_DETACH);
  }
  bool mounted = false;

 private:
  std::string at_;
  int fd_;
};

std::optional<std::string> gNoNamespace;

// The selection lies on a mount that hangs: the menu comes from Nautilus's
// types at once. A look at the disk would wait until the test forces the
// mount off, after 30 seconds.
TEST_F(NautilusModule, AHungMountGetsItsMenuFromNautilusTypesWithoutWaiting) {
  if (gNoNamespace) GTEST_SKIP() << *gNoNamespace;
  writeCatalogue(kCatalogue);
  fs::create_directory(dir / "mnt");
  HangingMount mount(dir / "mnt");
  ASSERT_TRUE(mount.mounted) << "FUSE: " << std::strerror(errno);
  std::promise<std::string> menu;
  std::thread nautilus([&] { menu.set_value(menuFor({"mnt/photo.png", "mnt/folder/"})); });
  auto built = menu.get_future();
  const bool waited = built.wait_for(std::chrono::seconds(30)) != std::future_status::ready;
  mount.end();
  nautilus.join();
  EXPECT_FALSE(waited) << "the menu waited for the hung mount";
  EXPECT_EQ(built.get(), kPhotoMenu);
}

}  // namespace

// The hung mount needs a mount namespace of the test's own, made before any
// thread exists.
int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  gNoNamespace = palvin::testing::enterPrivateMountNamespace();
  return RUN_ALL_TESTS();
}
