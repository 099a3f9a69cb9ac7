#!/usr/bin/env python3
"""The generated bundle declarations and entitlements of the extension and
the host app, read as the system reads them: strict XML property lists with
nothing left unsubstituted and no key twice, the keys the system looks up
naming this build's identifiers, and entitlements that share the app group.

Arguments: generated-dir source-dir version deployment-target team-id app-group
           extension-bundle-id extension-application-id host-bundle-id host-application-id
"""
import json
import plistlib
import re
import sys
from pathlib import Path

(generated, source, version, deployment_target, team_id, app_group,
 extension_id, extension_app_id, host_id, host_app_id) = sys.argv[1:]
failures = []
PROFILE_ONLY = ("com.apple.application-identifier", "com.apple.developer.team-identifier")


def check(ok, what):
    if not ok:
        failures.append(what)


def key_count(value):
    if isinstance(value, dict):
        return len(value) + sum(key_count(v) for v in value.values())
    return sum(key_count(v) for v in value) if isinstance(value, list) else 0


def load(name):
    text = Path(generated, name).read_bytes()
    # CMake configures an Info.plist once more for the bundle, so a "${" would
    # be substituted there too.
    check(not re.search(rb"@[A-Za-z_]+@|\$\{", text), f"{name}: a placeholder is left")
    plist = plistlib.loads(text, fmt=plistlib.FMT_XML)  # raises on malformed XML
    # plistlib keeps the last of duplicate keys; the system may not.
    check(text.count(b"<key>") == key_count(plist), f"{name}: a key appears twice")
    return plist


def holds(plist, wanted, what):
    # JSON tells <true/> from <integer>1</integer>.
    got = {key: plist.get(key) for key in wanted}
    check(json.dumps(got, sort_keys=True) == json.dumps(wanted, sort_keys=True), f"{what}: {got}, not {wanted}")


check(extension_id.startswith(host_id + "."), f"the extension's identifier {extension_id} does not extend {host_id}")
# The extension runs sandboxed or not at all; the host app reads and writes
# wherever the picked files are.
for name, bundle_id, app_id, info_keys, own_entitlements in (
        ("PalvinFinder", extension_id, extension_app_id, {"CFBundlePackageType": "XPC!"},
         {"com.apple.security.app-sandbox": True}),
        ("PalvinHost", host_id, host_app_id, {"CFBundlePackageType": "APPL", "NSPrincipalClass": "NSApplication"},
         {})):
    holds(load(f"{name}-Info.plist"), {"CFBundleIdentifier": bundle_id, "CFBundleExecutable": name,
                                       "CFBundleVersion": version, "LSMinimumSystemVersion": deployment_target,
                                       **info_keys}, f"{name} Info.plist")
    check(app_id == f"{team_id}.{bundle_id}", f"{name}'s application identifier {app_id}")
    entitlements = load(f"{name}.entitlements")
    holds(entitlements, {"com.apple.application-identifier": app_id, "com.apple.developer.team-identifier": team_id,
                         "com.apple.security.application-groups": [app_group], **own_entitlements},
          f"{name} entitlements")
    holds(load(f"{name}-noprofile.entitlements"),
          {key: value for key, value in entitlements.items() if key not in PROFILE_ONLY} | dict.fromkeys(PROFILE_ONLY),
          f"{name} entitlements without a profile")

extension = load("PalvinFinder-Info.plist").get("NSExtension", {})
check(sorted(extension) == ["NSExtensionAttributes", "NSExtensionPointIdentifier", "NSExtensionPrincipalClass"],
      f"NSExtension has the keys {sorted(extension)}")
check(extension.get("NSExtensionPointIdentifier") == "com.apple.FinderSync", f"extension point: {extension}")
# The principal class itself is checked in the linked extension (apple-bundle).


for failure in failures:
    print(failure, file=sys.stderr)
sys.exit(1 if failures else 0)
