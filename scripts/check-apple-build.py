#!/usr/bin/env python3
"""The Apple build, checked on Linux.

The project's Apple branch is configured for macOS with Ninja, the stub SDK in
.ci/apple-sdk standing in for Apple's (.ci/darwin-toolchain.cmake), and its
sources are compiled by the build's own commands into Mach-O objects. Nothing
can be linked here, so the link, copy and signing commands are read instead.

  build ARCH   configure for arm64 or x86_64 and compile every object
  objects      the principal class and the action selectors in the objects;
               every symbol the extension and the host app need from outside
               them is a system one (both architectures)
  plan         the commands that link, place and sign the bundles, the
               configure-time refusals, and scripts/macos-build.sh

Usage: check-apple-build.py COMMAND SOURCE_DIR WORK_DIR [ARCH]
Exits 77 (CTest's "skipped") when a tool the checks need is missing.
"""
import os
import plistlib
import re
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

ARCHES = {"arm64": "/usr/aarch64-linux-gnu", "x86_64": "/usr/x86_64-linux-gnu"}
LLVM = Path("/usr/lib/llvm-14/bin")
EXTENSION_BINARY = "src/PalvinFinder.appex/Contents/MacOS/PalvinFinder"
HOST_BINARY = "PalvinHost.app/Contents/MacOS/PalvinHost"
PRINCIPAL_METHODS = {  # selector: type encoding, as the Finder calls them
    "init": "@16@0:8", "menuForMenuKind:": "@24@0:8Q16", "convertAction:": "v24@0:8@16",
    "openHostApp:": "v24@0:8@16", "beginObservingDirectoryAtURL:": "v24@0:8@16",
    "endObservingDirectoryAtURL:": "v24@0:8@16", "requestBadgeIdentifierForURL:": "v24@0:8@16"}
ACTIONS = ("convertAction:", "openHostApp:")


class Failed(Exception):
    pass


def tool(name):
    path = shutil.which(name) or (str(LLVM / name) if (LLVM / name).exists() else None)
    if path is None:
        print(f"{name} not found: the Apple build is not checked (scripts/deps.sh --tests installs it)")
        sys.exit(77)
    return path


def run(args, cwd=None, check=True):
    result = subprocess.run(args, cwd=cwd, capture_output=True, text=True)
    if check and result.returncode != 0:
        raise Failed(f"{' '.join(map(str, args))} failed:\n{result.stdout}{result.stderr}")
    return result


# --- build ------------------------------------------------------------------------

def homebrew_like_simdjson(work):
    """A prefix laid out as Homebrew's simdjson is: the CMake package names the
    dylib, and libsimdjson.a lies beside it outside the package. The headers
    are Debian's; the archive is empty, since nothing is linked here."""
    prefix = work / "simdjson-prefix"
    package = prefix / "lib/cmake/simdjson"
    package.mkdir(parents=True, exist_ok=True)
    (prefix / "include").mkdir(exist_ok=True)
    header = prefix / "include/simdjson.h"
    if not header.exists():
        header.symlink_to("/usr/include/simdjson.h")
    if not (prefix / "lib/libsimdjson.dylib").exists():
        (prefix / "lib/libsimdjson.dylib").touch()
    if not (prefix / "lib/libsimdjson.a").exists():
        run([tool("llvm-ar"), "rc", prefix / "lib/libsimdjson.a"])
    config = (
        'get_filename_component(_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)\n'
        "add_library(simdjson::simdjson SHARED IMPORTED)\n"
        "set_target_properties(simdjson::simdjson PROPERTIES\n"
        '  IMPORTED_LOCATION "${_prefix}/lib/libsimdjson.dylib"\n'
        '  INTERFACE_INCLUDE_DIRECTORIES "${_prefix}/include"\n'
        '  INTERFACE_COMPILE_DEFINITIONS "SIMDJSON_THREADS_ENABLED=1")\n')
    # Rewritten only when it changes: builds configured with it depend on it.
    if not (package / "simdjson-config.cmake").exists() or (package / "simdjson-config.cmake").read_text() != config:
        (package / "simdjson-config.cmake").write_text(config)
    return prefix


