#!/bin/sh
# install.sh BUILD: what `cmake --install` puts under a prefix that the build does not know is found
# there by pkg-config and CMake, and works.
set -eu

build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name pkgconfig)")

# Under -Werror, and with no other headers than those that were installed.
PKG_CONFIG_LIBDIR=$libdir/pkgconfig
export PKG_CONFIG_LIBDIR
cp -r "$work/prefix/share/doc/screen-receiver/examples" "$work/examples"
make -C "$work/examples" CC="$SR_CC" CXX="$SR_CXX" CFLAGS=-Werror CXXFLAGS=-Werror
cmake -S "$work/examples" -B "$work/build" -G Ninja -DCMAKE_C_COMPILER="$SR_CC" \
    -DCMAKE_CXX_COMPILER="$SR_CXX" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build"

# The library answers: nobody can connect to this address.
LD_LIBRARY_PATH=$libdir "$work/examples/list-senders" 255.255.255.255 2>"$work/error" && exit 1
grep '^no list: error -' "$work/error"
LD_LIBRARY_PATH=$libdir "$work/prefix/bin/screenctl" explain 0
find "$work/prefix/share" -name screenctl.1.gz | grep -q man1
find "$work/prefix/share" -name _screenctl | grep -q site-functions
