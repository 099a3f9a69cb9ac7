#!/usr/bin/env python3
# scripts/macos-build.sh on Linux, against stand-in commands.
#
# Each command the script runs on a Mac (uname, sw_vers, xcodebuild, xcrun, brew,
# cmake, codesign, PlistBuddy, osascript, ditto, pluginkit, sleep) is this file
# again, first on PATH, and records its call. cmake wraps the real one: the
# script's configure runs on the project with the Linux toolchain in place of
# Xcode, and its build hands over the universal PalvinHost.app that apple-bundle
# linked. PlugInKit's database is a file of registered paths.
#
# Arguments: SOURCE_DIR WORK_DIR (the Apple checks' work directory)
import json
import os
import plistlib
import shutil
import subprocess
import sys
from pathlib import Path

FAKES = ("uname", "sw_vers", "xcodebuild", "xcrun", "brew", "cmake", "codesign", "PlistBuddy", "osascript",
         "ditto", "pluginkit", "sleep")
TEAM = "ABCDE12345"
EXTENSION_ID = "org.palvin.palvin.PalvinFinder"
APPEX = "PalvinHost.app/Contents/PlugIns/PalvinFinder.appex"


# --- the stand-ins ------------------------------------------------------------------

def fake(name, args):
    state = Path(os.environ["FAKE_STATE"])
    with open(state / "calls.jsonl", "a") as log:
        log.write(json.dumps([name, *args]) + "\n")
    registered_file = state / "registered.json"
    registered = json.loads(registered_file.read_text()) if registered_file.exists() else []
    if name == "uname":
        print("Darwin" if args == ["-s"] else "arm64")
    elif name == "sw_vers":
        print(os.environ.get("FAKE_MACOS", "14.4"))
    elif name == "xcrun" and args[:1] == ["--sdk"]:
        print(os.environ.get("FAKE_SDK", "14.2"))
    elif name == "xcrun" and args[:2] == ["notarytool", "submit"]:
        print("Submission ID received\n  id: 6c5e6d3b-0000-4000-8000-000000000001\nWaiting for processing to complete.\n"
              f"Processing complete\n  id: 6c5e6d3b-0000-4000-8000-000000000001\n"
              f"  status: {os.environ.get('FAKE_NOTARY', 'Accepted')}")
    elif name == "brew":
        print(os.environ["FAKE_SIMDJSON"])
    elif name == "cmake":
        return wrap_cmake(args)
    elif name == "PlistBuddy":
        print(plistlib.loads(Path(args[-1]).read_bytes())[args[1].split(":")[-1]])
    elif name == "ditto" and args[0] != "-c":  # an archive's arguments are checked, not its contents
        shutil.copytree(args[0], args[1], symlinks=True)
    elif name == "pluginkit":
        if args[0] == "-a" and not os.environ.get("FAKE_PLUGINKIT_IGNORES"):
            registered.append(args[1])
        elif args[0] == "-r":
            registered = [path for path in registered if path != args[1]]
        elif args[0] == "-m":
            for path in registered:
                info = plistlib.loads(Path(path, "Contents/Info.plist").read_bytes())
                if info["CFBundleIdentifier"] == args[args.index("-i") + 1]:
                    print(f"+    {info['CFBundleIdentifier']}({info['CFBundleShortVersionString']})\t"
                          f"0D2C1C4A-0000-4000-8000-00000000000{len(path) % 10}\t2024-05-02 10:00:00 +0000\t{path}")
        registered_file.write_text(json.dumps(registered))
    return 0


def wrap_cmake(args):
    real = os.environ["FAKE_REAL_CMAKE"]
    env = {key: value for key, value in os.environ.items() if key != "LIBRARY_PATH"}
    if "--build" in args:
        # Building needs Xcode; the bundle linked on Linux stands in for its product.
        build, config = args[args.index("--build") + 1], args[args.index("--config") + 1]
        target = Path(build, config, "PalvinHost.app")
        shutil.rmtree(target, ignore_errors=True)
        shutil.copytree(os.environ["FAKE_APP"], target, symlinks=True)
        return 0
    # The Xcode generator exists on macOS only: the same configuration, with Ninja and the toolchain.
    generator = args.index("-G")
    arch = next(a.split("=", 1)[1] for a in args if a.startswith("-DCMAKE_OSX_ARCHITECTURES="))
    translated = [*args[:generator], "-G", "Ninja", *args[generator + 2:],
                  f"-DCMAKE_TOOLCHAIN_FILE={os.environ['FAKE_SOURCE']}/.ci/darwin-toolchain.cmake",
                  f"-DPALVIN_CROSS_ARCH={arch}"]
    return subprocess.run([real, *translated], env=env).returncode


# --- the tests ----------------------------------------------------------------------

class Run:
    def __init__(self, scenario, result):
        self.scenario, self.result = scenario, result
        log = scenario / "state/calls.jsonl"
        self.calls = [json.loads(line) for line in log.read_text().splitlines()] if log.exists() else []

    # The index of the first call of `name` whose arguments include all needles.
    def find(self, name, *needles):
        return next((index for index, call in enumerate(self.calls)
                     if call[0] == name and all(needle in call[1:] for needle in needles)), None)


