#!/usr/bin/python3
"""Reads and drives a file manager's context menu through the accessibility
bus (AT-SPI), from the keyboard, as a user of a screen reader would.

Popup menus are not children of their application in the accessibility tree,
so the menu is found from the focus events its items send while the keyboard
moves through it.

  atspi-menu.py selected APP NAME...      waits until APP's file view has
                                          exactly the items NAME... selected
                                          (Qt and GTK views expose them as
                                          table cells)
  atspi-menu.py menu APP KEY PATH [--pick] [--shots PREFIX]
      presses KEY (with xdotool) to open the context menu, prints it as one
      line, then moves down to each item of PATH ("A/B/C"), opening the
      submenus on the way, and prints each submenu's line; with --pick it
      activates the last item with Return, else it closes the menus with
      Escape. --shots takes a screenshot of each open menu (PREFIX-1.png, ...).
      An empty PATH only reads the context menu.

A menu's line is "item | item {submenu items} | --- | ...", "---" standing
for a separator. Exit 0 on success, 1 with a message on stderr otherwise.
"""
import subprocess
import sys
import time

import pyatspi
from gi.repository import GLib

TIMEOUT = 20  # seconds: only a hang guard, never a pace


def fail(message):
    print(f"atspi-menu: {message}", file=sys.stderr)
    sys.exit(1)


focused = []  # menu items that took the focus
shown = []  # popup menus that appeared


def on_focus(event):
    if event.detail1 == 1 and event.source is not None and event.source.getRoleName() == "menu item":
        focused.append(event.source)


def on_showing(event):
    if event.detail1 == 1 and event.source is not None and event.source.getRoleName() == "popup menu":
        shown.append(event.source)


def pump(until, what):
    """Runs the event loop until `until()` holds."""
    context = GLib.MainContext.default()
    deadline = time.monotonic() + TIMEOUT
    while not until():
        while context.iteration(False):
            pass
        if time.monotonic() > deadline:
            fail(f"timed out after {TIMEOUT}s waiting for {what}")
        time.sleep(0.02)


def key(name):
    subprocess.run(["xdotool", "key", "--clearmodifiers", name], check=True)


def press(name, what):
    """Presses a key and returns the menu item that takes the focus."""
    focused.clear()
    key(name)
    pump(lambda: focused, what)
    return focused[-1]


def line(menu):
    items = []
    for index in range(menu.childCount):
        item = menu.getChildAtIndex(index)
        if item is None:
            continue
        if item.getRoleName() == "separator":
            items.append("---")
            continue
        text = item.name
        if item.childCount > 0:
            text += " {" + line(item.getChildAtIndex(0)) + "}"
        items.append(text)
    return " | ".join(items)


def application(name):
    for app in pyatspi.Registry.getDesktop(0):
        if app is not None and app.name == name:
            return app
    return None


def selected_cells(node, names):
    """The names of the selected cells of the file views under node."""
    for index in range(node.childCount):
        child = node.getChildAtIndex(index)
        if child is None:
            continue
        role = child.getRoleName()
        if role == "table cell":
            if child.getState().contains(pyatspi.STATE_SELECTED):
                names.append(child.name)
        elif role not in ("combo box", "menu", "popup menu", "tool bar"):
            selected_cells(child, names)
    return names


def selected(app_name, names):
    wanted = sorted(names)
    state = {"names": None}

    def done():
        app = application(app_name)
        state["names"] = sorted(selected_cells(app, [])) if app is not None else None
        return state["names"] == wanted

    def shows():
        if state["names"] is not None:
            return f"it shows {state['names']}"
        return "it is not on the accessibility bus, which has " + repr([app.name for app in pyatspi.Registry.getDesktop(0) if app])

    pump(done, f"{app_name} to show {wanted} selected ({shows()})")


def screenshot(prefix, count):
    subprocess.run(["import", "-window", "root", f"{prefix}-{count}.png"], check=True)


def menu(app_name, open_key, path, pick, shots):
    if application(app_name) is None:
        fail(f"{app_name} is not on the accessibility bus")
    shown.clear()
    key(open_key)
    pump(lambda: shown, "the context menu to open")
    # The menu's first item takes the focus on the first move.
    item = press("Down", "the context menu's first item")
    print(line(item.parent))
    shot = 0
    steps = [step for step in path.split("/") if step]
    if shots and not steps:
        shot += 1
        screenshot(shots, shot)
    for depth, name in enumerate(steps):
        seen = []
        while item.name != name:
            if item.name in seen:
                fail(f"no item {name!r} in the menu {line(item.parent)!r}")
            seen.append(item.name)
            item = press("Down", f"the focus to leave {item.name!r}")
        if shots:
            shot += 1
            screenshot(shots, shot)
        if depth + 1 < len(steps):
            item = press("Right", f"the submenu of {name!r} to open")
            print(line(item.parent))
    if pick and steps:
        key("Return")
    else:
        for _ in range(len(steps) + 1):
            key("Escape")


def main(argv):
    if len(argv) < 3 or argv[1] not in ("selected", "menu"):
        print(__doc__, file=sys.stderr)
        return 2
    pyatspi.Registry.registerEventListener(on_focus, "object:state-changed:focused")
    pyatspi.Registry.registerEventListener(on_showing, "object:state-changed:showing")
    if argv[1] == "selected":
        selected(argv[2], argv[3:])
        return 0
    args = argv[2:]
    pick = "--pick" in args
    shots = None
    if "--shots" in args:
        shots = args[args.index("--shots") + 1]
        del args[args.index("--shots") : args.index("--shots") + 2]
    args = [arg for arg in args if arg != "--pick"]
    if len(args) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    menu(args[0], args[1], args[2], pick, shots)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
