#!/usr/bin/env python3
"""The Apple bundles, built and linked on Linux.

The project's Apple branch is configured for macOS with Ninja and the
stand-in SDK in .ci/apple-sdk (.ci/darwin-toolchain.cmake): clang compiles
every source, ld64.lld links both bundles against the SDK's .tbd stubs,
llvm-lipo makes them universal, and llvm-objdump reads the result back.

  simdjson      simdjson from Debian's source package, compiled for arm64 and
                x86_64 at the deployment target into a universal
                libsimdjson.a, laid out as Homebrew lays it out (cached)
  build ARCH    configure for arm64 or x86_64 and build everything: both
                bundles linked, the extension placed in the app, codesign's
                calls recorded by a stand-in
  bundle        PalvinHost.app made universal in WORK_DIR/universal, then
                read back: load commands, entry points, principal class,
                signatures, undefined symbols, the archives' macOS versions
  plan          the link and signing commands and the configure-time refusals

Usage: check-apple-build.py COMMAND SOURCE_DIR WORK_DIR [ARCH]
Exits 77 (CTest's "skipped") when a tool the checks need is missing.
"""
import concurrent.futures
import filecmp
import hashlib
import json
import os
import plistlib
import re
import shlex
import shutil
import struct
import subprocess
import sys
from pathlib import Path

ARCHES = ("arm64", "x86_64")
LLVM = Path("/usr/lib/llvm-14/bin")
APP = "PalvinHost.app"
APPEX = f"{APP}/Contents/PlugIns/PalvinFinder.appex"
BUNDLES = {"PalvinHost": APP, "PalvinFinder": APPEX}
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


def environment(work=None):
    """Clang turns LIBRARY_PATH into -L options, which have no place in a Mac link."""
    env = {key: value for key, value in os.environ.items() if key != "LIBRARY_PATH"}
    if work is not None:
        env["PATH"] = f"{work / 'fake-bin'}{os.pathsep}{env.get('PATH', '')}"
    return env


def run(args, cwd=None, check=True, env=None):
    result = subprocess.run([str(a) for a in args], cwd=cwd, capture_output=True, text=True, env=env)
    if check and result.returncode != 0:
        raise Failed(f"{' '.join(map(str, args))} failed:\n{result.stdout[-5000:]}{result.stderr[-5000:]}")
    return result


def deployment_target(source):
    return re.search(r'set\(CMAKE_OSX_DEPLOYMENT_TARGET "([0-9.]+)"', (source / "CMakeLists.txt").read_text())[1]


def version_tuple(text):
    return tuple(int(part) for part in text.split("."))


# --- simdjson ---------------------------------------------------------------------

def debian_source(cache):
    """simdjson's Debian source package, of the installed libsimdjson-dev's version,
    fetched from the mirror that package came from with an apt configuration of
    its own under `cache` (the machine's stays as it is) and unpacked."""
    for name in ("apt-get", "apt-cache", "dpkg-source", "dpkg-query"):
        tool(name)
    version = run(["dpkg-query", "-W", "-f", "${source:Version}", "libsimdjson-dev"], check=False).stdout.strip()
    if not version:
        raise Failed("libsimdjson-dev is not installed: bash scripts/deps.sh installs it")
    tree = cache / f"simdjson-{version}"
    if (tree / "singleheader/simdjson.cpp").exists():
        return tree
    policy = run(["apt-cache", "policy", "libsimdjson-dev"]).stdout
    origin = re.search(r"^\s*\*\*\* \S+.*\n\s+\d+ (\S+) ([^/\s]+)/(\S+) ", policy, re.M)
    if origin is None:
        raise Failed(f"no Debian mirror holds the installed libsimdjson-dev {version}:\n{policy}")
    mirror, suite, component = origin.groups()
    apt = cache / "apt"
    for directory in ("lists/partial", "cache/archives/partial", "sources.list.d", "preferences.d", "download"):
        (apt / directory).mkdir(parents=True, exist_ok=True)
    (apt / "sources.list").write_text(f"deb-src {mirror} {suite} {component}\n")
    options = []
    for key, value in (("Dir::Etc::SourceList", apt / "sources.list"), ("Dir::Etc::SourceParts", apt / "sources.list.d"),
                       ("Dir::Etc::Preferences", apt / "preferences"), ("Dir::Etc::PreferencesParts", apt / "preferences.d"),
                       ("Dir::State::Lists", apt / "lists"), ("Dir::Cache", apt / "cache"), ("Debug::NoLocking", "1")):
        options += ["-o", f"{key}={value}"]
    if os.geteuid() == 0:  # apt's own sandbox user could not write here
        options += ["-o", "APT::Sandbox::User=root"]
    run(["apt-get", *options, "-q", "update"])
    run(["apt-get", *options, "-q", "source", "--download-only", f"simdjson={version}"], cwd=apt / "download")
    dsc = apt / "download" / f"simdjson_{version.split(':')[-1]}.dsc"
    shutil.rmtree(tree, ignore_errors=True)
    run(["dpkg-source", "-x", dsc, tree])
    return tree


