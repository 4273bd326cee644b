#!/bin/sh
# own_names.sh READELF NM LIBRARY LIST: fails when the library asks the dynamic linker for a name that
# it defines itself and that is not in LIST: it could be given the application's.
readelf=$1 nm=$2 library=$3 list=$4

names=$("$nm" -D --defined-only "$library" | sed -n 's/^.* [B-Zb-z] \([^@]*\).*$/\1/p')
asked=$("$readelf" -rW "$library" | awk '$5 != "" { sub(/@.*/, "", $5); print $5 }')
if [ -z "$names" ] || [ -z "$asked" ]; then
    echo "nothing to compare"
    exit 1
fi
taken=$(echo "$asked" | grep -xF "$names" | grep -vF "$(sed -n 's/^ *\(_Z.*\);$/\1/p' "$list")") && found=0 || found=$?
[ $found != 1 ] || exit 0
echo "asked for, though defined in the library:"
echo "$taken"
exit 1
