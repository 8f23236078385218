#!/usr/bin/env bash
# Builds a consumer of the lock manager the three ways the README offers,
# each from README.md as it stands: the installed package through
# find_package(qmelm), the source tree through add_subdirectory, and the
# installed tree through the README's pkg-config command lines, run as
# written. The consumer asks for no C++ standard: qmelm::cxx brings C++20.
# Each program, and the installed qmlock (as qmlock and as flock, and its
# shell and demo, which it runs from libexec/qmelm), runs with nothing of the
# build tree on its library path.
# Usage: install_consumer.sh BUILD_DIR SOURCE_DIR WORK_DIR
# Environment: CC, CXX (the compilers), QMELM_CONSUMER_FLAGS (the sanitizer
# flags the libraries were built with, which their users need too).
set -euo pipefail
build=$1 source=$2 work=$3
flags=${QMELM_CONSUMER_FLAGS:-}
cc=${CC:-cc} cxx=${CXX:-c++}
rm -rf "$work"
mkdir -p "$work/examples" "$work/run"
prefix=$work/prefix
version=$(sed -n 's/^project(qmelm VERSION \([0-9.]*\) .*/\1/p' "$source/CMakeLists.txt")
[ -n "$version" ] || { echo "FAILED: no version in $source/CMakeLists.txt" >&2; exit 1; }

step() { echo "== $*"; }
fail() { echo "FAILED: $*" >&2; exit 1; }

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail install; }
for f in bin/qmlock libexec/qmelm/flock libexec/qmelm/qmlock-manager include/qmelm/qmelm.h include/qmelm/qmkernel.h \
         include/qmelm/qmhost/qmhost.h include/qmelm/qmelm.hpp share/man/man3/qmelm.3 \
         share/man/man1/qmlock.1 lib/cmake/qmelm/qmelmConfig.cmake \
         lib/cmake/qmelm/qmelmConfigVersion.cmake lib/cmake/qmelm/qmelmTargets.cmake \
         lib/pkgconfig/qmelm.pc; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