def run_script(source, work, name, args, env=(), missing=(), registered=()):
    scenario = work / "mac-script" / name
    shutil.rmtree(scenario, ignore_errors=True)
    (scenario / "bin").mkdir(parents=True)
    (scenario / "state").mkdir()
    (scenario / "home").mkdir()
    for command in FAKES:
        if command not in missing:
            wrapper = scenario / "bin" / command
            wrapper.write_text(f"#!/bin/sh\nexec {sys.executable} {Path(__file__).resolve()} --fake {command} \"$@\"\n")
            wrapper.chmod(0o755)
    (scenario / "state/registered.json").write_text(json.dumps([str(path) for path in registered]))
    environment = {
        "PATH": f"{scenario / 'bin'}{os.pathsep}/usr/bin{os.pathsep}/bin",
        "HOME": str(scenario / "home"),
        "FAKE_STATE": str(scenario / "state"),
        "FAKE_SOURCE": str(source),
        "FAKE_REAL_CMAKE": shutil.which("cmake"),
        "FAKE_SIMDJSON": str(work / "simdjson-prefix"),
        "FAKE_APP": str(work / "universal/PalvinHost.app"),
        **dict(env)}
    result = subprocess.run(["bash", source / "scripts/macos-build.sh", *args, "--build-dir", work / "mac-script/build"],
                            capture_output=True, text=True, env=environment, timeout=600)
    return Run(scenario, result)


def in_order(run, steps, failures):
    indices = [index for _, index in steps]
    if None in indices or indices != sorted(indices):
        failures.append(f"{run.scenario.name}: steps {steps}, calls:\n  " + "\n  ".join(map(str, run.calls)))


# configure, build, verify, quit the running copy, place, register, list: in that order, with these flags.
def check_placed(run, failures, work, signing):
    build, dest = work / "mac-script/build", run.scenario / "home/Applications"
    steps = [("configure", run.find("cmake", "-G", "Xcode", f"-DCMAKE_PREFIX_PATH={work / 'simdjson-prefix'}",
                                    "-DCMAKE_OSX_ARCHITECTURES=arm64", "-DPALVIN_VENDOR_PREFIX=org.palvin", *signing)),
             ("build", run.find("cmake", "--build", str(build), "--config", "Release", "--target", "PalvinHost",
                                "-allowProvisioningUpdates")),
             ("verify", run.find("codesign", "--verify", "--strict", "--deep", f"{build}/Release/PalvinHost.app")),
             ("quit", run.find("osascript", "-e", 'tell application id "org.palvin.palvin" to quit')),
             ("place", run.find("ditto", f"{build}/Release/PalvinHost.app", f"{dest}/PalvinHost.app")),
             ("register", run.find("pluginkit", "-a", f"{dest}/{APPEX}")),
             ("list", run.find("pluginkit", "-m", "-i", EXTENSION_ID))]
    in_order(run, steps, failures)


def check_release(run, failures, work, profiles):
    build = work / "mac-script/build"
    staged = f"{build}/release/PalvinHost.app"
    identity = f"Developer ID Application: Test ({TEAM})"
    sign = ["--force", "--timestamp", "--options", "runtime", "--sign", identity, "--entitlements"]
    steps = [("configure", run.find("cmake", "-G", "Xcode", "-DPALVIN_ADHOC_SIGNING=ON", f"-DPALVIN_TEAM_ID={TEAM}")),
             ("build", run.find("cmake", "--build")),
             ("stage", run.find("ditto", f"{build}/Release/PalvinHost.app", staged)),
             ("sign extension", run.find("codesign", *sign, f"{build}/generated/PalvinFinder.entitlements",
                                         f"{staged}/Contents/PlugIns/PalvinFinder.appex")),
             ("sign app", run.find("codesign", *sign, f"{build}/generated/PalvinHost.entitlements", staged)),
             ("verify", run.find("codesign", "--verify", "--strict", "--deep", staged)),
             ("zip", run.find("ditto", "-c", "-k", "--keepParent", staged, f"{build}/release/PalvinHost-notarization.zip")),
             ("notarize", run.find("xcrun", "notarytool", "submit", f"{build}/release/PalvinHost-notarization.zip",
                                   "--keychain-profile", "palvin", "--wait")),
             ("staple", run.find("xcrun", "stapler", "staple", staged)),
             ("validate", run.find("xcrun", "stapler", "validate", staged)),
             ("package", run.find("ditto", "-c", "-k", "--keepParent", staged, f"{build}/dist/PalvinHost-0.1.0.zip"))]
    in_order(run, steps, failures)
    if {"osascript", "pluginkit"} & {call[0] for call in run.calls}:
        failures.append("release: placed or registered the app on the build machine")
    for bundle, profile in ((f"{staged}/Contents/PlugIns/PalvinFinder.appex", profiles[0]), (staged, profiles[1])):
        embedded = Path(bundle, "Contents/embedded.provisionprofile")
        if not embedded.exists() or embedded.read_bytes() != profile.read_bytes():
            failures.append(f"release: {embedded} is not the profile given")


