#!/usr/bin/env python3
"""The Convert menu in real file managers, one row per file manager.

Each run takes one row: the file manager runs on a temporary folder (Album/,
photo.png, sound.wav) under its own Xvfb, private session bus and
accessibility bus, in a private mount namespace where a directory holding a
link to our module is bound over its extension directory; nothing outside the
namespace changes. The context menu is opened and every pick made from the
keyboard; what the menu holds is read through the accessibility tree
(AT-SPI). In order, on the same window:

  1. no catalogue yet: photo.png's menu holds the fallback item, which is
     picked; the host app starts and installs its catalogue;
  2. right-clicked again without reselecting, photo.png's menu is the Convert
     menu: the catalogue's arrival reached the file manager (where its API can
     be told; others ask afresh at every right-click);
  3. the catalogue changes to one with categories and a title holding "_":
     the menu follows it, the "_" shows as itself, inline targets, separator
     (where the API has them) and category submenus stand as planned; WebP is
     picked: the request, the host app's result document and photo.webp;
  4. the folder alone: no Convert item, no fallback;
  5. everything selected (photo.png, photo.webp, sound.wav and the folder):
     no common target, so no Convert item;
  6. the catalogue goes away: the fallback item again, same selection.

Screenshots of every open menu go to the artefact directory, with the logs on
failure.

Usage: file-manager-e2e.py <row> <build dir> <app group identifier> <artefact dir>
Rows: nemo, caja, thunar. Exit 0 passed, 1 failed (the message
names the step), 77 skipped (the message says why).
"""
import ctypes
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass

# Debian's Python holds the accessibility bindings; another python3 first in
# PATH (pyenv, a virtualenv) does not.
SYSTEM_PYTHON = "/usr/bin/python3"
try:
    import gi  # noqa: F401
    import pyatspi  # noqa: F401
except ImportError:
    if os.path.realpath(sys.executable) != os.path.realpath(SYSTEM_PYTHON) and os.path.exists(SYSTEM_PYTHON):
        os.execv(SYSTEM_PYTHON, [SYSTEM_PYTHON] + sys.argv)
    print("SKIPPED: python3-pyatspi is not installed (scripts/deps.sh --tests installs it)", file=sys.stderr)
    sys.exit(77)

FALLBACK = "Convert with Palvin \u2014 open to set up"
CONVERT = "Convert using Palvin"
CHANGED_TITLE = "Convert_to"  # shown as itself when the mnemonic mark is escaped
FILES = ["Album", "photo.png", "photo.webp", "sound.wav"]
MONITOR_LINE = "Capabilities changed: menu items updated"


@dataclass
class FileManager:
    name: str  # the row, and the module: libpalvin-<name>.so
    package: str  # pkg-config module and variable naming its extension directory
    variable: str
    command: list  # started on the folder
    quit: list
    window_class: str  # its windows' X class
    # Told by items-updated, it asks for the same selection's items again;
    # without the signal it asks afresh at every right-click.
    items_updated: bool
    separators: bool  # its API draws our separator
    selects_photo: bool  # started on photo.png, it opens the folder with the photo selected
    settings: str = ""  # GSettings keyfile lines
    # Its view's selection can be read through the accessibility tree;
    # Thunar's icon view shows nothing of its items there.
    readable_selection: bool = True


# A thumbnail finished while a menu is open changes the file, and the file
# manager then rebuilds the open menu under the keyboard: thumbnails are off.
ROWS = {
    row.name: row
    for row in [
        FileManager("nemo", "libnemo-extension", "extensiondir", ["nemo"], ["nemo", "-q"], "nemo", True, True, False,
                    "[org/nemo/preferences]\nshow-image-thumbnails='never'\n"),
        FileManager("caja", "libcaja-extension", "extensiondir", ["caja", "--no-desktop"], ["caja", "-q"], "caja",
                    True, False, False, "[org/mate/caja/preferences]\nshow-image-thumbnails='never'\n"),
        FileManager("thunar", "thunarx-3", "extensionsdir", ["thunar"], ["thunar", "-q"], "Thunar", False, False, True,
                    readable_selection=False),
    ]
}


class Failed(Exception):
    pass


class Skipped(Exception):
    pass


