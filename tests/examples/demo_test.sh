#!/usr/bin/env bash
# The third argument is a sensor that measures something else than the panel expects.
. "$(dirname "$0")/support.sh"
wrong_sensor=$3
demo=$sources/examples/demo/run
mkdir "$scratch/tmp"

# demo_ends_with CODE PROGRAMS: the demo's output is in demo.out and demo.err.
demo_ends_with() {
    local result=0
    TMPDIR=$scratch/tmp timeout 100 "$demo" "${@:2}" >"$scratch/demo.out" 2>"$scratch/demo.err" || result=$?
    [ "$result" = "$1" ] || fail "the demo ended with $result and not $1"
    [ -z "$(ls -A "$scratch/tmp")" ] || fail "the demo left files behind"
}

printf '%s\n' "--- the demo shows what it says"
demo_ends_with 0 "$programs"
expect_no_records demo
tail -n 5 "$scratch/demo.out" | sed 's/port [0-9]* of/port NUMBER of/' >"$scratch/end.out"
expect_output end <<'EOT'
1. Over a local socket, the panel sent the sensor a request and got its reading.
2. The same over TCP, on port NUMBER of 127.0.0.1.
3. The panel pinged the sensor: the library answered, the sensor's code was not asked.
4. A note went through the router and reached the sensor with time-to-live 2, sent with 3.
5. Every field of every message was compared where it arrived: all were as they were sent.
EOT

# Who printed, with the time-to-live of what was printed, in order.
sed -n 's/^<!-- \(.*\) -->$/\1/p; s/.*<vek:TimeToLive>\(.*\)<.*/\1/p' "$scratch/demo.out" | paste -sd ' \n' >"$scratch/order.out"
expect_output order <<'EOT'
panel  sends 3
sensor  received 3
sensor  sends 3
panel  received 3
panel-tcp  sends 3
sensor  received 3
sensor  sends 3
panel-tcp  received 3
panel  sends 3
sensor  received 3
sensor  sends 3
panel  received 3
panel-far  sends 3
router  received, to be forwarded 3
router  forwards 2
sensor  received 2
sensor  sends 3
panel  received 3
EOT

printf '%s\n' "--- a message that differs in one number fails it"
mkdir "$scratch/programs"
ln -s "$programs/panel" "$programs/router" "$scratch/programs"
ln -s "$wrong_sensor" "$scratch/programs/sensor"
demo_ends_with 1 "$scratch/programs"
grep --quiet --line-regexp --fixed-strings 'mismatch: a sample is 1 and not 2150' "$scratch/demo.err" ||
    fail "nothing said which field differs"

printf '%s\n' "--- a router that does nothing fails it"
rm "$scratch/programs"/*
ln -s "$programs/panel" "$programs/sensor" "$scratch/programs"
ln -s /bin/true "$scratch/programs/router"
demo_ends_with 1 "$scratch/programs"

printf '%s\n' "--- it needs its programs"
demo_ends_with 2 "$scratch"
demo_ends_with 2
demo_ends_with 2 --unknown
demo_ends_with 0 --help
grep --quiet '^Exit codes:' "$scratch/demo.out" || fail "no exit codes in the help"
timeout 10 "$sources/scripts/demo" --help >"$scratch/help.out" || fail "scripts/demo has no help"
grep --quiet '^Exit codes:' "$scratch/help.out" || fail "no exit codes in the help of scripts/demo"