def configure(source, build, arch, work, *options):
    return run([tool("cmake"), "-S", source, "-B", build, "-G", "Ninja",
                f"-DCMAKE_TOOLCHAIN_FILE={source}/.ci/darwin-toolchain.cmake", f"-DPALVIN_CROSS_ARCH={arch}",
                f"-DCMAKE_PREFIX_PATH={homebrew_like_simdjson(work)}", "-DPALVIN_WERROR=ON", *options],
               check=False)


def build_objects(source, work, arch):
    for name in ("clang++", "ninja", "llvm-ar", "llvm-ranlib", "llvm-install-name-tool"):
        tool(name)
    if not Path(ARCHES[arch], "include/stdio.h").exists():
        print(f"no C library headers in {ARCHES[arch]}/include: install libc6-dev-{'arm64' if arch == 'arm64' else 'amd64'}-cross")
        sys.exit(77)
    directory = work / arch
    configured = configure(source, directory, arch, work, "-DPALVIN_ADHOC_SIGNING=ON")
    if configured.returncode != 0:
        raise Failed(f"configuring for {arch} failed:\n{configured.stdout}{configured.stderr}")
    targets = run([tool("ninja"), "-C", directory, "-t", "targets", "all"]).stdout
    objects = sorted(line.split(":")[0] for line in targets.splitlines() if re.match(r"\S+\.o: ", line))
    libraries = ["src/libpalvin_core.a", "src/libpalvin_platform_apple.a", "src/host/libpalvin_host.a"]
    jobs = os.environ.get("PALVIN_APPLE_JOBS", "2")
    result = run([tool("ninja"), "-C", directory, "-j", jobs, *objects, *libraries], check=False)
    if result.returncode != 0:
        raise Failed(f"compiling for {arch} failed:\n{result.stdout[-20000:]}")
    print(f"{arch}: compiled {len(objects)} objects with the build's own commands")


# --- objects ----------------------------------------------------------------------

def objc_classes(obj):
    """Class name -> (superclass symbol, {selector: types}) from an object's metadata."""
    text = run([tool("llvm-objdump"), "--macho", "--objc-meta-data", obj]).stdout
    classes, current, superclass, selector, in_meta = {}, None, None, None, False
    for line in text.splitlines():
        if re.match(r"^[0-9a-f]{16} 0x", line):  # the next class of the list
            current, in_meta = None, False
        elif line.startswith("Meta Class"):
            in_meta = True
        elif in_meta:
            continue
        elif re.match(r"^ +superclass ", line):
            superclass = line.split()[-1]
        elif re.match(r"^ +name ", line):  # the class's own; its methods' are indented with tabs
            current = line.split()[-1]
            classes[current] = (superclass, {})
        elif current and re.match(r"^\t+ *name ", line):
            selector = line.split()[-1]
        elif current and re.match(r"^\t+ *types ", line):
            classes[current][1][selector] = line.split()[-1]
    return classes


def method_names(obj):
    """Every selector the object names: those it sends or passes as well as those it implements."""
    text = run([tool("llvm-objdump"), "--macho", "--section=__TEXT,__objc_methname", obj]).stdout
    return {match.group(1) for match in re.finditer(r"^[0-9a-f]+\s+(\S+)$", text, re.M)}


def symbols(files):
    """(defined, undefined) symbol names over several objects and archives."""
    defined, undefined = set(), set()
    for file in files:
        for line in run([tool("llvm-nm"), "--no-sort", file]).stdout.splitlines():
            parts = line.split()
            if len(parts) == 2 and parts[0] == "U":
                undefined.add(parts[1])
            elif len(parts) == 3:
                defined.add(parts[2])
    return defined, undefined - defined