class Session:
    """Everything one row starts, and stops again by PID."""

    def __init__(self, row, build, group, artefacts):
        self.row, self.build, self.group, self.artefacts = row, build, group, artefacts
        self.tmp = tempfile.mkdtemp(prefix=f"palvin-{row.name}-")
        self.processes = []
        self.step = "setting up"
        self.app = None
        self.window = None

    # Processes -------------------------------------------------------------

    def start(self, args, log, **kwargs):
        with open(os.path.join(self.tmp, log), "ab") as out:
            process = subprocess.Popen(args, stdout=out, stderr=subprocess.STDOUT, **kwargs)
        self.processes.append(process)
        return process

    def descendants(self, pid):
        children = {}
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open(f"/proc/{entry}/stat") as stat:
                    parent = int(stat.read().rsplit(")", 1)[1].split()[1])
            except (OSError, IndexError, ValueError):
                continue
            children.setdefault(parent, []).append(int(entry))
        found, queue = [], [pid]
        while queue:
            for child in children.get(queue.pop(), []):
                found.append(child)
                queue.append(child)
        return found

    @staticmethod
    def stop_pid(pid):
        try:
            os.kill(pid, signal.SIGTERM)
        except ProcessLookupError:
            return
        for _ in range(50):
            try:
                if os.waitpid(pid, os.WNOHANG) != (0, 0):
                    return
            except ChildProcessError:
                try:
                    os.kill(pid, 0)
                except ProcessLookupError:
                    return
            time.sleep(0.1)
        try:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
        except (ProcessLookupError, ChildProcessError):
            pass

    def stop_all(self):
        # Newest first, each with what it started (the accessibility bus's
        # daemons, host apps that the subreaper took in) before itself.
        for pid in reversed(self.descendants(os.getpid())):
            if pid not in [p.pid for p in self.processes]:
                self.stop_pid(pid)
        for process in reversed(self.processes):
            for pid in reversed(self.descendants(process.pid)):
                self.stop_pid(pid)
            if process.poll() is None:
                self.stop_pid(process.pid)
            process.poll()

    # Waiting and failing ---------------------------------------------------

    def fail(self, message):
        raise Failed(f"while {self.step}: {message}")

    def wait_for(self, seconds, what, check):
        deadline = time.monotonic() + seconds
        while True:
            try:
                result = check()
            except Exception:  # the tree changes under a reader; try again
                result = None
            if result:
                return result
            if time.monotonic() > deadline:
                self.fail(f"timed out after {seconds}s waiting for {what}")
            time.sleep(0.2)

    def screenshot(self, name):
        subprocess.run(["import", "-window", "root", os.path.join(self.artefacts, name)], check=False,
                       stderr=subprocess.DEVNULL)

    def keep_logs(self):
        for name in ["fm.log", "container/finder-extension.log", "container/host-app.log"]:
            path = os.path.join(self.tmp, name)
            if os.path.exists(path):
                shutil.copy(path, os.path.join(self.artefacts, os.path.basename(name)))

    # Setting up ------------------------------------------------------------

    def prepare(self):
        row = self.row
        for program in ["Xvfb", "dbus-daemon", "xdotool", "import", "convert", "unshare", "pkg-config",
                        row.command[0]]:
            if shutil.which(program) is None:
                raise Skipped(f"{program} is not installed (scripts/deps.sh --tests installs it)")
        self.launcher = "/usr/libexec/at-spi-bus-launcher"
        if not os.access(self.launcher, os.X_OK):
            raise Skipped("at-spi-bus-launcher is not installed (at-spi2-core; scripts/deps.sh --tests installs it)")
        appex = os.path.join(self.build, "PalvinHost.app/Contents/PlugIns/PalvinFinder.appex")
        self.module = os.path.join(appex, f"libpalvin-{row.name}.so")
        self.host = os.path.join(self.build, "PalvinHost.app/AppRun")
        self.tool = os.path.join(self.build, "palvin-finder")
        if not os.path.exists(self.module):
            raise Skipped(f"the module was not built ({self.module})")
        # A module built with a sanitizer needs its runtime loaded first, which the file manager is not.
        if re.search(r"lib(a|t|ub)san", subprocess.run(["ldd", self.module], capture_output=True, text=True).stdout):
            raise Skipped("the module is built with a sanitizer and the file manager is not")
        self.extensions = subprocess.run(["pkg-config", f"--variable={row.variable}", row.package],
                                         capture_output=True, text=True).stdout.strip()
        if not self.extensions:
            raise Skipped(f"pkg-config names no extension directory for {row.package}")
        self.namespace = ["unshare", "--mount"] if os.getuid() == 0 else \
            ["unshare", "--user", "--map-root-user", "--mount"]

        t = self.tmp
        for d in ["layer", "home", "config/glib-2.0/settings", "cache", "extensions", "requests", "Files/Album",
                  f"data/{self.group}"]:
            os.makedirs(os.path.join(t, d))
        os.makedirs(os.path.join(t, "runtime"), mode=0o700)
        with open(os.path.join(t, "config/glib-2.0/settings/keyfile"), "w") as keyfile:
            keyfile.write(row.settings)
        os.symlink(os.path.join(t, "data", self.group), os.path.join(t, "container"))
        self.container = os.path.join(t, "data", self.group)
        self.folder = os.path.join(t, "Files")
        self.photo = os.path.join(self.folder, "photo.png")
        subprocess.run(["convert", "-size", "64x64", "xc:red", self.photo], check=True)
        with open(os.path.join(self.folder, "sound.wav"), "wb") as sound:
            sound.write(b"RIFF")

        # The host app the module starts: ours, behind a wrapper that first
        # keeps a copy of the requests it is about to take (it takes them
        # within milliseconds) and records how it was started.
        bundle = os.path.join(t, "Host.app/Contents/PlugIns/PalvinFinder.appex")
        os.makedirs(bundle)
        shutil.copy(self.module, bundle)
        wrapper = os.path.join(t, "Host.app/AppRun")
        with open(wrapper, "w") as script:
            script.write(f'#!/bin/sh\necho "$*" >>"{t}/launches"\n'
                         f'cp "$PALVIN_SHARED_CONTAINER"/requests/*.json "{t}/requests/" 2>/dev/null\n'
                         f'exec "{self.host}" "$@"\n')
        os.chmod(wrapper, 0o755)
        os.symlink(os.path.join(bundle, os.path.basename(self.module)), os.path.join(t, "extensions",
                                                                                       os.path.basename(self.module)))
        trial = subprocess.run(self.in_namespace(["true"]), capture_output=True, text=True)
        if trial.returncode != 0:
            raise Skipped(f"no private {self.extensions} can be made here ({' '.join(self.namespace)}: "
                          f"{trial.stderr.strip()}), and {row.name} loads modules only from there")

    def in_namespace(self, command):
        # Our directory is bound over the extension directory. Where that
        # directory doesn't exist (no other extension installed), it is made
        # in a layer over its nearest existing parent, on a private tmpfs.
        script = """set -e
ours="$1" target="$2" layer="$3"
shift 3
if [ ! -d "$target" ]; then
  base="$target"
  while [ ! -d "$base" ]; do base="$(dirname "$base")"; done
  mount -t tmpfs tmpfs "$layer"
  mkdir "$layer/upper" "$layer/work"
  mount -t overlay overlay -o "lowerdir=$base,upperdir=$layer/upper,workdir=$layer/work" "$base"
  mkdir -p "$target"
fi
mount --bind "$ours" "$target"
exec "$@"
"""
        return self.namespace + ["sh", "-c", script, "sh", f"{self.tmp}/extensions", self.extensions,
                                 f"{self.tmp}/layer"] + command

    def start_session(self):
        t = self.tmp
        self.step = "starting Xvfb"
        read, write = os.pipe()
        self.start(["Xvfb", "-displayfd", str(write), "-screen", "0", "1280x800x24", "-nolisten", "tcp"],
                   "xvfb.log", pass_fds=(write,))
        os.close(write)
        display = b""
        deadline = time.monotonic() + 20
        while not display.endswith(b"\n") and time.monotonic() < deadline:
            chunk = os.read(read, 16)
            if not chunk:
                break
            display += chunk
        os.close(read)
        if not display.strip():
            self.fail("Xvfb reported no display")
        os.environ["DISPLAY"] = ":" + display.decode().strip()

        self.step = "starting the session bus"
        # No service directories: nothing is started on demand behind our
        # back, so every process of the session is one started here.
        with open(os.path.join(t, "bus.conf"), "w") as conf:
            conf.write(f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={t}/runtime/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
  </policy>
</busconfig>
""")
        self.start(["dbus-daemon", f"--config-file={t}/bus.conf", "--nofork"], "dbus.log")
        self.wait_for(20, "the session bus's socket", lambda: os.path.exists(f"{t}/runtime/bus"))
        os.environ.update({
            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={t}/runtime/bus", "HOME": f"{t}/home",
            "XDG_DATA_HOME": f"{t}/data", "XDG_CONFIG_HOME": f"{t}/config", "XDG_CACHE_HOME": f"{t}/cache",
            "XDG_RUNTIME_DIR": f"{t}/runtime", "GSETTINGS_BACKEND": "keyfile", "GIO_USE_VFS": "local",
            "GIO_USE_VOLUME_MONITOR": "unix", "GDK_BACKEND": "x11", "LANG": "C.UTF-8", "LC_ALL": "C.UTF-8",
        })
        for name in ["PALVIN_SHARED_CONTAINER", "NO_AT_BRIDGE", "GTK_A11Y"]:
            os.environ.pop(name, None)

        self.step = "starting the accessibility bus"
        # It starts the bus's own daemon and, on demand, the registry.
        self.start([self.launcher, "--launch-immediately"], "atspi.log")
        bus_name = "org.a11y.Bus"
        self.wait_for(20, "the accessibility bus", lambda: subprocess.run(
            ["dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
             "org.freedesktop.DBus.NameHasOwner", f"string:{bus_name}"],
            capture_output=True, text=True).stdout.strip().endswith("true"))

    def start_file_manager(self):
        row = self.row
        self.step = f"starting {row.name}"
        self.fm = self.start(self.in_namespace(row.command + [self.photo if row.selects_photo else self.folder]), "fm.log")

        def window():
            out = subprocess.run(["xdotool", "search", "--onlyvisible", "--class", row.window_class],
                                 capture_output=True, text=True).stdout.split()
            return out[0] if out else None

        self.window = self.wait_for(60, f"{row.name}'s window", window)
        import pyatspi
        self.pyatspi = pyatspi

        def application():
            desktop = pyatspi.Registry.getDesktop(0)
            for i in range(desktop.childCount):
                app = desktop.getChildAtIndex(i)
                if app is not None and app.get_process_id() == self.fm_pid():
                    return app
            return None

        self.app = self.wait_for(60, f"{row.name} on the accessibility bus", application)
        # The module's controller logs its launch from its own file's bundle.
        launched = f"FinderSync launched: {self.tmp}/Host.app/Contents/PlugIns/PalvinFinder.appex"
        self.wait_for(30, "the module to start", lambda: launched in self.log())

    def fm_pid(self):
        # unshare and sh exec into the file manager: the same process.
        return self.fm.pid

    # The file manager's state, from outside -------------------------------

    def log(self):
        try:
            with open(os.path.join(self.container, "finder-extension.log"), encoding="utf-8") as log:
                return log.read()
        except FileNotFoundError:
            return ""

    def key(self, *keys, focus=True):
        # Keys for the window go to it; an open menu holds the keyboard itself.
        if focus:
            subprocess.run(["xdotool", "windowfocus", "--sync", self.window], check=False)
        if keys and subprocess.run(["xdotool", "key", "--clearmodifiers", *keys]).returncode != 0:
            self.fail("xdotool could not type")

    def told_of_catalogue(self, mark):
        # Where the API has items-updated, the module says when it told the
        # file manager; the next right-click must then show the new menu.
        if self.row.items_updated:
            self.wait_for(20, "the module to see the catalogue change",
                          lambda: MONITOR_LINE in self.log()[len(mark):])

    # The menu, through the accessibility tree ------------------------------

    def children(self, node):
        return [child for child in (node.getChildAtIndex(i) for i in range(node.childCount)) if child is not None]

    def has(self, node, state):
        return node.getState().contains(state)

    def menu_root(self):
        """The open context menu (GTK 3's popup window's menu), or None."""
        p = self.pyatspi
        # What the tree says now, not what an earlier read left cached.
        self.app.clear_cache()
        for window in self.children(self.app):
            if window.getRole() == p.ROLE_WINDOW and self.has(window, p.STATE_SHOWING):
                for menu in self.children(window):
                    if menu.getRole() == p.ROLE_MENU and self.has(menu, p.STATE_SHOWING):
                        return menu
        return None

    def find(self, node, matches, depth=0):
        if matches(node):
            return node
        if depth < 40:
            for child in self.children(node):
                found = self.find(child, matches, depth + 1)
                if found is not None:
                    return found
        return None

    def tree(self, root):
        """The menu as (name, kind, submenu items) triples, kind "item",
        "submenu" or "separator"."""
        p = self.pyatspi
        items = []
        for child in self.children(root):
            if not self.has(child, p.STATE_VISIBLE):
                continue  # placeholders and tear-off items
            role = child.getRole()
            if role == p.ROLE_SEPARATOR:
                items.append(("", "separator", []))
            elif role == p.ROLE_MENU:
                items.append((child.name, "submenu", self.tree(child)))
            elif role in (p.ROLE_MENU_ITEM, p.ROLE_CHECK_MENU_ITEM, p.ROLE_RADIO_MENU_ITEM):
                items.append((child.name, "item", []))
        return items

    def selected(self):
        """The name of the menu item the keyboard is on, deepest level."""
        p = self.pyatspi
        root = self.menu_root()
        found = []
        if root is not None:
            roles = (p.ROLE_MENU_ITEM, p.ROLE_MENU, p.ROLE_CHECK_MENU_ITEM, p.ROLE_RADIO_MENU_ITEM)
            self.find(root, lambda n: n.getRole() in roles and n is not root and (
                self.has(n, p.STATE_SELECTED) or self.has(n, p.STATE_FOCUSED)) and found.append(n.name) and False)
        return found[-1] if found else None

    def selection(self):
        """The names of the files the view shows selected: items in the
        selected state, or the children that the view's selection interface
        names (Nemo's and Caja's icon views)."""
        p = self.pyatspi
        self.app.clear_cache()
        found = set()

        def visit(node):
            role = node.getRole()
            if node.name in FILES and self.has(node, p.STATE_SELECTED):
                found.add(node.name)
            elif role == p.ROLE_LAYERED_PANE:
                try:
                    chosen = node.querySelection()
                    found.update(chosen.getSelectedChild(i).name for i in range(chosen.nSelectedChildren))
                except NotImplementedError:
                    pass
            return False

        try:
            self.find(self.app, visit)
        except Exception:  # the tree changes under a reader
            return None
        return found

    def select(self, keys, names):
        """Types the keys until the view shows just these files selected (a
        view still loading drops keys)."""
        if not self.row.readable_selection:
            self.key(*keys)
            time.sleep(1)  # what the menu then holds shows the selection
            return
        for _ in range(5):
            self.key(*keys)
            deadline = time.monotonic() + 3
            while time.monotonic() < deadline:
                if self.selection() == set(names):
                    return
                time.sleep(0.2)
        self.fail(f"{keys} selected {self.selection()}, not {sorted(names)}")

    def open_context_menu(self, screenshot):
        self.key("shift+F10")
        last = [None]

        def settled():
            root = self.menu_root()
            now = self.tree(root) if root is not None else None
            stable = now is not None and now == last[0]
            last[0] = now
            return stable and now

        menu = self.wait_for(10, "the context menu to open and settle", settled)
        self.screenshot(screenshot)
        return menu

    def close_menus(self):
        for _ in range(5):
            if self.menu_root() is None:
                return
            self.key("Escape", focus=False)
            time.sleep(0.3)
        self.fail("the context menu did not close")

    def choose(self, path, screenshot=None):
        """Moves to each item of the path with the arrow keys, as the
        accessibility tree shows the keyboard on it, and picks the last."""
        for depth, name in enumerate(path):
            for _ in range(40):
                if self.selected() == name:
                    break
                self.key("Down", focus=False)
                time.sleep(0.1)
            else:
                self.fail(f"{name!r} could not be reached with the arrow keys")
            if depth < len(path) - 1:
                self.key("Right", focus=False)
                time.sleep(1)  # the submenu opens, or slides in
                if screenshot:
                    self.screenshot(screenshot)
        self.key("Return", focus=False)


def plan(s, catalogue, files):
    out = subprocess.run([s.tool, "plan", "--capabilities", catalogue, "--json", *files], capture_output=True,
                         text=True)
    if out.returncode != 0:
        s.fail(f"palvin-finder plan failed: {out.stderr}")
    return json.loads(out.stdout)


def expected_submenu(s, planned):
    """The Convert submenu the planner's plan stands for, as this file
    manager draws it."""
    items = [(t["displayName"], "item", []) for t in planned["inlineTargets"]]
    if items and planned["groups"] and s.row.separators:
        items.append(("", "separator", []))
    for group in planned["groups"]:
        items.append((group["label"], "submenu", [(t["displayName"], "item", []) for t in group["targets"]]))
    return items


def ours(menu):
    return [item for item in menu if item[0] in (CONVERT, CHANGED_TITLE, FALLBACK)]


def write_catalogue(s, text):
    # As the host app does: a temporary file renamed into place.
    path = os.path.join(s.container, "capabilities.json")
    with open(path + ".tmp", "w") as out:
        out.write(text)
    os.rename(path + ".tmp", path)


def run(s):
    row = s.row
    catalogue = os.path.join(s.container, "capabilities.json")

    s.step = "opening photo.png's menu before the host app has run"
    s.select(["Home", "Right"] if not row.selects_photo else [], ["photo.png"])
    menu = s.open_context_menu("fallback.png")
    if ours(menu) != [(FALLBACK, "item", [])]:
        s.fail(f"expected the fallback item alone, the menu holds {ours(menu)} among {names(menu)}")

    s.step = "picking the fallback item"
    mark = s.log()
    s.choose([FALLBACK])
    s.wait_for(30, "the host app to start and install its catalogue",
               lambda: os.path.exists(catalogue) and read(os.path.join(s.tmp, "launches")) == "--activate\n")

    s.step = "opening the same selection's menu once the catalogue is there"
    s.told_of_catalogue(mark)
    menu = s.open_context_menu("convert.png")
    planned = plan(s, catalogue, [s.photo])
    want = [(CONVERT, "submenu", expected_submenu(s, planned))]
    if ours(menu) != want:
        s.fail(f"expected {want}, the menu holds {ours(menu)}")
    s.close_menus()

    s.step = "opening the same selection's menu after the catalogue changed"
    with open(os.path.join(os.path.dirname(__file__), "..", "examples", "capabilities.json")) as example:
        changed = json.load(example)
    changed["convertMenuTitle"] = CHANGED_TITLE
    mark = s.log()
    write_catalogue(s, json.dumps(changed))
    s.told_of_catalogue(mark)
    menu = s.open_context_menu("changed.png")
    planned = plan(s, catalogue, [s.photo])
    want = [(CHANGED_TITLE, "submenu", expected_submenu(s, planned))]
    if not planned["groups"] or ours(menu) != want:
        s.fail(f"expected {want}, the menu holds {ours(menu)}")

    s.step = "picking WebP"
    s.choose([CHANGED_TITLE, "WebP"], "submenu.png")
    s.step = "waiting for the request"
    requests = s.wait_for(20, "the request file", lambda: os.listdir(os.path.join(s.tmp, "requests")))
    if len(requests) != 1:
        s.fail(f"{len(requests)} requests instead of 1")
    expected = json.dumps({"targetFormatId": "webp", "files": [{"path": s.photo, "sourceFormatId": "png"}]},
                          separators=(",", ":")).replace("/", "\\/")
    request = read(os.path.join(s.tmp, "requests", requests[0]))
    if request != expected:
        s.fail(f"request {request}, expected {expected}")
    s.step = "waiting for the host app's result"
    result_path = os.path.join(s.container, "results", requests[0])

    def converted():
        result = json.loads(read(result_path) or "null")
        return result if result and all(f["status"] != "pending" for f in result["files"]) else None

    result = s.wait_for(30, f"the result document {requests[0]}", converted)
    webp = os.path.join(s.folder, "photo.webp")
    if result != {"targetFormatId": "webp", "files": [{"path": s.photo, "status": "converted", "outputPath": webp}]}:
        s.fail(f"result {result}")
    with open(webp, "rb") as image:
        head = image.read(12)
    if head[:4] != b"RIFF" or head[8:12] != b"WEBP":
        s.fail(f"photo.webp is not a WebP file (it starts {head!r})")

    s.step = "opening the folder's menu"
    s.select(["Home"], ["Album"])
    menu = s.open_context_menu("folder.png")
    if ours(menu):
        s.fail(f"the folder alone has {ours(menu)}")
    s.close_menus()

    s.step = "opening the menu of everything selected"
    mark = s.log()
    s.select(["ctrl+a"], FILES)
    menu = s.open_context_menu("mixed.png")
    if ours(menu):
        s.fail(f"photo.png, photo.webp and sound.wav share no target, yet the menu has {ours(menu)}")
    if "No Convert menu for selection of 3 file(s)" not in s.log()[len(mark):]:
        s.fail("the module was not asked for the three files")
    s.close_menus()

    s.step = "opening the same selection's menu once the catalogue is gone"
    mark = s.log()
    os.remove(catalogue)
    s.told_of_catalogue(mark)
    menu = s.open_context_menu("gone.png")
    if ours(menu) != [(FALLBACK, "item", [])]:
        s.fail(f"expected the fallback item alone, the menu holds {ours(menu)}")
    s.close_menus()

    s.step = f"quitting {row.name}"
    s.start(row.quit, "quit.log")
    status = s.wait_for(20, f"{row.name} to quit", lambda: s.fm.poll() is not None and [s.fm.returncode])
    if status != [0]:
        s.fail(f"{row.name} exited with status {status[0]}")
    s.keep_logs()


def read(path):
    try:
        with open(path) as f:
            return f.read()
    except FileNotFoundError:
        return ""


def names(menu):
    return [name for name, _, _ in menu]


def main():
    if len(sys.argv) != 5 or sys.argv[1] not in ROWS:
        print(__doc__, file=sys.stderr)
        return 2
    row = ROWS[sys.argv[1]]
    build = os.path.abspath(sys.argv[2])
    artefacts = os.path.abspath(sys.argv[4])
    os.makedirs(artefacts, exist_ok=True)
    for name in os.listdir(artefacts):
        if name.endswith((".png", ".log")):
            os.remove(os.path.join(artefacts, name))
    # Host apps the file manager starts leave it in new sessions; as their
    # subreaper this process gets them back, to stop by PID too.
    ctypes.CDLL(None, use_errno=True).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
    session = Session(row, build, sys.argv[3], artefacts)
    started = time.monotonic()

    def interrupted(number, _frame):
        raise Failed(f"interrupted by signal {number}")

    # A test runner's timeout ends the run through the same clean-up.
    signal.signal(signal.SIGTERM, interrupted)
    signal.signal(signal.SIGINT, interrupted)
    try:
        session.prepare()
        session.start_session()
        session.start_file_manager()
        run(session)
    except Skipped as reason:
        # CI installs every file manager, so there a skip is a failure.
        if os.environ.get("PALVIN_REQUIRE_FILE_MANAGERS"):
            print(f"FAILED {row.name}: {reason}", file=sys.stderr)
            return 1
        print(f"SKIPPED: {reason}", file=sys.stderr)
        return 77
    except Failed as failure:
        print(f"FAILED {row.name} {failure}", file=sys.stderr)
        if "DISPLAY" in os.environ:
            session.screenshot("failure.png")
        session.keep_logs()
        for name in ["finder-extension.log", "host-app.log", "fm.log"]:
            path = os.path.join(artefacts, name)
            if os.path.exists(path):
                with open(path, errors="replace") as log:
                    print(f"--- {name} (last lines)\n" + "".join(log.readlines()[-15:]), file=sys.stderr)
        return 1
    finally:
        session.stop_all()
        shutil.rmtree(session.tmp, ignore_errors=True)
    print(f"passed: {row.name} in {time.monotonic() - started:.1f}s (screenshots in {artefacts})")
    return 0


if __name__ == "__main__":
    sys.exit(main())
