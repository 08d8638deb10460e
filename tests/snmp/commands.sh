#!/bin/sh
# Runs nemanager's commands on the elements of a laboratory and looks at what they print and how they end.
# Usage: laboratory commands.sh NEMANAGER
set -eu

nemanager=$1
elements=$TARN_LAB/elements
ne1=$(cat "$TARN_LAB/ne1.address")
tls=$(sed -n 's/^ne3 *\(tls:[^ ]*\).*/\1/p' "$elements")
failed=0

# expect CODE PATTERN ARGUMENT...: the exit status, and an extended regular expression for all that is printed.
expect() {
    code=$1 pattern=$2
    shift 2
    got=0
    output=$("$nemanager" "$@" 2>&1 </dev/null) || got=$?
    if [ "$got" != "$code" ] || ! printf '%s' "$output" | tr '\n' '~' | grep -Eq -e "$pattern"; then
        printf 'nemanager %s\nended with %s, not %s, or what it printed does not match %s:\n%s\n\n' "$*" "$got" "$code" "$pattern" "$output"
        failed=1
    fi
}

name=1.3.6.1.2.1.1.5.0
location=1.3.6.1.2.1.1.6.0

# What works
expect 0 '^ne1 \.1\.3\.6\.1\.2\.1\.1\.1\.0 = "Element ne1 .*~ne2 .*"Element ne2 .*~ne3 .*"Element ne3 .*~ne4 .*"Element ne4 [^~]*$' -f "$elements" get 1.3.6.1.2.1.1.1.0
expect 0 '^x .*= "\[new, name\]"$' -e "x=$ne1" set $name s "[new, name]"
expect 0 '= "-x"$' -e "$ne1" set -- $name s -x
expect 0 '= "new name"$' set $name s "new name" -e "$ne1"
expect 0 '= "new name"$' -e "$ne1" get $name
expect 0 '^[^~]*1\.1\.0 = .*1\.2\.0 = .*1\.1\.9\.1\.4\.1 = [0-9]+' -e "$ne1" walk 1.3.6.1.2.1.1 --repetitions 3
expect 0 '^[^~]*5\.0 = "new name"$' -e "$ne1" walk $name
expect 0 '^[^~]* = No Such Object' -e "$ne1" get 1.3.6.1.2.1.1.99.0
expect 0 '^([0-9:]{8} ne[1-4] \.1\.3\.6\.1\.2\.1\.1\.6\.0 = "Shelf 1"~?){8}$' -f "$elements" watch $location -n 2 -i 0.2
expect 0 '= "Element ne3' -e "$tls" --authority "$TARN_LAB/authority.pem" --peer ne3.example get 1.3.6.1.2.1.1.1.0
expect 0 '^tp4:49000f0102/snmp .*= "Element ne4' -e tp4:49000f0102/snmp get 1.3.6.1.2.1.1.1.0
expect 0 '^x .*= "Element ne4' -e x=tp4:49000F0102/snmp get 1.3.6.1.2.1.1.1.0
expect 0 'Exit status' --help

# What elements refuse, or leave unanswered
expect 1 'notWritable' -e "$ne1" set $location s x
expect 1 'no answer$' -e "$ne1" -c wrong -t 1 get $name
expect 1 'ne1 .* = .*x: no answer' -f "$elements" -e "x=$ne1" -c wrong -t 1 get $name
expect 1 'no connection to tcp:127\.0\.0\.1:1 within 1 s' -e tcp:127.0.0.1:1 -t 1 get $name
expect 1 'no connection to tp4:00/a=b within 1 s' -e tp4:00/a=b -t 1 get $name
expect 1 "certificate is refused: unable to get local issuer .*no connection" -e "$tls" -t 3 get $name
expect 1 "hostname mismatch, expected other" -e "$tls" --authority "$TARN_LAB/authority.pem" --peer other -t 3 get $name
expect 1 '^([0-9:]{8} x: not connected~?){2}$' -e x=tcp:127.0.0.1:1 -t 1 watch $name -n 2 -i 0.1

