#!/bin/sh
# Runs the Modbus command on the device of a laboratory, and looks at what it prints and how it ends.
# Usage: laboratory SLAVE commands.sh MODBUS
set -eu

modbus=$1
failed=0
patience=10 # seconds for what works: a loaded machine may take its time

# expect CODE PATTERN ARGUMENT...: the exit status, and an extended regular expression for all that is printed.
expect() {
    code=$1 pattern=$2
    shift 2
    got=0
    output=$("$modbus" "$@" 2>&1 </dev/null) || got=$?
    if [ "$got" != "$code" ] || ! printf '%s' "$output" | tr '\n' '~' | grep -Eq -e "$pattern"; then
        printf 'modbus %s\nended with %s, not %s, or what it printed does not match %s:\n%s\n\n' "$*" "$got" "$code" "$pattern" "$output"
        failed=1
    fi
}

# What works
expect 0 '^registers 1 = 1001~registers 2 = 1002$' -p "$TARN_LINE" -t "$patience" read registers 1 2
expect 0 '^inputs 0 = 0~inputs 1 = 1$' -p "$TARN_LINE" -t "$patience" -b 115200 read inputs 0 2
expect 0 '^holding 5: 3 written$' -p "$TARN_LINE" -t "$patience" write holding 5 7 8 65535
expect 0 '^holding 4 = 0~holding 5 = 7~holding 6 = 8~holding 7 = 65535$' -p "$TARN_LINE" -t "$patience" read holding 4 4
expect 0 '^coil 9: 2 written$' -p "$TARN_LINE" -t "$patience" write coil 9 1 0
expect 0 '^coil 11: 1 written$' -p "$TARN_LINE" -t "$patience" write coil 11 1
expect 0 '^coils 9 = 1~coils 10 = 0~coils 11 = 1$' -p "$TARN_LINE" -t "$patience" read coils 9 3
expect 0 '^(registers 0 = [0-9]+~?){3}$' -p "$TARN_LINE" -t "$patience" watch registers 0 1 -i 0.05 -n 3
expect 0 'Exit status' --help

# What devices refuse, or leave unanswered
expect 1 '^unit 1: illegal data address$' -p "$TARN_LINE" -t "$patience" read holding 99 2
expect 1 '^unit 9: no answer$' -p "$TARN_LINE" -u 9 -t 0.3 read holding 0

# Ports that are none
expect 1 'errno=2.*/dev/nosuch: the line cannot be opened' -p /dev/nosuch -t 0.2 read holding 0
expect 1 'errno=25' -p /tmp -t 0.2 read holding 0
expect 1 'errno=25' -p "$0" -t 0.2 read holding 0
expect 1 'errno=36' -p "$(printf '%5000s' x | tr ' ' x)" -t 0.2 read holding 0
expect 1 'to 12345 baud, errno=22' -p "$TARN_LINE" -b 12345 -t 0.2 read holding 0
expect 1 'the baud rate is 0' -p "$TARN_LINE" -b 0 -t 0.2 read holding 0
expect 1 'the baud rate is -1' -p "$TARN_LINE" -b -1 -t 0.2 read holding 0
"$modbus" -p "$TARN_LINE" watch registers 0 1 -i 0.05 >"$TARN_LAB/watched" &
watch=$!
until grep -q registers "$TARN_LAB/watched"; do
    kill -0 "$watch"
    sleep 0.05
done
expect 1 'errno=16' -p "$TARN_LINE" -t 0.2 read holding 0
kill -INT "$watch"
code=0
wait "$watch" || code=$?
[ "$code" = 130 ] || { echo "an interrupted watch ended with $code"; failed=1; }

# What users get wrong
expect 2 '--port is required' read holding 0
expect 2 'not in' -p "$TARN_LINE" read bogus 0
expect 2 'not from 1 to 125' -p "$TARN_LINE" read holding 0 126
expect 2 'the last one is 65535' -p "$TARN_LINE" read holding 65535 2
expect 2 'unit is not from 1 to 247' -p "$TARN_LINE" -u 0 read holding 0
expect 2 'not in range' -p "$TARN_LINE" write holding 0 70000
expect 2 'subcommand is required' -p "$TARN_LINE"

# A device that goes away in the middle does not hold up the end.
kill "$(cat "$TARN_LAB/line.pid")"
expect 1 'the line cannot be opened' -p "$TARN_LINE" -t 0.3 read holding 0
exit $failed
