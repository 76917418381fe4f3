#!/usr/bin/env bash
# Install test: installs a configured build tree into a scratch prefix, then
# builds and runs a consumer program against it, once through the CMake
# package (find_package(mdxlib)) and once through pkg-config.
#
#   run.sh BUILD_DIR CONSUMER_SOURCE_DIR [EXTRA_FLAGS]
#
# EXTRA_FLAGS are added to the consumer's compile and link flags (the
# sanitizer flags when the library was built with them). The consumer does not
# inherit the project's flags otherwise; sanitizers the installed library
# needs are detected from it as well.
set -euo pipefail

if (($# < 2)); then
  echo "usage: $0 BUILD_DIR CONSUMER_SOURCE_DIR [EXTRA_FLAGS]" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
consumer_dir=$(cd "$2" && pwd)
read -r -a extra_flags <<<"${3:-}"

# Scratch space in the build tree: removed when the test passes, kept for a
# look when it fails.
work=$(mktemp -d "$build_dir/install-test.XXXXXX")
prefix=$work/prefix

step() { echo "-- $*"; }
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

step "install into $prefix"
cmake --install "$build_dir" --prefix "$prefix"

library=$(find "$prefix" -name 'libmdxlib.so.*.*' -type f -print -quit)
[[ -n $library ]] || fail "no versioned libmdxlib.so installed"
libdir=$(dirname "$library")
[[ -L $libdir/libmdxlib.so ]] || fail "no libmdxlib.so development link"
[[ -L $libdir/libmdxlib.so.0 ]] || fail "no libmdxlib.so.0 link"
[[ -f $prefix/include/mdxlib/tagfile/TagFile.h ]] || fail "headers not installed"
[[ -z $(find "$prefix" -name 'libmdxlib_static*' -print -quit) ]] || fail "the static archive was installed"
[[ -f $libdir/cmake/mdxlib/mdxlibConfig.cmake ]] || fail "no mdxlibConfig.cmake"
[[ -f $libdir/cmake/mdxlib/mdxlibConfigVersion.cmake ]] || fail "no mdxlibConfigVersion.cmake"
[[ -f $libdir/pkgconfig/mdxlib.pc ]] || fail "no mdxlib.pc"

step "SONAME"
dynamic=$(readelf -d "$library")
grep -q 'Library soname: \[libmdxlib\.so\.0\]' <<<"$dynamic" || fail "SONAME is not libmdxlib.so.0"
grep 'SONAME' <<<"$dynamic"

# A sanitized library needs a sanitized program to load it.
sanitizers=()
grep -q 'NEEDED.*\[libasan\.so' <<<"$dynamic" && sanitizers+=(address)
grep -q 'NEEDED.*\[libubsan\.so' <<<"$dynamic" && sanitizers+=(undefined)
if ((${#sanitizers[@]})); then
  joined=$(
    IFS=,
    echo "${sanitizers[*]}"
  )
  flags_text=" ${extra_flags[*]} "
  if [[ $flags_text != *" -fsanitize=$joined "* ]]; then
    extra_flags+=("-fsanitize=$joined")
  fi
fi
echo "consumer flags: ${extra_flags[*]:-(none)}"

if [[ -x $prefix/bin/mdx ]]; then
  step "installed mdx finds the library"
  if ldd "$prefix/bin/mdx" | grep -q 'not found'; then
    ldd "$prefix/bin/mdx" >&2
    fail "installed mdx misses a library"
  fi
fi

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)

step "consumer through find_package(mdxlib)"
cmake -S "$consumer_dir" -B "$work/consumer-cmake" "${generator[@]}" \
  -DCMAKE_BUILD_TYPE=Debug \
  "-DCMAKE_PREFIX_PATH=$prefix" \
  "-DCMAKE_CXX_FLAGS=${extra_flags[*]}" \
  "-DCMAKE_EXE_LINKER_FLAGS=${extra_flags[*]}"
cmake --build "$work/consumer-cmake"
"$work/consumer-cmake/consumer" | tee "$work/consumer-cmake.out"
grep -qE '^meta folder: /tmp/x/?$' "$work/consumer-cmake.out" || fail "unexpected output (cmake consumer)"

step "consumer through pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
read -r -a pc_flags <<<"$(pkg-config --cflags --libs mdxlib)"
echo "pkg-config: ${pc_flags[*]}"
"${CXX:-c++}" -std=c++17 "${extra_flags[@]}" -o "$work/consumer-pc" "$consumer_dir/main.cpp" \
  "${pc_flags[@]}" "-Wl,-rpath,$libdir"
"$work/consumer-pc" | tee "$work/consumer-pc.out"
grep -qE '^meta folder: /tmp/x/?$' "$work/consumer-pc.out" || fail "unexpected output (pkg-config consumer)"

rm -rf "$work"
echo "install test passed"
