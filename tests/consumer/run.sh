#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build, then builds and runs programs and the examples against the installed package as a stranger would, with
# CMake and with pkg-config, all in a temporary folder: run.sh BUILD SOURCE C_COMPILER CXX_COMPILER
set -euo pipefail
build=$1 source=$2 cc=$3 cxx=$4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "consumer: $*" >&2
    exit 1
}
# Nothing of the build's surroundings may help the consumer.
unset CPATH CPLUS_INCLUDE_PATH LIBRARY_PATH LD_LIBRARY_PATH CMAKE_PREFIX_PATH PKG_CONFIG_PATH CXXFLAGS CFLAGS LDFLAGS

cmake --install "$build" --prefix "$work/installed" >"$work/log" || fail "cmake --install failed: $(cat "$work/log")"
# A tree may be moved after it was installed.
mv "$work/installed" "$work/prefix"
cp -r "$source/tests/consumer" "$work/project"
cp -r "$source/examples" "$work/examples"
cp "$source/examples/null_hal.c" "$work/project/"

version=$(sed -nE 's/^#define NIMBREL2_VERSION_(MAJOR|MINOR|PATCH) ([0-9]+)$/\2/p' "$source/src/common/Version.h" | paste -sd.)
for name in libnimbrel2 libnimbrel2_simulation; do
    # Until 1.0 another minor version is another interface.
    soname=$name.so.${version%.*}
    library=$(find "$work/prefix" -name "$soname")
    [ -L "$library" ] || fail "no $soname points to the library"
    readelf -d "$library" | grep -qF "soname: [$soname]" ||
        fail "the library does not call itself $soname"
done
libdir=$(dirname "$library")

# What only an administrator puts in force lies beside the rest.
for file in udev/70-nimbrel2-usb3-vision.rules udev/70-nimbrel2-firewire.rules sysctl.d/60-nimbrel2.conf; do
    cmp "$source/packaging/$file" "$work/prefix/share/nimbrel2/$file" || fail "$file is not installed"
done
[ ! -e "$work/prefix/lib/udev" ] || fail "an installation puts udev rules in force"

# What our own build is compiled with is nobody else's business.
leaked=$(grep -rnE -- '-W|-fsanitize|-fno-omit|build_flags|'"$source|$build" "$libdir/cmake" "$libdir/pkgconfig" || true)
[ -z "$leaked" ] || fail "flags or paths of our own build are exported:"$'\n'"$leaked"

expect() {
    local output
    output=$(timeout 60 "$@") || fail "$1 failed with status $?: $output"
    [ "$output" = "0 cameras, 0 devices" ] || fail "$1 printed: $output"
    echo "consumer: ${1#"$work"/}: $output"
}

cmake -S "$work/project" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_CXX_COMPILER="$cxx" -DNIMBREL2_INSTALLED="$work/prefix"
cmake --build "$work/cmake" --parallel 2
expect "$work/cmake/with_shipped_hal"
expect "$work/cmake/with_own_hal"

# The examples, as whoever starts from them builds them.
cmake -S "$work/examples" -B "$work/examples-built" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_CXX_COMPILER="$cxx"
cmake --build "$work/examples-built" --parallel 2
output=$(timeout 60 "$work/examples-built/count_cameras_null_hal") || fail "count_cameras_null_hal failed: $output"
[ "$output" = "0 cameras" ] || fail "count_cameras_null_hal printed: $output"
output=$(timeout 60 "$work/examples-built/follow_cameras" --simulated) || fail "follow_cameras failed: $output"
[ "${output##*$'\n'}" = "21000101 has arrived: Brightline U3 500" ] || fail "follow_cameras printed: $output"

# Who writes a HAL in C needs no C++ compiler for it, whatever part of the package is asked for.
mkdir "$work/hal"
cat >"$work/hal/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.16)
project(own_hal LANGUAGES C)
find_package(nimbrel2 0.1 REQUIRED COMPONENTS hal)
add_library(own_hal STATIC ../project/null_hal.c)
target_link_libraries(own_hal PRIVATE nimbrel2::hal)
END
cmake -S "$work/hal" -B "$work/hal-built" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$cc"
cmake --build "$work/hal-built"

