#!/bin/sh
# dependencies.sh FOLDER: fails unless each package depends on the others and on the libraries that it
# needs, and on nothing else.
set -eu

status=0
expect() {
    package=$1
    shift
    found=$(dpkg-deb -f "$packages/$package"_*.deb Depends | sed 's/ ([^)]*)//g; s/, /\n/g' | sort)
    wanted=$(printf '%s\n' "$@" | sort)
    [ "$found" = "$wanted" ] && return
    printf '%s depends on\n%s\ninstead of\n%s\n' "$package" "$found" "$wanted"
    status=1
}

packages=$1
expect libscreenreceiver1 libboost-thread1.74.0 libc6 libgcc-s1 libstdc++6
expect libscreenreceiver-dev libscreenreceiver1 libboost-dev
expect screen-receiver-tools libscreenreceiver1 libc6 libfmt9 libgcc-s1 libncursesw6 libstdc++6 \
    libtinfo6
version=$(dpkg-deb -f "$packages"/libscreenreceiver1_*.deb Version)
for package in libscreenreceiver-dev screen-receiver-tools; do
    dpkg-deb -f "$packages/$package"_*.deb Depends | grep -qF "libscreenreceiver1 (= $version)" || {
        echo "$package goes with another version of the library"
        status=1
    }
done
exit $status
