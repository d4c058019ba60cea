#!/bin/sh
# check_install.sh CMAKE BUILD SOURCE STAGE READELF DEMO EXPECTED...
# Installs BUILD under STAGE/usr as `cmake --install` does for a user, then checks it:
#   - every EXPECTED file (relative to the prefix) is there;
#   - no ELF file names the build or source tree in its RPATH/RUNPATH, dynamic strings or
#     read-only data; every RUNPATH entry is $ORIGIN-relative and stays inside the installed
#     tree; the module has none at all (on a device the platform's process provides its
#     libraries);
#   - with DEMO "run", the installed orvello-demo, run from STAGE with nothing of the build tree
#     on its paths, refuses a work directory holding files it did not make, then pairs, plays
#     and takes the update.
set -eu
cmake=$1 build=$2 source=$3 stage=$4 readelf=$5 demo=$6
shift 6
failures=0
fail() { echo "install_tree: $*" >&2; failures=$((failures + 1)); }

rm -rf "$stage"
"$cmake" --install "$build" --prefix "$stage/usr" >"$stage.log" 2>&1 || {
  cat "$stage.log" >&2; echo "install_tree: cmake --install failed" >&2; exit 1; }
prefix=$(cd "$stage/usr" && pwd -P)

for file in "$@"; do
  [ -f "$prefix/$file" ] || fail "missing after install: $file"
done

elves=0
for file in $(find "$prefix" -type f | sort); do
  "$readelf" -h "$file" >/dev/null 2>&1 || continue
  elves=$((elves + 1))
  name=${file#"$prefix"/}
  paths=$("$readelf" -d --wide "$file" | sed -n 's/.*(\(RPATH\|RUNPATH\)).*\[\(.*\)\]$/\2/p')
  case "$name" in
    */vrax/modules/*) [ -z "$paths" ] || fail "$name carries a library search path: $paths" ;;
  esac
  old_ifs=$IFS
  IFS=:
  for entry in $paths; do
    case "$entry" in
      '$ORIGIN'|'$ORIGIN'/*)
        dir=$(dirname "$file")${entry#'$ORIGIN'}
        if [ ! -d "$dir" ]; then
          fail "$name: RUNPATH entry $entry names no directory of the installed tree"
        else
          case "$(cd "$dir" && pwd -P)/" in
            "$prefix"/*) ;;
            *) fail "$name: RUNPATH entry $entry leaves the installed tree" ;;
          esac
        fi
        ;;
      *) fail "$name: search path entry $entry is not relative to \$ORIGIN" ;;
    esac
  done
  IFS=$old_ifs
  for tree in "$build" "$source"; do
    for section in .rodata .dynstr; do
      if "$readelf" -p "$section" "$file" 2>/dev/null | grep -qF "$tree"; then
        fail "$name: its $section names $tree"
      fi
    done
  done
done
[ "$elves" -ge 12 ] || fail "only $elves ELF files installed"
[ "$failures" -eq 0 ] || exit 1
if [ "$demo" != run ]; then
  echo "install_tree: the installed demo is not run here ($demo)"
  exit 0
fi

# A work directory holding someone's files is refused, and they stay.
mkdir -p "$stage/not-the-demos"
echo keep >"$stage/not-the-demos/notes.txt"
if "$prefix/bin/orvello-demo" --work-dir "$stage/not-the-demos" >"$stage/refused.out" 2>&1; then
  fail "the installed demo took a directory holding someone's files as its work directory"
fi
grep -q "holds files the demo did not make" "$stage/refused.out" || fail "the refusal does not say why: $(cat "$stage/refused.out")"
[ -f "$stage/not-the-demos/notes.txt" ] || fail "the demo removed a file of a directory it refused"

# The installed demo, as a user runs it; its narration goes to the test's output.
work="$stage/demo-work"
out="$stage/demo.out"
status=0
env -u LD_LIBRARY_PATH "$prefix/bin/orvello-demo" --work-dir "$work" --track-seconds 3 --after-swap 2 >"$out" 2>&1 || status=$?
cat "$out"
[ "$status" -eq 0 ] || fail "the installed orvello-demo ended with status $status"
grep -q "paired with the service" "$out" || fail "the installed demo's device did not pair"
grep -q "^\[.*\] playing: " "$out" || fail "the installed demo's device did not play"
grep -q "now running player library 1.1.0" "$out" || fail "the installed demo's device did not take the update"
[ "$failures" -eq 0 ]