class SystemSymbols:
    """What the system provides: the names the SDK declares, the C library's
    exports (glibc's stand in for libSystem's), and the C++ and Objective-C
    runtimes. simdjson is linked statically (the plan check sees the archive)."""

    RUNTIME = re.compile(r"^_(objc_|_objc_|_NSConcrete|_Block_|__cxa_|__gxx_personality|_Unwind_|__isPlatformVersionAtLeast|"
                         r"__isOSVersionAtLeast|__CFConstantStringClassReference|__dso_handle|__stack_chk_|"
                         r"_availability_version_check|_tlv_)")
    CXX_SYSTEM = re.compile(r"^(std::|operator new|operator delete|typeinfo for std::|vtable for std::|"
                            r"typeinfo for __cxxabiv1::|vtable for __cxxabiv1::|simdjson::|"
                            r"typeinfo for simdjson::|vtable for simdjson::|__cxa_)")

    def __init__(self, source, arch):
        self.declared = set()
        for header in Path(source, ".ci/apple-sdk").rglob("*.h"):
            code = re.sub(r"//[^\n]*|/\*.*?\*/", " ", header.read_text(), flags=re.S)
            self.declared.update(re.findall(r"[A-Za-z_][A-Za-z0-9_]*", code))
        self.classes = {name for header in Path(source, ".ci/apple-sdk").rglob("*.h")
                        for name in re.findall(r"@interface\s+(\w+)", header.read_text())}
        self.libc = set()
        for library in ("libc.so.6", "libm.so.6"):
            output = run([tool("llvm-nm"), "-D", "--defined-only", Path(ARCHES[arch], "lib", library)]).stdout
            self.libc.update(line.split()[-1].split("@")[0] for line in output.splitlines())

    def foreign(self, names):
        unmangled = [name for name in names if name.startswith("__Z")]
        demangled = dict(zip(unmangled, run([tool("llvm-cxxfilt"), "-_", *unmangled]).stdout.splitlines())) \
            if unmangled else {}
        found = []
        for name in sorted(names):
            cls = re.match(r"^_OBJC_(?:META)?CLASS_\$_(\w+)$", name)
            if cls:
                if cls.group(1) not in self.classes:
                    found.append(name)
            elif name in demangled:
                if not self.CXX_SYSTEM.match(demangled[name]):
                    found.append(f"{name} ({demangled[name]})")
            elif not (self.RUNTIME.match(name) or name[1:] in self.declared or name[1:] in self.libc):
                found.append(name)
        return found


def check_objects(source, work, arch, principal=None):
    """`principal`: the class the Info.plist names, unless given."""
    build = work / arch
    failures = []
    if principal is None:
        info = plistlib.loads((build / "generated/PalvinFinder-Info.plist").read_bytes())
        principal = info["NSExtension"]["NSExtensionPrincipalClass"]
    shell = build / "src/CMakeFiles/PalvinFinder.dir/extension/apple/FinderSync.mm.o"
    classes = objc_classes(shell)
    if principal not in classes:
        failures.append(f"the Info.plist names the principal class {principal!r}, which FinderSync.mm.o does not "
                        f"define (it defines {sorted(classes)})")
    else:
        superclass, methods = classes[principal]
        if superclass != "_OBJC_CLASS_$_FIFinderSync":
            failures.append(f"{principal} derives from {superclass}, not FIFinderSync")
        for selector, types in PRINCIPAL_METHODS.items():
            if methods.get(selector) != types:
                failures.append(f"{principal} lacks -{selector} with types {types} (has {methods.get(selector)})")
    named = method_names(shell)
    for action in ACTIONS:
        if action not in named:
            failures.append(f"FinderSync.mm.o never names the action selector {action}")
    system = SystemSymbols(source, arch)
    core = [build / "src/libpalvin_platform_apple.a", build / "src/libpalvin_core.a"]
    host = sorted((build / "src/host/CMakeFiles/PalvinHost.dir/apple").glob("*.o")) + [
        build / "src/host/libpalvin_host.a"]
    for what, files in (("the extension", [shell, *core]), ("the host app", [*host, *core])):
        foreign = system.foreign(symbols(files)[1])
        if foreign:
            failures.append(f"{what} ({arch}) needs symbols that no system library provides:\n    " +
                            "\n    ".join(foreign))
    return failures


