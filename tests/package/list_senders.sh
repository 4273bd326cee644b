#!/bin/sh
# The C example, with make and pkg-config.
. "$(dirname "$0")/unpacked.sh"

cp -r "$root/usr/share/doc/screen-receiver/examples" "$work/examples"
make -C "$work/examples" CC="$cc" CFLAGS="-O2 -Werror" list-senders
start_receiver
$run "$work/examples/list-senders" "$address" >"$work/senders"
cat "$work/senders"
[ "$(grep -cE '^ *[0-9]+  [0-9.]+  .' "$work/senders")" = 4 ] || fail "not the four senders"
