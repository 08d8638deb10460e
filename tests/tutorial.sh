#!/bin/sh
# Runs the tutorial's program with a thermometer as the tutorial makes one.
# Usage: tutorial.sh PROGRAM TUTORIAL
set -eu

program=$1
thermometer=$(sed -n "s/^socat TCP-LISTEN:4001\(.*\)/socat -d -d TCP-LISTEN:0\1/p" "$2")
[ -n "$thermometer" ] || { echo "the tutorial makes no thermometer"; exit 1; }

work=$(mktemp -d)
cd "$work"
sh -c "exec $thermometer" 2>log &
element=$!
trap 'kill $element; rm -rf "$work"' EXIT
until port=$(sed -n 's/.*listening on .*:\([0-9]*\)$/\1/p' log) && [ -n "$port" ]; do
    kill -0 $element
    sleep 0.05
done

said=$("$program" "$port" 2>/dev/null)
[ "$said" = "The thermometer says 21.5" ] || { echo "it says: $said"; exit 1; }
