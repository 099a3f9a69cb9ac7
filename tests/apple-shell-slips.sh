#!/usr/bin/env bash
# Proves that scripts/check-apple-shell.sh catches the slips it exists for:
# each case plants one mistake in a copy of a shell source and expects the
# check to reject the copy. A case whose original text is gone fails too, so
# the table can't quietly go stale as the shell changes.
#
# Usage: apple-shell-slips.sh <generated dir>     Exits 77 without clang++.
set -uo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
generated="${1:?usage: $0 <generated dir>}"
check="$root/scripts/check-apple-shell.sh"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# The unaltered sources must pass, or every case below would pass vacuously.
"$BASH" "$check" "$generated" >"$work/log" 2>&1
status=$?
[ $status -eq 77 ] && { cat "$work/log"; exit 77; }
[ $status -eq 0 ] || { echo "the unaltered shell does not pass the check:"; cat "$work/log"; exit 1; }

platform=src/platform/apple_platform.mm
shell=src/platform/apple/FinderSync.mm

# file | original text | planted slip | what it stands for
cases=(
  "$platform|seekToEndReturningOffset:&offset|seekToEndReturningOffst:&offset|misspelt selector in a message"
  "$shell|@selector(convertAction:)|@selector(convertActon:)|misspelt menu action selector"
  "$shell|- (NSMenu*)menuForMenuKind:(FIMenuKind)menuKind {|- (NSMenu*)menuForMenuKnd:(FIMenuKind)menuKind {|misspelt Finder callback"
  "$shell|configurationWithPaletteColors:@[ color ]|configurationWithPaletteColors:color|colour where a list of colours is due"
  "$shell|[result addItem:makeItem(item)]|[result addItem:makeMenu(menu)]|menu where a menu item is due"
  "$shell|keyEquivalent:toNSString(item.keyEquivalent)|keyEquivalent:item.keyEquivalent|std::string where NSString is due"
  "$shell|initWithTitle:@\"\"]|initWithTitle:nil]|nil for a non-null argument"
  "$platform|forKey:NSURLIsDirectoryKey|forKey:nil|nil resource key"
  "$platform|(__bridge CFStringRef)notificationName|(CFStringRef)notificationName|cast to CoreFoundation without __bridge"
  "$platform|\"%{public}s\", text.c_str()|\"%{public}d\", text.c_str()|log format that does not match its argument"
  "$platform|\"%{public}s\", text.c_str()|text.c_str()|log format that is not a literal"
  "$platform|NSWorkspaceDidUnmountNotification|NSWorkspaceDidUnmountNotificaton|misspelt notification name"
  "$platform|fileURL(path, NO) options:0|path options:0|path where a URL is due"
)

failures=0
for entry in "${cases[@]}"; do
  IFS='|' read -r file original slip what <<<"$entry"
  source="$(cat "$root/$file")"
  if [[ "$source" != *"$original"* ]]; then
    echo "STALE: $what: '$original' no longer occurs in $file"
    failures=$((failures + 1))
    continue
  fi
  copy="$work/$(basename "$file")"
  printf '%s\n' "${source/"$original"/"$slip"}" >"$copy"
  if "$BASH" "$check" "$generated" "$copy" >"$work/log" 2>&1; then
    echo "MISSED: $what ($file: '$original' -> '$slip')"
    failures=$((failures + 1))
  else
    echo "caught: $what: $(grep -m1 -o "error: .*" "$work/log" | cut -c1-110)"
  fi
done

[ $failures -eq 0 ] || { echo "$failures slip(s) not caught"; exit 1; }
echo "all ${#cases[@]} slips caught"
