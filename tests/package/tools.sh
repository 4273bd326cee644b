#!/bin/sh
# The programs, where a user looks for them and for how to use them.
. "$(dirname "$0")/unpacked.sh"

start_receiver
$run "$root/usr/bin/screenctl" --json list "$address" >"$work/senders"
[ "$(grep -c '^{"version":1,"key":' "$work/senders")" = 4 ] || fail "not the four senders"

for program in screenctl receiver-sim; do
    gzip -dc "$root/usr/share/man/man1/$program.1.gz" | grep -qi "^.Dt $program 1" ||
        fail "no man page of $program"
done
bash -c 'source "$1" && complete -p screenctl' - \
    "$root/usr/share/bash-completion/completions/screenctl" || fail "no completion for bash"
head -n 1 "$root/usr/share/zsh/vendor-completions/_screenctl" | grep -q '^#compdef screenctl' ||
    fail "no completion for zsh"
grep -q '^complete -c screenctl' "$root/usr/share/fish/vendor_completions.d/screenctl.fish" ||
    fail "no completion for fish"