# Every library: the file of the full version, its SONAME (the major version)
# and the unversioned name that linkers and the host's loader open.
for lib in qmhost qmelm qmioe qmhostcm; do
  for f in "lib$lib.so" "lib$lib.so.${version%%.*}" "lib$lib.so.$version"; do
    [ -e "$prefix/lib/$f" ] || fail "not installed: lib/$f"
  done
  soname=$(readelf -d "$prefix/lib/lib$lib.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  [ "$soname" = "lib$lib.so.${version%%.*}" ] || fail "lib$lib.so has SONAME '$soname'"
done
if grep -rq -e Werror -e "$source" -e "$build" "$prefix/lib/cmake" "$prefix/lib/pkgconfig"; then
  fail "the package names the project's own flags or trees"
fi
man -l "$prefix/share/man/man3/qmelm.3" 2>&1 >/dev/null | grep . && fail "qmelm.3 does not format cleanly"

step "the README's examples"
# The first ```c block after "## Embedding in C", the first ```cpp block after "## The C++ API".
block() { awk -v head="$1" -v fence="$2" '
  $0 == head { state = 1; next }
  state == 1 && $0 == fence { state = 2; next }
  state == 2 && $0 == "```" { exit }
  state == 2 { print }' "$source/README.md"; }
block "## Embedding in C" '```c' >"$work/examples/embed.c"
block "## The C++ API" '```cpp' >"$work/examples/api.cpp"
for f in embed.c api.cpp; do
  grep -q "int main" "$work/examples/$f" || fail "no example program in README.md for $f"
done

# Runs the examples in a directory of their own, with the library path empty.
run_examples() {
  (cd "$work/run" && env -u LD_LIBRARY_PATH -u QMHOST_EXTENSION_PATH "$1" >"$work/out.txt") ||
    { cat "$work/out.txt"; fail "$1"; }
  grep -q "option 2 governs /srv/data/orders.db" "$work/out.txt" || fail "$1: $(cat "$work/out.txt")"
  (cd "$work/run" && env -u LD_LIBRARY_PATH -u QMHOST_EXTENSION_PATH "$2" >"$work/out.txt") ||
    { cat "$work/out.txt"; fail "$2"; }
  grep -q "^orders.db: ok, read lock, held$" "$work/out.txt" || fail "$2: $(cat "$work/out.txt")"
  [ -z "$(ls -A "$work/run")" ] || fail "the examples left files: $(ls -A "$work/run")"
}

# Builds tests/qmlock/consumer in $1 with the extra CMake arguments that follow.
consumer() {
  local dir=$1
  shift
  cmake -S "$source/tests/qmlock/consumer" -B "$dir" -DEXAMPLES="$work/examples" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_FLAGS="-Wall -Wextra -Werror $flags" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror $flags" \
    "$@" >"$work/consumer.log" 2>&1 &&
    cmake --build "$dir" -j2 >>"$work/consumer.log" 2>&1 || { cat "$work/consumer.log"; fail "consumer build in $dir"; }
}

step "find_package(qmelm)"
consumer "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix"
run_examples "$work/cmake-build/embed_c" "$work/cmake-build/api_cpp"

step "pkg-config qmelm: the README's command lines"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
mkdir -p "$work/pc-build"
cp "$work/examples/embed.c" "$work/pc-build/app.c"
cp "$work/examples/api.cpp" "$work/pc-build/app.cpp"
# The lines as the README writes them; cc and c++ are the compilers under
# test, with the sanitizer flags the libraries need.
lines=$(grep -E '^    (cc|c\+\+) .*pkg-config' "$source/README.md") || fail "no pkg-config command line in README.md"
[ "$(grep -c '^    cc ' <<<"$lines")" -ge 1 ] && [ "$(grep -c '^    c++ ' <<<"$lines")" -ge 1 ] ||
  fail "README.md lacks a C or a C++ pkg-config command line: $lines"
(
  cd "$work/pc-build"
  # shellcheck disable=SC2086 # the flags are words
  cc() { "$cc" $flags "$@"; }
  # shellcheck disable=SC2086
  c++() { "$cxx" $flags "$@"; }
  while read -r line; do
    echo "$line"
    eval "$line" || fail "$line"
  done <<<"$lines"
) || exit 1
[ -x "$work/pc-build/a.out" ] || fail "the README's command lines made no a.out"
# The last line built wins a.out; build each under its own name to run both.
grep -q '^    cc .*app\.c' <<<"$lines" && grep -q '^    c++ .*app\.cpp' <<<"$lines" ||
  fail "the README's lines do not build app.c and app.cpp"
(
  cd "$work/pc-build"
  # shellcheck disable=SC2086
  cc() { "$cc" $flags "$@" -o embed_c; }
  # shellcheck disable=SC2086
  c++() { "$cxx" $flags "$@" -o api_cpp; }
  while read -r line; do eval "$line"; done <<<"$lines"
)
run_examples "$work/pc-build/embed_c" "$work/pc-build/api_cpp"

step "the installed qmlock"
env -u LD_LIBRARY_PATH -u QMHOST_EXTENSION_PATH "$prefix/bin/qmlock" run -n "$work/run/x" true ||
  fail "installed qmlock run"
"$prefix/libexec/qmelm/flock" -V | grep -q "^flock from QM Resource Lock Manager " ||
  fail "installed flock -V"
env -u LD_LIBRARY_PATH "$prefix/bin/qmlock" --version | grep -q "^  lock manager interface " ||
  fail "installed qmlock --version"
# shell and demo are the helper in libexec/qmelm, which loads the lock
# manager from the installed lib/.
printf 'get a %s\nrelease a\n' "$work/run/x" |
  env -u LD_LIBRARY_PATH -u QMHOST_EXTENSION_PATH "$prefix/bin/qmlock" shell >"$work/out.txt" ||
  { cat "$work/out.txt"; fail "installed qmlock shell"; }
[ "$(grep -c '^ok' "$work/out.txt")" = 2 ] || fail "installed qmlock shell: $(cat "$work/out.txt")"
mkdir -p "$work/tmp"
TMPDIR=$work/tmp env -u LD_LIBRARY_PATH -u QMHOST_EXTENSION_PATH "$prefix/bin/qmlock" demo \
  >"$work/out.txt" 2>&1 || { cat "$work/out.txt"; fail "installed qmlock demo"; }
rm -f "$work/run/x"

step "add_subdirectory: the source tree in a consumer's build"
consumer "$work/subdir-build" -DQMELM_SOURCE="$source"
run_examples "$work/subdir-build/embed_c" "$work/subdir-build/api_cpp"

rm -rf "$work"
echo "== ok"
