#!/bin/sh
# Posts an event to halvek: posting.sh TYPE [KEY=VALUE]...
#
# The status is 0 if the event is in the event pipe, 1 if it is not, and 2 if it is no event. HALVEK_PIPE names another
# event pipe.
set -eu

pipe=${HALVEK_PIPE:-/var/run/halvek.pipe}
longest=4096 # bytes that a pipe takes as a whole
newline='
'

fail() {
    echo "posting.sh: $2" >&2
    exit "$1"
}

[ $# -gt 0 ] || fail 2 "usage: posting.sh TYPE [KEY=VALUE]..."

# What would end the event early, or begin another one.
for word; do
    case $word in *"$newline"*) fail 2 "an event has no line breaks" ;; esac
done
case $1 in '' | *']'*) fail 2 "a type is not empty, and has no \"]\"" ;; esac
block="[$1]"
shift
for property; do
    case $property in
        [A-Za-z0-9]*=*) block=$block$newline$property ;;
        *) fail 2 "a property is written KEY=VALUE, and begins with a letter or digit" ;;
    esac
done
block=$block$newline.$newline
[ "$(printf %s "$block" | wc -c)" -le "$longest" ] || fail 2 "an event has at most $longest bytes"
[ -p "$pipe" ] || fail 1 "there is no pipe $pipe"

# "env printf" writes once, where a shell's own may write line by line. Without a daemon the shell would wait in its ">"
# for ever.
export block pipe
# shellcheck disable=SC2016
timeout 5 sh -c 'env printf %s "$block" >"$pipe"' || fail 1 "$pipe: nobody reads it, or you may not write to it"
