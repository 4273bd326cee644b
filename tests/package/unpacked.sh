# shellcheck shell=sh disable=SC2034
# Sourced by the scripts beside it, with the folder of the packages as their argument. Unpacks them
# into an empty root, from which the functions below build and run.
set -eu

packages=$1
work=$(mktemp -d)
root=$work/root
receiver=
finish() {
    [ -z "$receiver" ] || kill "$receiver" 2>/dev/null || true
    [ -z "$receiver" ] || wait "$receiver" || true
    rm -rf "$work"
}
trap finish EXIT

for package in "$packages"/*.deb; do
    dpkg-deb -x "$package" "$root"
done
libdir=$root/usr/lib/$SR_MULTIARCH
cc="$SR_CC ${SR_SYSROOT:+--sysroot=$SR_SYSROOT}"
cxx="$SR_CXX ${SR_SYSROOT:+--sysroot=$SR_SYSROOT}"
# Only what the packages bring.
export PKG_CONFIG_LIBDIR="$libdir/pkgconfig"

fail() {
    echo "$*" >&2
    exit 1
}

# In front of a program of the target: with the library of the packages.
run="env LD_LIBRARY_PATH=$libdir"
[ -z "$SR_EMULATOR" ] || run="$SR_EMULATOR -E LD_LIBRARY_PATH=$libdir"

# build_with_cmake SOURCE TARGET: in $work/build.
build_with_cmake() {
    # shellcheck disable=SC2086 # a list of words
    cmake -S "$1" -B "$work/build" -G Ninja $SR_CMAKE_OPTIONS -DCMAKE_C_COMPILER="$SR_CC" \
        -DCMAKE_CXX_COMPILER="$SR_CXX" -DScreenReceiver_DIR="$libdir/cmake/ScreenReceiver"
    cmake --build "$work/build" --target "$2"
}

# A receiver with four senders at $address, which notifies every 0.2 s. Its port is fixed, so the
# address is this process's own.
start_receiver() {
    address=127.$((64 + $$ / 65536 % 64)).$(($$ / 256 % 256)).$(($$ % 256))
    # shellcheck disable=SC2086 # a list of words
    $run "$root/usr/bin/receiver-sim" --address "$address" --notify-every 0.2 >"$work/receiver" &
    receiver=$!
    until grep -q '^listening on' "$work/receiver"; do
        kill -0 "$receiver" || fail "the receiver did not start"
        sleep 0.1
    done
}