# --- plan ---------------------------------------------------------------------------

def commands(build):
    text = run([tool("ninja"), "-C", build, "-t", "commands", "PalvinHostBundle"]).stdout
    return [shlex.split(part) for line in text.splitlines() for part in re.split(r" && ", line) if part.strip(": ")]


def link_problems(args, build, sdk):
    """Everything a link command takes from outside the system and the build."""
    problems = []
    tokens = iter(args)
    for token in tokens:
        if token == "-framework":
            name = next(tokens)
            if not Path(sdk, "System/Library/Frameworks", name + ".framework").is_dir():
                problems.append(f"framework {name} is not a system framework")
        elif re.match(r"^-[LF]", token) or token == "-rpath" or token.startswith("-Wl,-rpath"):
            problems.append(f"{token}: looks for libraries outside the system")
        elif token.startswith("-l") and token[2:] not in ("c++", "System", "objc"):
            problems.append(f"{token}: not a system library")
        elif re.search(r"\.(dylib|so(\.\d+)*|tbd)$", token) and not re.match(r"^/(usr/lib|System/Library)/", token):
            problems.append(f"{token}: a dynamic library from outside the system")
        elif token.endswith(".a") and not (Path(build, token).exists() or "simdjson-prefix" in token):
            problems.append(f"{token}: an archive from outside the build")
    return problems


def check_plan(steps, build, sdk):
    failures = []
    links = {step[step.index("-o") + 1]: step for step in steps if "-o" in step and step[0].endswith("clang++")
             and "-c" not in step}
    extension, host = links.get(EXTENSION_BINARY), links.get(HOST_BINARY)
    if extension is None or host is None:
        return [f"no link command for {EXTENSION_BINARY} and {HOST_BINARY}: {sorted(links)}"]
    joined = " ".join(extension)
    if not re.search(r"(-Xlinker -e -Xlinker|-Wl,-e,)\s*_NSExtensionMain", joined):
        failures.append("the extension is not linked with the entry point _NSExtensionMain (-e)")
    if "-fapplication-extension" not in extension:
        failures.append("the extension is not linked with -fapplication-extension")
    if not any(token.endswith("libsimdjson.a") for token in extension):
        failures.append("the extension does not link simdjson's archive")
    for name, args in (("the extension", extension), ("the host app", host)):
        failures += [f"{name}: {problem}" for problem in link_problems(args, build, sdk)]

    app = f"{build}/PalvinHost.app"
    appex = f"{app}/Contents/PlugIns/PalvinFinder.appex"
    copies = [step for step in steps if "copy_directory" in step]
    if not any(step[-2] == f"{build}/src/PalvinFinder.appex" and step[-1] == appex for step in copies):
        failures.append(f"PalvinFinder.appex is not copied to {appex}: {copies}")
    signs = [step for step in steps if Path(step[0]).name == "codesign"]
    targets = [step[-1] for step in signs]
    if targets != [appex, app]:
        failures.append(f"codesign runs on {targets}, not on the extension and then the app")
    for step in signs:
        if "--options" not in step or step[step.index("--options") + 1] != "runtime":
            failures.append(f"{step[-1]} is signed without the hardened runtime")
        bundle = Path(step[-1]).stem
        if "--entitlements" not in step or not Path(step[step.index("--entitlements") + 1]).name.startswith(bundle):
            failures.append(f"{step[-1]} is not signed with the entitlements of {bundle}")
    return failures