def main():
    if sys.argv[1] == "--fake":
        sys.exit(fake(sys.argv[2], sys.argv[3:]))
    source, work = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    if not (work / "universal/PalvinHost.app").exists():
        print("no universal PalvinHost.app: the apple-bundle test makes it", file=sys.stderr)
        sys.exit(1)
    failures = []
    if shutil.which("shellcheck"):
        lint = subprocess.run(["shellcheck", source / "scripts/macos-build.sh"], capture_output=True, text=True)
        if lint.returncode != 0:
            failures.append(f"shellcheck:\n{lint.stdout}")
    profiles = [work / "mac-script/extension.provisionprofile", work / "mac-script/host.provisionprofile"]
    (work / "mac-script").mkdir(exist_ok=True)
    for index, profile in enumerate(profiles):
        profile.write_bytes(b"profile %d" % index)
    release = ["--release", "--team", TEAM, "--identity", f"Developer ID Application: Test ({TEAM})",
               "--extension-profile", profiles[0], "--host-profile", profiles[1], "--notary-profile", "palvin"]

    # Xcode registered the build tree's copy too, and in the second case an old install lingers elsewhere.
    build_copy, stale = work / "mac-script/build/Release" / APPEX, work / "mac-script/stale" / APPEX
    shutil.rmtree(work / "mac-script/stale", ignore_errors=True)
    shutil.copytree(work / "universal" / APPEX, stale)
    for name, args, signing, registered in (
            ("team", ["--team", TEAM], [f"-DPALVIN_TEAM_ID={TEAM}", "-DPALVIN_ADHOC_SIGNING=OFF"], [build_copy]),
            ("duplicate", ["--adhoc"], ["-DPALVIN_ADHOC_SIGNING=ON"], [build_copy, stale])):
        placed = run_script(source, work, name, args, registered=registered)
        if placed.result.returncode != 0 or placed.find("pluginkit", "-r", str(build_copy)) is None:
            failures.append(f"{name}: failed, or the build tree's copy stays registered:\n{placed.result.stderr[-3000:]}")
        check_placed(placed, failures, work, signing)
        if (f"another copy of the extension is registered at {stale}" in placed.result.stderr) != (stale in registered):
            failures.append(f"{name}: warned or not of the copy at {stale}:\n{placed.result.stderr[-3000:]}")

    shipped = run_script(source, work, "release", release)
    if shipped.result.returncode != 0:
        failures.append(f"--release failed:\n{shipped.result.stderr[-3000:]}")
    check_release(shipped, failures, work, profiles)

    # Refusals: | scenario | arguments | environment | stand-ins left out | the last line's advice | builds first
    refusals = [
        ("no-team", [], {}, (), "pass --team TEAMID", False),
        ("macos-11", ["--team", TEAM], {"FAKE_MACOS": "11.7.10"}, (), "update to macOS 12 or later", False),
        ("no-xcode", ["--team", TEAM], {}, ("xcodebuild",), "install it from the App Store", False),
        ("old-sdk", ["--team", TEAM], {"FAKE_SDK": "13.3"}, (), "install Xcode 15 or later", False),
        ("no-simdjson", ["--team", TEAM], {"FAKE_SIMDJSON": str(work / "mac-script")}, (),
         "brew install simdjson", False),
        ("not-listed", ["--team", TEAM], {"FAKE_PLUGINKIT_IGNORES": "1"}, (),
         f"run pluginkit -m -A -vvv -i {EXTENSION_ID}", True),
        ("release-identity", [*release[:4], "Apple Development: Test", *release[5:]], {}, (), "pass --identity", False),
        ("release-profile", [*release[:6], work / "none.provisionprofile", *release[7:]], {}, (),
         "pass --extension-profile and --host-profile", False),
        ("release-notary", release[:-2], {}, (), "xcrun notarytool store-credentials NAME", False),
        ("release-rejected", release, {"FAKE_NOTARY": "Invalid"}, (),
         "xcrun notarytool log 6c5e6d3b-0000-4000-8000-000000000001 --keychain-profile palvin", True),
    ]
    for name, args, env, missing, advice, builds in refusals:
        refused = run_script(source, work, name, args, env=env, missing=missing)
        last = refused.result.stderr.rstrip("\n").rsplit("\n", 1)[-1]
        if refused.result.returncode == 0 or not last.startswith("macos-build: ") or advice not in last:
            failures.append(f"{name}: exit {refused.result.returncode}, last line {last!r}, not the advice {advice!r}")
        if (refused.find("cmake", "--build") is not None) != builds:
            failures.append(f"{name}: {'did not build' if builds else 'built'} before refusing")

    for failure in failures:
        print(failure, file=sys.stderr)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
