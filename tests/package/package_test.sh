#!/bin/sh
# Builds the Debian package the way the README says (a Release build with
# the installed paths, then cpack) in a build directory of its own, and
# checks it:
#   - `dpkg-deb -c` lists exactly the files of <contents> (mode, owner and
#     group, path; sizes and dates left out);
#   - Depends was computed and names the C library;
#   - every manual page is gzip data and the changelog too;
#   - lintian, when present, reports no error.
#
#   package_test.sh <source dir> <build dir> <contents>
#
# The build directory is kept, so a second run only rebuilds what changed.
set -eu

if [ $# -ne 3 ]; then
  echo "usage: $0 <source dir> <build dir> <contents>" >&2
  exit 2
fi
src=$1
build=$2
contents=$3

fail() { echo "package_test: $*" >&2; exit 1; }

cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DROOT_PREFIX= \
  -DOVK_BUILD_TESTS=OFF -DOVK_BUILD_BENCH=OFF -DOVK_FUZZ=OFF >"$build.configure.log" 2>&1 ||
  { cat "$build.configure.log" >&2; fail "configure failed"; }
cmake --build "$build" -j2 >"$build.build.log" 2>&1 ||
  { tail -n 40 "$build.build.log" >&2; fail "build failed"; }
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB) >"$build.cpack.log" 2>&1 ||
  { cat "$build.cpack.log" >&2; fail "cpack failed"; }
set -- "$build"/*.deb
[ $# -eq 1 ] && [ -f "$1" ] || fail "expected one .deb in $build, found: $*"
deb=$1

listed=$(dpkg-deb -c "$deb" | awk '{ print $1, $2, $6 }')
if [ "$listed" != "$(cat "$contents")" ]; then
  echo "package_test: the package's files differ from $contents (- expected, + found):" >&2
  printf '%s\n' "$listed" | diff -u "$contents" - >&2 || true
  exit 1
fi

depends=$(dpkg-deb -f "$deb" Depends)
case "$depends" in
  *libc6*) ;;
  *) fail "Depends does not name the C library: '$depends'" ;;
esac

unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
dpkg-deb -x "$deb" "$unpacked"
for f in "$unpacked"/usr/share/man/*/* "$unpacked"/usr/share/doc/*/changelog.Debian.gz; do
  gzip -t "$f" 2>/dev/null || fail "not gzip data: ${f#"$unpacked"}"
done
# The installed program must carry the installed paths, not a sandbox's:
# the panel's and the mail system's files, its temporary file names and the
# panel configuration's default mailbox root.
program_strings=$(strings "$unpacked/usr/sbin/autoresponder")
for path in /etc/ovk/ovk.conf /etc/ovk/.ovk.shadow /usr/sbin/sendmail \
  /var/qmail/control/databytes /var/qmail/mailnames /tmp/ovk-autoresponder-XXXXXX \
  /tmp/ovk-response-uu-XXXXXX /tmp/ovk-autoresponder-body-XXXXXX; do
  printf '%s\n' "$program_strings" | grep -qxF "$path" ||
    fail "the packaged program does not carry the path $path"
done

if command -v lintian >/dev/null 2>&1; then
  lintian --fail-on error "$deb" >"$build.lintian.log" 2>&1 ||
    { cat "$build.lintian.log" >&2; fail "lintian reports errors"; }
else
  echo "package_test: lintian not installed, not run"
fi
echo "package_test: $(basename "$deb"): $(printf '%s\n' "$listed" | wc -l) entries as listed; Depends: $depends"