def check_configure_refusals(source, work):
    """Configure-time rules, each in a build directory of its own kind."""
    failures = []
    directory = work / "refusals"
    shutil.rmtree(directory, ignore_errors=True)  # each case builds on the one before
    profile = work / "test.provisionprofile"
    profile.write_text("")
    cases = [  # options | expected in the output, or None for success | what
        (["-DPALVIN_TEAM_ID=PALVIN0001", "-DPALVIN_ADHOC_SIGNING=OFF"], "-DPALVIN_ADHOC_SIGNING=ON",
         "the placeholder team without ad-hoc signing"),
        (["-DPALVIN_TEAM_ID=ABCDE12345", "-DCMAKE_OSX_DEPLOYMENT_TARGET=11.0"], "needs macOS 12",
         "a deployment target below macOS 12"),
        (["-DCMAKE_OSX_DEPLOYMENT_TARGET=12.0", f"-DPALVIN_EXTENSION_PROFILE={profile}"], "or neither",
         "one provisioning profile of two"),
        ([f"-DPALVIN_HOST_PROFILE={profile}", "-DPALVIN_CODE_SIGN_IDENTITY=Developer ID Application: Test"], None,
         "a team, two profiles and an identity"),
    ]
    for options, expected, what in cases:
        result = configure(source, directory, "arm64", work, *options)
        output = result.stdout + result.stderr
        if expected is None and result.returncode != 0:
            failures.append(f"{what}: configure failed:\n{output}")
        elif expected is not None and (result.returncode == 0 or expected not in output):
            failures.append(f"{what}: configure did not stop with a message naming {expected!r}:\n{output[-3000:]}")
    # The last case signs with the whole entitlements and embeds the profiles first.
    signing = [" ".join(step) for step in commands(directory)
               if Path(step[0]).name == "codesign" or "embedded.provisionprofile" in " ".join(step)]
    expected = [r"copy .*test\.provisionprofile .*PalvinFinder\.appex/Contents/embedded\.provisionprofile",
                r"copy .*test\.provisionprofile .*PalvinHost\.app/Contents/embedded\.provisionprofile",
                r"codesign .*--sign Developer ID Application: Test .*PalvinFinder\.entitlements .*PalvinFinder\.appex$",
                r"codesign .*--sign Developer ID Application: Test .*PalvinHost\.entitlements .*PalvinHost\.app$"]
    if len(signing) != len(expected) or not all(re.search(e, s) for e, s in zip(expected, signing)):
        failures.append("with profiles, the bundles are not signed as expected:\n  " + "\n  ".join(signing))
    return failures


def check_mac_script(source):
    """scripts/macos-build.sh can only run on a Mac; here it must parse and pass shellcheck."""
    script = source / "scripts/macos-build.sh"
    problems = [run(["bash", "-n", script], check=False).stderr]
    if shutil.which("shellcheck"):
        problems.append(run(["shellcheck", script], check=False).stdout)
    return [f"{script}:\n{problem}" for problem in problems if problem.strip()]


def check_bundle_layout(build):
    """What CMake lays out before anything is compiled: the extension's
    Info.plist in the bundle, and a copy step for every localisation."""
    failures = []
    bundle = build / "src/PalvinFinder.appex/Contents"
    placed = bundle / "Info.plist"
    if not placed.exists() or placed.read_bytes() != (build / "generated/PalvinFinder-Info.plist").read_bytes():
        failures.append(f"{placed} is not the generated Info.plist")
    copied = {Path(step[-1]).parent.name for step in commands(build) if "Localizable.strings" in " ".join(step)}
    wanted = {path.name for path in Path(__file__).parent.parent.glob("src/finder/Resources/*.lproj")}
    if copied != wanted:
        failures.append(f"the extension bundle gets the localisations {sorted(copied)}, not {sorted(wanted)}")
    return failures


def main():
    command, source, work = sys.argv[1], Path(sys.argv[2]).resolve(), Path(sys.argv[3]).resolve()
    work.mkdir(parents=True, exist_ok=True)
    try:
        if command == "build":
            build_objects(source, work, sys.argv[4])
            failures = []
        elif command == "objects":
            failures = [f for arch in ARCHES for f in check_objects(source, work, arch)]
        elif command == "plan":
            build = work / "arm64"
            failures = check_plan(commands(build), build, source / ".ci/apple-sdk") + check_bundle_layout(build)
            failures += check_configure_refusals(source, work) + check_mac_script(source)
        else:
            raise Failed(f"unknown command {command}")
    except Failed as failure:
        failures = [str(failure)]
    for failure in failures:
        print(failure, file=sys.stderr)
    if not failures:
        print(f"{command}: ok")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
