#!/bin/sh
# The simulated receiver as a library: with pkg-config, and as a component of find_package().
. "$(dirname "$0")/unpacked.sh"

source=$(cd "$(dirname "$0")" && pwd)/simulator
start_receiver  # only for the address
kill "$receiver"
wait "$receiver" || fail "the receiver did not end well"
receiver=

# shellcheck disable=SC2086,SC2046 # lists of words
$cxx -std=c++17 -Wall -Wextra -Werror $(pkg-config --cflags receiver-simulator screen-receiver) \
    -o "$work/simulator" "$source/main.cpp" $(pkg-config --libs receiver-simulator screen-receiver)
$run "$work/simulator" "$address"

build_with_cmake "$source" simulator
$run "$work/build/simulator" "$address"
