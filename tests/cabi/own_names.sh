#!/bin/sh
# own_names.sh READELF NM LIBRARY: fails when the library asks the dynamic linker for a name that it
# defines itself: it could be given the application's.
readelf=$1 nm=$2 library=$3

names=$("$nm" -D --defined-only "$library" | sed -n 's/^.* [B-Zb-z] \([^@]*\).*$/\1/p')
asked=$("$readelf" -rW "$library" | awk '$5 != "" { sub(/@.*/, "", $5); print $5 }')
if [ -z "$names" ] || [ -z "$asked" ]; then
    echo "nothing to compare"
    exit 1
fi
taken=$(echo "$asked" | grep -xF "$names") || exit 0
echo "asked for, though defined in the library:"
echo "$taken"
exit 1
