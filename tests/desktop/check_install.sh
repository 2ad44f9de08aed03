#!/usr/bin/env bash
# Installs the build into a temporary prefix and checks that every file lands where a desktop looks for it,
# that the pieces name each other, and that nothing else is installed.
# Usage: check_install.sh BUILD_DIR VERSION
set -euo pipefail
build=$1
version=$2
id=app.pelmora.Pelmora
prefix=$(mktemp -d /tmp/pelmora-install-XXXXXX)
trap 'rm -rf "$prefix"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null

expected=$(printf '%s\n' bin/Pelmora bin/pelmora "share/applications/$id.desktop" "share/metainfo/$id.metainfo.xml" \
    "share/icons/hicolor/scalable/apps/$id.svg" | sort)
installed=$(cd "$prefix" && find . -type f -o -type l | sed 's|^\./||' | sort)
[[ "$installed" == "$expected" ]] || fail "installed files differ from the expected ones:
$(diff <(echo "$expected") <(echo "$installed"))"

[[ -x "$prefix/bin/Pelmora" ]] || fail "bin/Pelmora is not executable"
answer=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "$prefix/bin/Pelmora" --version)
[[ "$answer" == "Pelmora $version" ]] || fail "the installed program answers --version with '$answer'"
tool=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "$prefix/bin/pelmora" --version)
[[ "$tool" == "pelmora $version" ]] || fail "the installed tool answers --version with '$tool'"

entry="$prefix/share/applications/$id.desktop"
metainfo="$prefix/share/metainfo/$id.metainfo.xml"
grep -qx "Exec=Pelmora" "$entry" || fail "the desktop entry does not start the installed program"
grep -qx "Icon=$id" "$entry" || fail "the desktop entry does not name the installed icon"
grep -q "<launchable type=\"desktop-id\">$id.desktop</launchable>" "$metainfo" ||
    fail "the metainfo does not name the installed desktop entry"
grep -q "<id>$id</id>" "$metainfo" || fail "the metainfo's id is not $id"
latest=$(grep -o '<release version="[^"]*"' "$metainfo" | head -n1 | cut -d'"' -f2)
[[ "$latest" == "$version" ]] || fail "the metainfo's latest release is '$latest', the project's version $version"
echo "installed into $prefix: $(echo "$installed" | tr '\n' ' ')"
