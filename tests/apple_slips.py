#!/usr/bin/env python3
"""Proves that scripts/check-apple-build.py catches what it exists for: each
case plants one mistake in a copy of a source or of a check's input and
expects a check to reject it. A case whose original text is gone fails too,
so the table can't go stale as the sources change. Needs the arm64 build of
check-apple-build.py.

Usage: apple_slips.py SOURCE_DIR WORK_DIR
"""
import importlib.util
import json
import re
import shlex
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

source, work = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
spec = importlib.util.spec_from_file_location("check", source / "scripts/check-apple-build.py")
check = importlib.util.module_from_spec(spec)
spec.loader.exec_module(check)
build, sdk = work / "arm64", source / ".ci/apple-sdk"
SHELL, PLATFORM = "src/platform/apple/FinderSync.mm", "src/platform/apple_platform.mm"

# file | original text | planted slip | what it stands for; each must fail to compile
COMPILE = [
    (PLATFORM, "seekToEndReturningOffset:&offset", "seekToEndReturningOffst:&offset", "misspelt selector"),
    (SHELL, "@selector(convertAction:)", "@selector(convertActon:)", "misspelt menu action selector"),
    (SHELL, "- (NSMenu*)menuForMenuKind:(FIMenuKind)menuKind {", "- (NSMenu*)menuForMenuKnd:(FIMenuKind)menuKind {",
     "misspelt Finder callback"),
    (SHELL, "configurationWithPaletteColors:@[ color ]", "configurationWithPaletteColors:color",
     "colour where a list of colours is due"),
    (SHELL, "initWithTitle:@\"\"]", "initWithTitle:nil]", "nil for a non-null argument"),
    (SHELL, "if (item.isSeparator) return [NSMenuItem separatorItem];",
     "if (item.isSeparator) return [NSMenuItem sectionHeaderWithTitle:@\"\"];",
     "an API of macOS 14 without an availability guard"),
    ("src/host/apple/host_app.mm", "  if (@available(macOS 14.0, *)) {\n    [NSApp activate];\n  } else {\n"
     "    [NSApp activateIgnoringOtherApps:YES];\n  }", "  [NSApp activate];", "an availability guard removed"),
    (SHELL, "std::string pathOf(NSURL* url) {", "std::string require(NSURL* url) {", "a helper named like an SDK macro"),
    (PLATFORM, "(__bridge CFStringRef)notificationName", "(CFStringRef)notificationName", "a cast without __bridge"),
    (PLATFORM, "\"%{public}s\", text.c_str()", "\"%{public}d\", text.c_str()", "a log format that does not match"),
    ("src/host/apple/image_io.mm", "(__bridge CFStringRef)toNSString(targetType)", "toNSString(targetType)",
     "an NSString where ImageIO takes a CFStringRef"),
    ("src/shared/json_reader.cpp", "std::isinf(std::strtod(std::string(token).c_str(), nullptr))",
     "[&] { double d = 0; return std::from_chars(first, last, d).ec == std::errc::result_out_of_range; }()",
     "floating-point from_chars, which Apple's libc++ lacks"),
]
# ICU's case-insensitive comparison called from the Apple platform: the
# extension's symbols must then be rejected.
ICU_CALL = [("#include <palvin/identifiers.h>",
             "#include <palvin/identifiers.h>\nextern \"C\" int u_strcasecmp_74(const char16_t*, const char16_t*, "
             "unsigned);"),
            ("      NSString* left = toNSString(a);",
             "      if (u_strcasecmp_74(u\"a\", u\"b\", 0) != 0) return 0;\n      NSString* left = toNSString(a);")]

failures = []


def planted(file, original, slip, what):
    text = (source / file).read_text()
    if original not in text:
        failures.append(f"STALE: {what}: {original!r} no longer occurs in {file}")
        return None
    return text.replace(original, slip, 1)