def build_simdjson(source, work):
    """A prefix laid out as Homebrew's simdjson is: the CMake package names the
    dylib, and libsimdjson.a lies beside it outside the package. Here the
    archive is universal and compiled from Debian's source package; the dylib
    is an empty placeholder, which fails any link that takes it."""
    sdk = source / ".ci/apple-sdk"
    tree = debian_source(work / "simdjson")
    target = deployment_target(source)
    flags = ["-isysroot", sdk, "-stdlib=libc++", "-isystem", sdk / "usr/include/c++/v1", f"-mmacosx-version-min={target}",
             "-std=c++17", "-O2", "-DNDEBUG", "-DSIMDJSON_THREADS_ENABLED=1", "-Werror"]
    headers = hashlib.sha256()
    for header in sorted((sdk / "usr/include").rglob("*")):
        if header.is_file():
            headers.update(str(header.relative_to(sdk)).encode() + header.read_bytes())
    stamp = f"{tree.name} {' '.join(map(str, flags))} {headers.hexdigest()}\n"
    prefix = work / "simdjson-prefix"
    archive = prefix / "lib/libsimdjson.a"
    if archive.exists() and (prefix / "stamp").exists() and (prefix / "stamp").read_text() == stamp:
        return prefix
    shutil.rmtree(prefix, ignore_errors=True)
    (prefix / "lib/cmake/simdjson").mkdir(parents=True)
    (prefix / "include").mkdir()
    objects = work / "simdjson"

    def compile_for(arch):
        obj = objects / f"simdjson-{arch}.o"
        run([tool("clang++"), f"--target={arch}-apple-macos", *flags, "-c", tree / "singleheader/simdjson.cpp",
             "-o", obj], env=environment())
        run([tool("llvm-ar"), "rcs", objects / f"libsimdjson-{arch}.a", obj])
        return objects / f"libsimdjson-{arch}.a"

    with concurrent.futures.ThreadPoolExecutor(len(ARCHES)) as pool:
        thin = list(pool.map(compile_for, ARCHES))
    run([tool("llvm-lipo"), "-create", *thin, "-output", archive])
    # The source package's own header, so that header and archive agree.
    shutil.copy(tree / "singleheader/simdjson.h", prefix / "include/simdjson.h")
    (prefix / "lib/libsimdjson.dylib").touch()
    (prefix / "lib/cmake/simdjson/simdjson-config.cmake").write_text(
        'get_filename_component(_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)\n'
        "add_library(simdjson::simdjson SHARED IMPORTED)\n"
        "set_target_properties(simdjson::simdjson PROPERTIES\n"
        '  IMPORTED_LOCATION "${_prefix}/lib/libsimdjson.dylib"\n'
        '  INTERFACE_INCLUDE_DIRECTORIES "${_prefix}/include"\n'
        '  INTERFACE_COMPILE_DEFINITIONS "SIMDJSON_THREADS_ENABLED=1")\n')
    (prefix / "stamp").write_text(stamp)
    print(f"simdjson from {tree.name}: {' '.join(run([tool('llvm-lipo'), '-archs', archive]).stdout.split())}")
    return prefix


