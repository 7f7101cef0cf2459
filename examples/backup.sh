#!/bin/sh
# Takes the settings of one camera to another: backup.sh save FILE, backup.sh restore FILE
#
# A restore checks first, and changes nothing where there is an error. What was there before stays in
# /etc/kelto/settings.before. The status is that of the reload.
set -eu

settings=${KELTO_SETTINGS:-/etc/kelto/settings}
own=zz-camera.ini # each camera's own: neither saved nor replaced

fail() {
    echo "backup.sh: $1" >&2
    exit 1
}

save() {
    umask 077 # there may be passwords in it
    (cd "$settings" && find . -maxdepth 1 -type f -name '*.ini' ! -name "$own" | sort) |
        tar -C "$settings" -czf "$1.new" -T -
    mv "$1.new" "$1"
}

# Beside the settings, so that each file gets into its place by one rename.
restore() {
    new=$(mktemp -d "$settings.XXXXXX")
    trap 'rm -rf "$new"' EXIT
    tar -C "$new" -xpzf "$1"
    [ ! -e "$settings/$own" ] || cp -p "$settings/$own" "$new"
    halvekctl --settings "$new" check || fail "nothing was changed"
    rm -rf "$settings.before"
    cp -pR "$settings" "$settings.before"
    for old in "$settings"/*.ini; do
        [ -e "$new/${old##*/}" ] || rm -f "$old"
    done
    mv "$new"/*.ini "$settings"
    halvekctl reload
}

[ -d "$settings" ] || fail "$settings is no folder"
case ${1-}:$# in
    save:2) save "$2" ;;
    restore:2) restore "$2" ;;
    *) fail "usage: backup.sh save FILE | backup.sh restore FILE" ;;
esac
