#!/bin/sh
# The C++ example, with CMake's find_package().
. "$(dirname "$0")/unpacked.sh"

build_with_cmake "$root/usr/share/doc/screen-receiver/examples" watch
start_receiver
$run "$work/build/watch" "$address" 2 >"$work/watched"
cat "$work/watched"
[ "$(grep -c '^notification 8, ' "$work/watched")" = 2 ] || fail "not two notifications"
[ "$(grep -c ': status ' "$work/watched")" = 12 ] || fail "not three lists of four senders"
