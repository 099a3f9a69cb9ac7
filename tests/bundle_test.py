#!/usr/bin/env python3
"""The extension's generated bundle declarations and entitlements: well-formed
XML property lists that name the build's identifiers, and the principal class
that the macOS shell actually defines.

Arguments: generated-dir source-dir bundle-id app-group application-id team-id version
"""
import json
import plistlib
import re
import sys

generated, source, bundle_id, app_group, application_id, team_id, version = sys.argv[1:]
failures = []


def check(ok, what):
    if not ok:
        failures.append(what)


def key_count(value):
    if isinstance(value, dict):
        return len(value) + sum(key_count(v) for v in value.values())
    return sum(key_count(v) for v in value) if isinstance(value, list) else 0


def load(name):
    with open(f"{generated}/{name}", "rb") as f:
        text = f.read()
    # CMake configures the Info.plist once more for the bundle, so a "${" would
    # be substituted there too.
    check(not re.search(rb"@[A-Za-z_]+@|\$\{", text), f"{name}: a placeholder is left")
    plist = plistlib.loads(text, fmt=plistlib.FMT_XML)  # raises on malformed XML
    # plistlib keeps the last of duplicate keys; the system may not.
    check(text.count(b"<key>") == key_count(plist), f"{name}: a key appears twice")
    check(isinstance(plist, dict), f"{name}: the root is not a dictionary")
    return plist


info = load("PalvinFinder-Info.plist")
for key, value in {"CFBundleIdentifier": bundle_id, "CFBundleExecutable": "PalvinFinder",
                   "CFBundlePackageType": "XPC!", "CFBundleInfoDictionaryVersion": "6.0",
                   "CFBundleShortVersionString": version, "CFBundleVersion": version,
                   "LSMinimumSystemVersion": "12.0", "CFBundleName": "PalvinFinder",
                   "CFBundleDisplayName": "PalvinFinder", "CFBundleDevelopmentRegion": "en"}.items():
    check(info.get(key) == value, f"Info.plist: {key} is {info.get(key)!r}, not {value!r}")
extension = info.get("NSExtension", {})
check(extension.get("NSExtensionPointIdentifier") == "com.apple.FinderSync", f"extension point: {extension}")

# The runtime looks a "Module.Class" name up by its Swift mangled form, so the
# shell's class must carry exactly that runtime name.
principal = extension.get("NSExtensionPrincipalClass", "")
module, _, name = principal.partition(".")
check(principal == "PalvinFinder.FinderSync" and module == info.get("CFBundleExecutable"),
      f"principal class {principal!r}")
with open(f"{source}/src/platform/apple/FinderSync.mm") as f:
    shell = f.read()
mangled = f"_TtC{len(module)}{module}{len(name)}{name}"
check(f'objc_runtime_name("{mangled}")' in shell, f"FinderSync.mm lacks the runtime name {mangled}")
check(f"@interface {name} : FIFinderSync" in shell, f"FinderSync.mm lacks the class {name}")

# Exactly these entitlements; JSON tells <true/> from <integer>1</integer>.
check(application_id == f"{team_id}.{bundle_id}", f"application identifier {application_id}")
expected = {"com.apple.application-identifier": application_id,
            "com.apple.developer.team-identifier": team_id,
            "com.apple.security.app-sandbox": True,
            "com.apple.security.application-groups": [app_group],
            "com.apple.security.files.user-selected.read-only": True}
entitlements = load("PalvinFinder.entitlements")
check(json.dumps(entitlements, sort_keys=True) == json.dumps(expected, sort_keys=True),
      f"entitlements: {entitlements}")

for failure in failures:
    print(failure, file=sys.stderr)
sys.exit(1 if failures else 0)