# --- build ------------------------------------------------------------------------

def fake_codesign(work):
    """Signing needs a Mac; the stand-in records each call, one line of
    shell-quoted arguments, in the log its build directory names."""
    bin_dir = work / "fake-bin"
    bin_dir.mkdir(parents=True, exist_ok=True)
    script = bin_dir / "codesign"
    text = ("#!/usr/bin/env python3\nimport os, shlex, sys\n"
            "with open(os.environ.get('PALVIN_CODESIGN_LOG', os.devnull), 'a') as log:\n"
            "    log.write(shlex.join(sys.argv[1:]) + '\\n')\n")
    if not script.exists() or script.read_text() != text:
        # Replaced whole: another architecture's build may be running it.
        draft = bin_dir / f".codesign.{os.getpid()}"
        draft.write_text(text)
        draft.chmod(0o755)
        os.replace(draft, script)


def configure(source, build, arch, work, *options):
    fake_codesign(work)
    return run([tool("cmake"), "-S", source, "-B", build, "-G", "Ninja",
                f"-DCMAKE_TOOLCHAIN_FILE={source}/.ci/darwin-toolchain.cmake", f"-DPALVIN_CROSS_ARCH={arch}",
                f"-DCMAKE_PREFIX_PATH={work / 'simdjson-prefix'}", "-DPALVIN_WERROR=ON", *options],
               check=False, env=environment(work))


def build(source, work, arch):
    for name in ("clang++", "ninja", "llvm-ar", "llvm-ranlib", "llvm-install-name-tool", "ld64.lld"):
        tool(name)
    if not (work / "simdjson-prefix/lib/libsimdjson.a").exists():
        raise Failed("no simdjson prefix: the apple-simdjson test makes it")
    directory = work / arch
    configured = configure(source, directory, arch, work, "-DPALVIN_ADHOC_SIGNING=ON")
    if configured.returncode != 0:
        raise Failed(f"configuring for {arch} failed:\n{configured.stdout}{configured.stderr}")
    (directory / "codesign.log").unlink(missing_ok=True)
    env = environment(work) | {"PALVIN_CODESIGN_LOG": str(directory / "codesign.log")}
    # The stamp goes, so that the extension is placed and signed again.
    (directory / "src/host/PalvinHost.signed").unlink(missing_ok=True)
    result = run([tool("ninja"), "-C", directory, "-j", os.environ.get("PALVIN_APPLE_JOBS", "2")], check=False, env=env)
    if result.returncode != 0:
        raise Failed(f"building for {arch} failed:\n{result.stdout[-20000:]}")
    print(f"{arch}: both bundles linked")


# --- reading Mach-O back ------------------------------------------------------------

def objdump(*args):
    return run([tool("llvm-objdump"), "--macho", *args]).stdout


def load_commands(path, arch):
    """The load commands of one slice: dicts of their fields, segments with a
    "sections" list; and the header's flags."""
    text = objdump("--private-headers", f"--arch={arch}", path)
    header = re.search(r"^\s*MH_MAGIC_64 .*$", text, re.M)
    flags = set(header[0].split()[7:]) if header else set()
    commands, current = [], None
    for line in text.splitlines():
        if line.startswith("Load command"):
            current = {"sections": []}
            commands.append(current)
        elif current is not None and line.strip() == "Section":
            current["sections"].append({})
        elif current is not None and line.strip():
            key, _, value = line.strip().partition(" ")
            (current["sections"][-1] if current["sections"] else current)[key] = value.strip()
    return commands, flags


def number(text):
    return int(text.split()[0], 0)


