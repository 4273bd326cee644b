#!/bin/sh
# exported_symbols.sh NM LIBRARY LIST: fails unless each exported name matches a line of LIST (whole
# names, as extended regular expressions) and each line matches a name.
nm=$1 library=$2 list=$3

patterns=$(sed -e 's/#.*//' -e 's/[[:space:]]*$//' -e '/^$/d' "$list") || exit 1
# The version node itself is listed as an absolute symbol.
names=$("$nm" -D --defined-only "$library" | sed -n 's/^.* [B-Zb-z] \([^@]*\).*$/\1/p')
if [ -z "$patterns" ] || [ -z "$names" ]; then
    echo "nothing to compare"
    exit 1
fi

status=0
unexpected=$(echo "$names" | grep -vxE "$patterns")
if [ -n "$unexpected" ]; then
    echo "exported but not listed:"
    echo "$unexpected"
    status=1
fi
for pattern in $patterns; do
    if ! echo "$names" | grep -qxE "$pattern"; then
        echo "listed but not exported: $pattern"
        status=1
    fi
done
exit $status
