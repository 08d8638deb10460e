#!/bin/sh
# Runs tarn-tp4 in front of an echo and looks at what passes, what it prints and how it ends.
# Usage: tarn_tp4.sh TARN_TP4
set -eu

tarn_tp4=$1
work=$(mktemp -d)
export TARN_TP4_DIR="$work/provider"
cd "$work"
echo_server=
relay=
# shellcheck disable=SC2086 # none, or one
trap 'kill -KILL $echo_server $relay 2>/dev/null || true; rm -rf "$work"' EXIT
fail() {
    echo "$1" >&2
    exit 1
}

# expect CODE PATTERN ARGUMENT...
expect() {
    code=$1 pattern=$2
    shift 2
    got=0
    output=$("$tarn_tp4" "$@" 2>&1) || got=$?
    [ "$got" = "$code" ] && printf '%s' "$output" | grep -Eq -e "$pattern" || fail "tarn-tp4 $*: $got, $output"
}

# become TEXT COMMAND...: waits until a command prints it
become() {
    text=$1
    shift
    tries=0
    until [ "$("$@" 2>/dev/null)" = "$text" ]; do
        tries=$((tries + 1))
        [ $tries -lt 300 ] || fail "not \"$text\": $*"
        sleep 0.1
    done
}

socat -d -d TCP-LISTEN:0,bind=127.0.0.1,fork EXEC:cat 2>echo.log &
echo_server=$!
until port=$(sed -n 's/.*listening on .*:\([0-9]*\)$/\1/p' echo.log) && [ -n "$port" ]; do
    kill -0 $echo_server
    sleep 0.05
done
place=49000f0102/snmp
path=$("$tarn_tp4" path $place)

listen() {
    "$tarn_tp4" listen $place "tcp:127.0.0.1:$port" "$@" 2>relay.log &
    relay=$!
    become hello sh -c "echo hello | socat -t 10 - 'UNIX-CONNECT:$path'"
}
end() { # SIGNAL CODE
    kill -"$1" $relay
    code=0
    wait $relay || code=$?
    relay=
    [ "$code" = "$2" ] || fail "ended by $1 with $code: $(cat relay.log)"
}

# What passes, and how it ends
listen --backlog 1
head -c 3000000 /dev/urandom >bytes
socat -t 20 - "UNIX-CONNECT:$path" <bytes >back
cmp bytes back
expect 1 'cannot listen at 49000f0102/snmp in .*/provider: Address already in use' listen $place "tcp:127.0.0.1:$port"
end TERM 0
[ ! -e "$path" ] || fail "the socket is left"
listen
end KILL 137
[ -S "$path" ] || fail "no socket is left"
listen # where a killed one was
end INT 0
"$tarn_tp4" listen $place tcp:127.0.0.1:1 2>relay.log &
relay=$!
become "tarn-tp4: tcp:127.0.0.1:1: Connection refused" sh -c "socat -u /dev/null 'UNIX-CONNECT:$path'; head -n 1 relay.log"
end TERM 0

# What is printed
expect 0 '/provider/AA$' path /
expect 0 '/provider/BHNubXBJAA8BAg$' path 49000F0102/snmp
expect 0 '/provider/A2EvYklJ$' path 4949/a/b
expect 0 'Exit status' --help

# What is wrong
for arguments in "" path listen "listen $place" "listen $place tcp:127.0.0.1:1 --backlog" "path / /" bogus; do
    # shellcheck disable=SC2086 # the words of a command line
    expect 2 'see --help$' $arguments
done
expect 2 'should be like 49000f0102/snmp' path 4900
expect 2 'in pairs; there are 3' path 490/snmp
expect 2 'in pairs; there are 82' path "$(printf '%082d' 0)/snmp"
expect 2 '"-0" is not a number .* in hex digits' path -0/snmp
expect 2 'more than 15 characters' path 49/sixteen-letters-
expect 2 'should be like tcp:10' listen $place 127.0.0.1:1
expect 2 '"65536" is not a number from 1 to 65535' listen $place tcp:127.0.0.1:65536
expect 2 'has no address' listen $place tcp:nowhere.invalid:1
expect 2 '"-1" is not a number' listen $place tcp:127.0.0.1:1 --backlog -1
TARN_TP4_DIR=/nonexistent/provider expect 1 'No such file' listen $place tcp:127.0.0.1:1
code=0
"$tarn_tp4" path / >/dev/full 2>/dev/null || code=$?
[ "$code" = 1 ] || fail "a full disk went unnoticed"