def objc_classes(path, arch):
    """Class name -> (superclass symbol, {selector: types}) from __objc_classlist."""
    text = objdump("--objc-meta-data", f"--arch={arch}", path)
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


def entry_symbol(path, arch, commands):
    """The symbol LC_MAIN starts at: one of the binary's own, or one of a dylib's
    through its stub."""
    main = next((c for c in commands if c.get("cmd") == "LC_MAIN"), None)
    if main is None:
        return None
    text_segment = next(c for c in commands if c.get("segname") == "__TEXT" and c.get("cmd") == "LC_SEGMENT_64")
    address = number(text_segment["vmaddr"]) + number(main["entryoff"])
    stubs = next((s for s in text_segment["sections"] if s.get("sectname") == "__stubs"), None)
    if stubs and number(stubs["addr"]) <= address < number(stubs["addr"]) + number(stubs["size"]):
        for line in objdump("--indirect-symbols", f"--arch={arch}", path).splitlines():
            fields = line.split()
            if len(fields) == 3 and fields[0].startswith("0x") and int(fields[0], 16) == address:
                return fields[2]
        return None
    for line in run([tool("llvm-nm"), "--defined-only", f"--arch={arch}", path]).stdout.splitlines():
        fields = line.split()
        if len(fields) == 3 and int(fields[0], 16) == address:
            return fields[2]
    return None


def signature_problems(data, commands):
    """Checks the ad-hoc signature ld64.lld writes on arm64: a CodeDirectory
    whose page hashes match the slice's bytes."""
    signature = next((c for c in commands if c.get("cmd") == "LC_CODE_SIGNATURE"), None)
    if signature is None:
        return ["no LC_CODE_SIGNATURE"]
    blob = data[number(signature["dataoff"]):number(signature["dataoff"]) + number(signature["datasize"])]
    magic, _, count = struct.unpack(">III", blob[:12])
    if magic != 0xFADE0CC0:
        return [f"the signature is no embedded signature (magic {magic:#x})"]
    for slot in range(count):
        kind, offset = struct.unpack(">II", blob[12 + 8 * slot:20 + 8 * slot])
        if kind != 0:  # the CodeDirectory
            continue
        directory = blob[offset:]
        (magic, _, _, flags, hash_offset, _, _, code_slots, code_limit, hash_size, hash_type, _,
         page_shift) = struct.unpack(">IIIIIIIIIBBBB", directory[:40])
        if magic != 0xFADE0C02 or hash_type != 2 or hash_size != 32:
            return [f"the CodeDirectory is not SHA-256 (magic {magic:#x}, hash type {hash_type})"]
        page = 1 << page_shift
        for index in range(code_slots):
            stored = directory[hash_offset + index * 32:hash_offset + (index + 1) * 32]
            if hashlib.sha256(data[index * page:min((index + 1) * page, code_limit)]).digest() != stored:
                return [f"page {index} does not match its hash in the signature"]
        if code_limit != number(signature["dataoff"]):
            return [f"the signature covers {code_limit} bytes, not the {number(signature['dataoff'])} before it"]
        return [] if flags & 0x2 else ["the signature is not ad hoc"]
    return ["the signature has no CodeDirectory"]


def archive_versions(path, arch):
    """(member, platform, minos) of every object in an archive."""
    with open(path, "rb") as archive:
        universal = archive.read(4) == b"\xca\xfe\xba\xbe"
    text = objdump("--private-headers", *([f"--arch={arch}"] if universal else []), path)
    found, member, platform = [], None, None
    for line in text.splitlines():
        head = re.match(r"^(\S+\.a)\((.+)\):$", line)
        if head:
            member = head[2]
        elif line.strip().startswith("platform "):
            platform = line.split()[-1]
        elif line.strip().startswith("minos "):
            found.append((member, platform, line.split()[-1]))
        elif line.strip().startswith("cmd LC_VERSION_MIN_MACOSX"):
            found.append((member, "macos", None))  # the version follows as "version"
        elif line.strip().startswith("version ") and found and found[-1][2] is None:
            found[-1] = (member, "macos", line.split()[-1])
    return found


