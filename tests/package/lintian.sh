#!/bin/sh
# lintian.sh FOLDER: fails for anything that lintian minds, but:
#   initial-upload-closes-no-bugs  the packages are not uploaded to Debian
#   maintscript-calls-ldconfig     CPack's own scripts; the trigger is there, too
set -eu
allow=--quiet
if [ "$(id -u)" = 0 ]; then
    allow=--allow-root
fi
lintian "$allow" --fail-on error,warning \
    --suppress-tags initial-upload-closes-no-bugs,maintscript-calls-ldconfig "$1"/*.deb
