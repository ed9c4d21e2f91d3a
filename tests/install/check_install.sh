#!/bin/sh
# The install tree: `cmake --install` into a prefix, moved elsewhere, runs as it is: the viewer
# finds its libraries and the plug-in by relative run paths (nothing of the build tree), and the
# package's description lists what the binaries need.
#   check_install.sh <build dir>     (on a display: the viewer opens a cloud)
set -eu
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "check_install: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$work/prefix" >"$work/install.log" || fail "cmake --install failed: $(cat "$work/install.log")"
mv "$work/prefix" "$work/moved"
p="$work/moved"
for f in bin/tessaro bin/mensurix-sim lib/tessaro/libTZ_CORE_LIB.so lib/tessaro/libQTZ_DB_LIB.so lib/tessaro/libQTZ_FORMATS_LIB.so \
         lib/tessaro/libQTZ_GUI_LIB.so lib/tessaro/plugins/libQLUMIVERT_PLUGIN.so \
         share/tessaro/companion/every-frame.jsonl; do
    [ -f "$p/$f" ] || fail "$f is not installed"
done
for f in bin/tessaro lib/tessaro/libQTZ_GUI_LIB.so lib/tessaro/plugins/libQLUMIVERT_PLUGIN.so; do
    runpath=$(readelf -d "$p/$f" | sed -n 's/.*R\(UN\)\{0,1\}PATH.*\[\(.*\)\]/\2/p')
    case "$runpath" in
        '$ORIGIN'*) ;;
        *) fail "$f: run path '$runpath' is not relative to the file" ;;
    esac
done
# Nothing may come from the build tree.
if ldd "$p/bin/tessaro" "$p/lib/tessaro/plugins/libQLUMIVERT_PLUGIN.so" | grep -q "$build"; then
    fail "a library comes from the build tree: $(ldd "$p/bin/tessaro" | grep "$build")"
fi
ldd "$p/bin/tessaro" | grep -q "not found" && fail "missing libraries: $(ldd "$p/bin/tessaro" | grep 'not found')"

# The installed viewer opens a cloud and loads its plug-in from the prefix.
printf '0 0 0\n1 0 0\n0 1 0\n1 1 1\n' >"$work/cloud.xyz"
env -u TESSARO_PLUGIN_PATH "$p/bin/tessaro" --action Lumivert --screenshot "$work/shot.png" \
    "$work/cloud.xyz" >"$work/run.log" 2>&1 || fail "the installed viewer failed: $(cat "$work/run.log")"
grep -q "Loaded 'Lumivert' ($p/lib/tessaro/plugins/libQLUMIVERT_PLUGIN.so)" "$work/run.log" \
    || fail "the plug-in was not loaded from the prefix: $(cat "$work/run.log")"
grep -q "cloud.xyz': 4 points" "$work/run.log" || fail "the cloud was not opened: $(cat "$work/run.log")"
[ -s "$work/shot.png" ] || fail "no screenshot"
echo "check_install: the install tree runs from $p"