# --- bundle -------------------------------------------------------------------------

def make_universal(work):
    """arm64's bundle with both executables made universal, and beside it the
    entitlements each bundle is signed with."""
    universal = work / "universal"
    shutil.rmtree(universal, ignore_errors=True)
    universal.mkdir()
    shutil.copytree(work / "arm64" / APP, universal / APP, symlinks=True)
    for name, bundle in BUNDLES.items():
        executable = f"{bundle}/Contents/MacOS/{name}"
        run([tool("llvm-lipo"), "-create", *(work / arch / executable for arch in ARCHES), "-output",
             universal / executable])
    log = work / "arm64/codesign.log"
    if not log.exists():
        raise Failed(f"{log} is missing: apple-build-arm64 did not finish")
    signed = {}
    for line in log.read_text().splitlines():
        args = shlex.split(line)
        if "--entitlements" in args:
            signed[Path(args[-1]).stem] = Path(args[args.index("--entitlements") + 1])
    for name, entitlements in signed.items():
        shutil.copy(entitlements, universal / entitlements.name)
    return universal, signed


def bundle_problems(source, work):
    universal, signed = make_universal(work)
    failures = []
    generated = work / "arm64/generated"
    sdk_version = json.loads((source / ".ci/apple-sdk/SDKSettings.json").read_text())["Version"]

    # Both architectures laid out alike; they differ in their executables only.
    trees = {arch: {p.relative_to(work / arch / APP) for p in (work / arch / APP).rglob("*")} for arch in ARCHES}
    if trees["arm64"] != trees["x86_64"]:
        failures.append(f"the bundles differ between architectures: {sorted(trees['arm64'] ^ trees['x86_64'])}")
    for relative in trees["arm64"] & trees["x86_64"]:
        a, b = work / "arm64" / APP / relative, work / "x86_64" / APP / relative
        if a.is_file() and "/MacOS/" not in str(relative) and not filecmp.cmp(a, b, shallow=False):
            failures.append(f"{relative} differs between architectures")

    for name, bundle in BUNDLES.items():
        contents = universal / bundle / "Contents"
        info_path = contents / "Info.plist"
        if not info_path.exists() or info_path.read_bytes() != (generated / f"{name}-Info.plist").read_bytes():
            failures.append(f"{bundle}/Contents/Info.plist is not the generated {name}-Info.plist")
            continue
        info = plistlib.loads(info_path.read_bytes())
        executables = sorted(p.name for p in (contents / "MacOS").iterdir())
        if executables != [info["CFBundleExecutable"]]:
            failures.append(f"{bundle}: CFBundleExecutable {info['CFBundleExecutable']}, Contents/MacOS holds {executables}")
            continue
        executable = contents / "MacOS" / info["CFBundleExecutable"]
        archs = run([tool("llvm-lipo"), "-archs", executable]).stdout.split()
        if sorted(archs) != sorted(ARCHES):
            failures.append(f"{bundle}: architectures {archs}, not {list(ARCHES)}")
            continue
        if name not in signed or signed[name].name not in (f"{name}.entitlements", f"{name}-noprofile.entitlements"):
            failures.append(f"{bundle} is not signed with entitlements of its own: {signed}")
        for arch in ARCHES:
            failures += [f"{bundle} ({arch}): {problem}" for problem in
                         slice_problems(executable, arch, info, name, sdk_version, work)]
    failures += resource_problems(source, universal)
    failures += archive_problems(source, work)
    return failures