# What users get wrong
expect 2 'A subcommand is required; see --help'
expect 2 'no element is given' get $name
expect 2 '"1\.3\.x" is no object identifier' -e "$ne1" get 1.3.x
expect 2 '"5" is no value of type "q"' -e "$ne1" set $name q 5
expect 2 'value is required' -e "$ne1" set $name s
expect 2 'the interval is no number' -e "$ne1" watch $name -i nan
expect 2 'is no address; it should be like' -e udp:127.0.0.1:161 get $name
expect 2 'like tp4:49000f0102/snmp' -e tp4:4900 get $name
expect 2 'not 0 to 80 hex digits' -e tp4:490/snmp get $name
expect 2 'not 0 to 80 hex digits' -e tp4:4g/snmp get $name
expect 2 'the selector has more than 15' -e tp4:49/sixteen-letters- get $name
expect 2 'the port "99999" is not a number' -e tcp:127.0.0.1:99999 get $name
expect 2 'has no IPv4 address' -e tcp:nowhere.invalid:161 get $name
expect 2 'the authority "/nonexistent" cannot be used' -e "$tls" --authority /nonexistent get $name
printf '# fine\nne1 %s\nne2 tcp:127.0.0.1:1 colour=blue\n' "$ne1" >"$TARN_LAB/wrong"
printf 'ne1 %s authority=x\n' "$ne1" >"$TARN_LAB/unsecured"
expect 2 'unsecured:1: authority and name are for tls' -f "$TARN_LAB/unsecured" get $name
expect 2 'two elements have the name "a"' -e "a=$ne1" -e "a=$ne1" get $name
expect 2 'leave --verbose out' -v --settings "$elements" -e "$ne1" get $name
expect 2 'is no command' -e "$ne1" bogus
expect 2 "wrong:3: \"colour=blue\" is none of" -f "$TARN_LAB/wrong" get $name
expect 2 'elements' -f /nonexistent get $name

# What cannot be written is not lost in silence.
if "$nemanager" -e "$ne1" get $name >/dev/full 2>/dev/null; then
    echo "a full disk went unnoticed"
    failed=1
fi

# A terminal of so many columns and rows
drawn_on() {
    script -qec "stty cols $1 rows $2; \"$nemanager\" -f \"$elements\" watch $name $location -n 1" /dev/null </dev/null
}
drawn_on 20 24 | grep -q 'ne4 .*"Shelf 1' || { echo "watch does not draw on a narrow terminal"; failed=1; }
drawn_on 100 4 | grep -q 'and 2 more' || { echo "watch does not fit a low terminal"; failed=1; }

# An element that takes connections and says nothing holds the end up no longer than its timeout.
socat -u TCP-LISTEN:$((${ne1##*:} + 8)),bind=127.0.0.1,reuseaddr,fork OPEN:/dev/null &
silent=$!
trap 'kill $silent' EXIT
begin=$(date +%s)
expect 1 'not connected~.*not connected' -e "a=tls:127.0.0.1:$((${ne1##*:} + 8))" -e "b=tls:127.0.0.1:$((${ne1##*:} + 8))" -t 1 get $name
[ $(($(date +%s) - begin)) -lt 15 ] || { echo "the end took too long"; failed=1; }

# A trap is shown, an inform answered.
"$nemanager" -f "$TARN_LAB/road" listen >"$TARN_LAB/heard" 2>&1 &
listener=$!
until grep -q 'road connected' "$TARN_LAB/heard" && snmpinform -v2c -c public -r 0 -t 5 $(cat "$TARN_LAB/road.address") 4711 1.3.6.1.6.3.1.1.5.3 2>/dev/null; do
    kill -0 "$listener"
    sleep 0.1
done
grep -q 'road informs: .1.3.6.1.2.1.1.3.0 = 4711;' "$TARN_LAB/heard" || { echo "the inform is not shown"; failed=1; }
kill -INT "$listener"
code=0
wait "$listener" || code=$?
[ "$code" = 130 ] || { echo "an interrupted listen ended with $code"; failed=1; }

# An interrupt ends it, with what is under way.
"$nemanager" -f "$elements" watch $name -i 0.1 >"$TARN_LAB/watched" 2>&1 &
watch=$!
until grep -q ne4 "$TARN_LAB/watched"; do
    kill -0 "$watch"
    sleep 0.05
done
kill -INT "$watch"
code=0
wait "$watch" || code=$?
[ "$code" = 130 ] || { echo "an interrupted watch ended with $code"; failed=1; }

exit $failed
