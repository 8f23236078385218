#!/usr/bin/env bash
# Installs the build into a fresh prefix and builds a consumer against the
# installed tree both ways, find_package(qmelm) and pkg-config: the README's
# C embedding example and its C++ API example, taken from README.md as they
# stand. Each program runs, as does the installed qmlock (as qmlock and as
# flock), with nothing of the build tree on its library path.
# Usage: install_consumer.sh BUILD_DIR SOURCE_DIR WORK_DIR
# Environment: CC, CXX (the compilers), QMELM_CONSUMER_FLAGS (the sanitizer
# flags the installed libraries were built with, which their users need too).
set -euo pipefail
build=$1 source=$2 work=$3
flags=${QMELM_CONSUMER_FLAGS:-}
cc=${CC:-cc} cxx=${CXX:-c++}
rm -rf "$work"
mkdir -p "$work/examples" "$work/run"
prefix=$work/prefix

step() { echo "== $*"; }
fail() { echo "FAILED: $*" >&2; exit 1; }

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail install; }
for f in lib/libqmhost.so lib/libqmelm.so lib/libqmioe.so lib/libqmhostcm.so bin/qmlock \
         libexec/qmelm/flock include/qmelm/qmelm.h include/qmelm/qmkernel.h \
         include/qmelm/qmhost/qmhost.h include/qmelm/qmhost/qmelm.hpp \
         lib/cmake/qmelm/qmelmConfig.cmake lib/cmake/qmelm/qmelmConfigVersion.cmake \
         lib/pkgconfig/qmelm.pc; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
if grep -rq -e Werror -e "$source" -e "$build" "$prefix/lib/cmake" "$prefix/lib/pkgconfig"; then
  fail "the package names the project's own flags or trees"
fi

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
  grep -q "orders.db: ok, int-nonexcl,ext-nonexcl" "$work/out.txt" || fail "$2: $(cat "$work/out.txt")"
  [ -z "$(ls -A "$work/run")" ] || fail "the examples left files: $(ls -A "$work/run")"
}

step "find_package(qmelm)"
cmake -S "$source/tests/qmlock/consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DEXAMPLES="$work/examples" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_C_FLAGS="-Wall -Wextra -Werror $flags" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror $flags" \
  >"$work/consumer.log" 2>&1 &&
  cmake --build "$work/cmake-build" >>"$work/consumer.log" 2>&1 || { cat "$work/consumer.log"; fail "find_package build"; }
run_examples "$work/cmake-build/embed_c" "$work/cmake-build/api_cpp"

step "pkg-config qmelm"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
pc=$(pkg-config --cflags --libs qmelm)
libdir=$(pkg-config --variable=libdir qmelm)
mkdir -p "$work/pc-build"
# shellcheck disable=SC2086 # the flags are words
"$cc" -std=c11 -Wall -Wextra -Werror $flags "$work/examples/embed.c" $pc -Wl,-rpath,"$libdir" \
  -o "$work/pc-build/embed_c" || fail "pkg-config C build"
# shellcheck disable=SC2086
"$cxx" -std=c++20 -Wall -Wextra -Werror $flags "$work/examples/api.cpp" $pc -Wl,-rpath,"$libdir" \
  -o "$work/pc-build/api_cpp" || fail "pkg-config C++ build"
run_examples "$work/pc-build/embed_c" "$work/pc-build/api_cpp"

step "the installed qmlock"
env -u LD_LIBRARY_PATH -u QMHOST_EXTENSION_PATH "$prefix/bin/qmlock" run -n "$work/run/x" true ||
  fail "installed qmlock run"
"$prefix/libexec/qmelm/flock" -V | grep -q "^flock from QM Resource Lock Manager " ||
  fail "installed flock -V"
env -u LD_LIBRARY_PATH "$prefix/bin/qmlock" --version | grep -q "^  lock manager interface " ||
  fail "installed qmlock --version"
rm -f "$work/run/x"
rm -rf "$work"
echo "== ok"