def slice_problems(executable, arch, info, name, sdk_version, work):
    problems = []
    commands, flags = load_commands(executable, arch)
    build_version = [c for c in commands if c.get("cmd") == "LC_BUILD_VERSION"]
    if len(build_version) != 1 or build_version[0].get("platform") != "macos":
        problems.append(f"LC_BUILD_VERSION: {build_version}")
    else:
        if build_version[0]["minos"] != info["LSMinimumSystemVersion"]:
            problems.append(f"minos {build_version[0]['minos']}, LSMinimumSystemVersion {info['LSMinimumSystemVersion']}")
        if build_version[0]["sdk"] != sdk_version:
            problems.append(f"SDK {build_version[0]['sdk']}, not the stand-in's {sdk_version}")
    for command in commands:
        if command.get("cmd") == "LC_RPATH":
            problems.append(f"LC_RPATH {command.get('path')}")
        elif command.get("cmd", "").endswith("_DYLIB") and command.get("cmd") != "LC_ID_DYLIB":
            library = command.get("name", "").split(" (offset")[0]
            if not re.match(r"^/(usr/lib|System/Library/Frameworks)/", library):
                problems.append(f"{command['cmd']} {library}: not a system library")
    if not {"NOUNDEFS", "TWOLEVEL", "PIE"} <= flags:
        problems.append(f"header flags {sorted(flags)}")
    undefined = run([tool("llvm-nm"), "-m", "--undefined-only", f"--arch={arch}", executable]).stdout.splitlines()
    unbound = [line.strip() for line in undefined if line.strip() and "(from " not in line]
    if unbound:
        problems.append("undefined symbols bound to no library: " + ", ".join(unbound[:10]))
    wanted = "_NSExtensionMain" if name == "PalvinFinder" else "_main"
    if entry_symbol(executable, arch, commands) != wanted:
        problems.append(f"the entry point is {entry_symbol(executable, arch, commands)}, not {wanted}")
    if arch == "arm64":
        thin = work / f"{name}-{arch}.slice"
        run([tool("llvm-lipo"), "-thin", arch, executable, "-output", thin])
        problems += [f"signature: {p}" for p in signature_problems(thin.read_bytes(), commands)]
        thin.unlink()
    if name == "PalvinFinder":
        problems += principal_class_problems(executable, arch, info)
    return problems


def principal_class_problems(executable, arch, info):
    principal = info["NSExtension"]["NSExtensionPrincipalClass"]
    classes = objc_classes(executable, arch)
    if principal not in classes:
        return [f"the Info.plist names the principal class {principal!r}; __objc_classlist holds {sorted(classes)}"]
    problems = []
    superclass, methods = classes[principal]
    if superclass != "_OBJC_CLASS_$_FIFinderSync":
        problems.append(f"{principal} derives from {superclass}, not FIFinderSync")
    for selector, types in PRINCIPAL_METHODS.items():
        if methods.get(selector) != types:
            problems.append(f"{principal} lacks -{selector} with types {types} (has {methods.get(selector)})")
    # The selectors the code refers to (ld64.lld keeps their names in __cstring).
    names = set(re.findall(r"^[0-9a-f]+\s+__TEXT:\w+:(\S+)$", objdump("--section=__DATA,__objc_selrefs", f"--arch={arch}",
                                                                    executable), re.M))
    problems += [f"the action selector {action} is never referred to" for action in ACTIONS if action not in names]
    return problems


def resource_problems(source, universal):
    problems = []
    wanted = sorted(p.parent.name for p in (source / "src/finder/Resources").glob("*.lproj/Localizable.strings"))
    resources = universal / APPEX / "Contents/Resources"
    placed = sorted(p.parent.name for p in resources.glob("*.lproj/Localizable.strings"))
    if placed != wanted:
        problems.append(f"PalvinFinder.appex has the localisations {placed}, not {wanted}")
    for lproj in set(placed) & set(wanted):
        if not filecmp.cmp(resources / lproj / "Localizable.strings",
                           source / "src/finder/Resources" / lproj / "Localizable.strings", shallow=False):
            problems.append(f"{lproj}/Localizable.strings differs from the source")
    plugins = sorted(p.name for p in (universal / APP / "Contents/PlugIns").iterdir())
    if plugins != ["PalvinFinder.appex"]:
        problems.append(f"Contents/PlugIns holds {plugins}")
    return problems