def compile_copy(file, text, directory, *extra):
    """Compiles `text` in place of `file` with the Apple build's own command."""
    entry = next(e for e in json.loads((build / "compile_commands.json").read_text())
                 if e["file"] == str(source / file))
    copy = Path(directory, Path(file).name)
    copy.write_text(text)
    args = shlex.split(entry["command"])
    keep = [arg for i, arg in enumerate(args) if arg not in ("-o", "-MF", "-MT", "-MD")
            and args[i - 1] not in ("-o", "-MF", "-MT")]
    return check.run([str(copy) if a == str(source / file) else a for a in keep] + list(extra),
                     cwd=entry["directory"], check=False)


def report(what, problems):
    if problems:
        print(f"caught: {what}: {problems[0].splitlines()[0][:110]}")
    else:
        failures.append(f"MISSED: {what}")


with tempfile.TemporaryDirectory() as temporary:
    def attempt(case):
        file, original, slip, what = case
        text = planted(file, original, slip, what)
        if text is None:
            return what, None
        directory = Path(temporary, str(COMPILE.index(case)))
        directory.mkdir()
        return what, compile_copy(file, text, directory, "-fsyntax-only")

    with ThreadPoolExecutor(max_workers=2) as pool:
        for what, result in pool.map(attempt, COMPILE):
            if result is not None:
                error = re.search(r"error: .*", result.stderr)
                report(what, [error.group(0) if error else "compile failed"] if result.returncode else [])

    text = (source / PLATFORM).read_text()
    for original, slip in ICU_CALL:
        text = text.replace(original, slip, 1) if original in text else None
        if text is None:
            failures.append(f"STALE: an ICU call: {original!r} no longer occurs in {PLATFORM}")
            break
    if text is not None:
        obj = Path(temporary, "apple_platform.o")
        compiled = compile_copy(PLATFORM, text, temporary, "-o", str(obj))
        if compiled.returncode != 0:
            failures.append(f"the planted ICU call does not compile:\n{compiled.stderr}")
        else:
            extension = [build / "src/CMakeFiles/PalvinFinder.dir/platform/apple/FinderSync.mm.o", obj,
                         build / "src/libpalvin_core.a"]
            report("an ICU call in the extension",
                   check.SystemSymbols(source, "arm64").foreign(check.symbols(extension)[1]))

# The inspections, fed inputs with one mistake each.
# Unaltered, the inspections pass, so that each catch below is the slip's.
failures += check.check_objects(source, work, "arm64") + check.check_plan(check.commands(build), build, sdk)
report("a module-qualified principal class",
       check.check_objects(source, work, "arm64", principal="PalvinFinder.FinderSync"))

steps = check.commands(build)
for what, alter in (
        ("ICU linked into the extension by path", lambda s: s + ["/opt/homebrew/opt/icu4c/lib/libicuuc.dylib"]),
        ("the extension linked without its entry point", lambda s: [a for a in s if a != "_NSExtensionMain"]),
        ("the extension linked without -fapplication-extension",
         lambda s: [a for a in s if a != "-fapplication-extension"]),
        ("simdjson's dylib instead of its archive", lambda s: [a.replace("libsimdjson.a", "libsimdjson.dylib") for a in s])):
    altered = [alter(step) if "-o" in step and step[step.index("-o") + 1] == check.EXTENSION_BINARY else step
               for step in steps]
    report(what, check.check_plan(altered, build, sdk))
signs = [i for i, step in enumerate(steps) if Path(step[0]).name == "codesign"]
swapped = list(steps)
swapped[signs[0]], swapped[signs[1]] = steps[signs[1]], steps[signs[0]]
report("the app signed before the extension", check.check_plan(swapped, build, sdk))
unhardened = [[a for a in step if a not in ("--options", "runtime")] if i == signs[0] else step
              for i, step in enumerate(steps)]
report("the extension signed without the hardened runtime", check.check_plan(unhardened, build, sdk))

for failure in failures:
    print(failure, file=sys.stderr)
print(f"{len(failures)} slip(s) not caught" if failures else "every slip caught")
sys.exit(1 if failures else 0)