export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion nimbrel2)" = "$version" ] ||
    fail "nimbrel2.pc has another version"
# shellcheck disable=SC2046  # pkg-config prints words
"$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror "$work/project/main.cpp" -o "$work/with_pkgconfig" \
    $(pkg-config --cflags --libs nimbrel2-simulation)
expect env LD_LIBRARY_PATH="$libdir" "$work/with_pkgconfig"

# shellcheck disable=SC2046
"$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror "$work/project/main_own_hal.cpp" -o "$work/own_hal_with_pkgconfig" \
    $(pkg-config --cflags --libs nimbrel2-core) "$work/hal-built/libown_hal.a"
expect "$work/own_hal_with_pkgconfig"

# A program for real cameras carries no simulated ones and no JSON parser.
# shellcheck disable=SC2046
"$cxx" -std=c++17 "$work/project/main_own_hal.cpp" -o "$work/real_cameras" $(pkg-config --cflags --libs nimbrel2)
libraries=$(LD_LIBRARY_PATH=$libdir ldd "$work/real_cameras")
[[ $libraries == *libnimbrel2.so* && $libraries != *simulation* ]] ||
    fail "a program for real cameras loads other libraries than libnimbrel2: $libraries"
parser=nlohmann
grep -qa $parser "$libdir/libnimbrel2_simulation.so" || fail "a JSON parser is no longer called $parser: look for its name"
for file in "$work/real_cameras" "$libdir/libnimbrel2.so"; do
    ! grep -qa $parser "$file" || fail "$file carries a JSON parser"
done

# Plug-ins that hide their symbols, whatever they are optimised for, share the one bus master of the library, and it stays
# when they are unloaded.
for optimisation in -O0 -O2; do
    # shellcheck disable=SC2046
    "$cxx" -std=c++17 $optimisation -fPIC -fvisibility=hidden -fvisibility-inlines-hidden \
        -c "$work/project/plugin.cpp" -o "$work/hidden.o" $(pkg-config --cflags nimbrel2)
    singleton=$(nm -C "$work/hidden.o" | grep 'Nimbrel2::Singleton')
    [ "${singleton##* U }" = 'Nimbrel2::Singleton<Nimbrel2::BusMaster>::GetInstance()' ] ||
        fail "the bus master of a plug-in with hidden symbols is its own: $singleton"
done
# shellcheck disable=SC2046
"$cxx" -shared "$work/hidden.o" -o "$work/plugin.so" $(pkg-config --libs nimbrel2)
"$cc" -Wall -Wextra -Werror "$work/project/unload_plugin.c" -o "$work/unload_plugin" -ldl
expect env LD_LIBRARY_PATH="$libdir" "$work/unload_plugin" "$work/plugin.so" "libnimbrel2.so.${version%.*}"
for name in libnimbrel2.so libnimbrel2_simulation.so; do
    flags=$(readelf -d "$libdir/$name" | grep FLAGS)
    [[ $flags == *NODELETE* ]] || fail "$name can be unloaded under its threads"
done

# What the page for newcomers shows, from a folder with the sources and a build.
mkdir -p "$work/home" "$work/clone/build"
ln -s "$build" "$work/clone/build/release"
cp -r "$source/examples" "$work/clone/examples"
shown=$(sed -n '/<!-- not run: the test of the installed package runs this -->/,/^```$/p' "$source/docs/first-register.md" | grep -v '^<!--\|^```')
[ "$(wc -l <<<"$shown")" -eq 3 ] || fail "docs/first-register.md does not show how to compile a program"
unset PKG_CONFIG_PATH  # in a network without cameras
output=$(cd "$work/clone" && HOME=$work/home timeout 120 bash -euc "$shown"$'\n'"unshare --net --map-root-user ./read_register 19340213 0" 2>&1 >"$work/log") &&
    fail "read_register found a camera: $output"
[[ $output == "Camera with specified serial number was not found."* ]] || fail "what docs/first-register.md shows fails: $output"