def archive_problems(source, work):
    """No archive that a link takes is built for a newer macOS than the
    deployment target (ld64 only warns about it)."""
    target = version_tuple(deployment_target(source))
    problems = []
    for arch in ARCHES:
        steps = commands(work / arch, "PalvinHostBundle")
        archives = sorted({token for step in steps if "-o" in step and "-c" not in step
                           for token in step if token.endswith(".a")})
        if not archives:
            problems.append(f"{arch}: no archive in the link commands")
        for archive in archives:
            path = Path(archive) if Path(archive).is_absolute() else work / arch / archive
            versions = archive_versions(path, arch)
            if not versions:
                problems.append(f"{path.name} ({arch}): no object with a macOS version")
            for member, platform, minos in versions:
                if platform != "macos" or minos is None or version_tuple(minos) > target:
                    problems.append(f"{path.name}({member}) ({arch}): built for {platform} {minos}, "
                                    f"the deployment target is {'.'.join(map(str, target))}")
    return problems


# --- plan ---------------------------------------------------------------------------

def commands(build, target):
    text = run([tool("ninja"), "-C", build, "-t", "commands", target]).stdout
    return [shlex.split(part) for line in text.splitlines() for part in re.split(r" && ", line) if part.strip(": ")]


def check_plan(steps, build):
    failures = []
    links = {step[step.index("-o") + 1]: step for step in steps if "-o" in step and step[0].endswith("clang++")
             and "-c" not in step}
    extension = links.get("src/PalvinFinder.appex/Contents/MacOS/PalvinFinder")
    host = links.get(f"{APP}/Contents/MacOS/PalvinHost")
    if extension is None or host is None:
        return [f"no link command for both executables: {sorted(links)}"]
    if "-fapplication-extension" not in extension:
        failures.append("the extension is not linked with -fapplication-extension (the linker's check for "
                        "libraries unsafe in app extensions)")
    for name, args in (("the extension", extension), ("the host app", host)):
        joined = " ".join(args)
        if "-fuse-ld=lld" not in args or not re.search(r"(-Wl,|-Xlinker )-fatal_warnings", joined):
            failures.append(f"{name} is not linked by ld64.lld with fatal warnings")
        if not any(token.endswith("simdjson-prefix/lib/libsimdjson.a") for token in args):
            failures.append(f"{name} does not link simdjson's archive")

    app = f"{build}/{APP}"
    appex = f"{build}/{APPEX}"
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
    signing = [" ".join(step) for step in commands(directory, "PalvinHostBundle")
               if Path(step[0]).name == "codesign" or "embedded.provisionprofile" in " ".join(step)]
    expected = [r"copy .*test\.provisionprofile .*PalvinFinder\.appex/Contents/embedded\.provisionprofile",
                r"copy .*test\.provisionprofile .*PalvinHost\.app/Contents/embedded\.provisionprofile",
                r"codesign .*--sign Developer ID Application: Test .*PalvinFinder\.entitlements .*PalvinFinder\.appex$",
                r"codesign .*--sign Developer ID Application: Test .*PalvinHost\.entitlements .*PalvinHost\.app$"]
    if len(signing) != len(expected) or not all(re.search(e, s) for e, s in zip(expected, signing)):
        failures.append("with profiles, the bundles are not signed as expected:\n  " + "\n  ".join(signing))
    return failures


def main():
    command, source, work = sys.argv[1], Path(sys.argv[2]).resolve(), Path(sys.argv[3]).resolve()
    work.mkdir(parents=True, exist_ok=True)
    try:
        if command == "simdjson":
            build_simdjson(source, work)
            failures = []
        elif command == "build":
            build(source, work, sys.argv[4])
            failures = []
        elif command == "bundle":
            failures = bundle_problems(source, work)
        elif command == "plan":
            build_dir = work / "arm64"
            failures = check_plan(commands(build_dir, "PalvinHostBundle"), build_dir)
            failures += check_configure_refusals(source, work)
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
