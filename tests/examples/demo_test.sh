#!/usr/bin/env bash
# The third argument is a sensor that measures something else than the panel expects, the fourth the vekmsg command
# where it is built.
. "$(dirname "$0")/support.sh"
wrong_sensor=$3 command=${4-}
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

if [ -n "$command" ]; then
    printf '%s\n' "--- the command asks what the panel asks"
    demo_ends_with 0 "$programs" "$command"
    expect_no_records demo
    sed -n 's/^\$ vekmsg \([a-z]*\) .*/\1/p' "$scratch/demo.out" >"$scratch/verbs.out"
    expect_output verbs <<'EOT'
list
ping
call
check
EOT
    [ "$(grep --count ' answers (' "$scratch/demo.out")" = 4 ] || fail "not each address answered, twice"
    grep --quiet --line-regexp '1 sent, 1 received, 0 lost' "$scratch/demo.out" || fail "the ping is lost"
    [ "$(grep --count '<vek:Sender>vekmsg-[0-9]*<' "$scratch/demo.out")" = 1 ] ||
        fail "the sensor shows something else of the command's than its request"
    tail -n 1 "$scratch/demo.out" >"$scratch/end.out"
    expect_output end <<'EOT'
6. The command vekmsg listed, pinged and checked, and got the same reading as the panel.
EOT

    # A panel that does nothing leaves the rest to the command; the router's watch must not end it before.
    printf '%s\n' "--- a wrong answer to the command fails it"
    rm "$scratch/programs"/*
    ln -s /bin/true "$scratch/programs/panel"
    ln -s "$wrong_sensor" "$scratch/programs/sensor"
    # shellcheck disable=SC2016
    printf '%s\n' '#!/bin/sh' 'trap "exit 0" TERM' 'echo ready >"$2"' 'while :; do sleep 0.1; done' \
        >"$scratch/programs/router"
    chmod +x "$scratch/programs/router"
    demo_ends_with 1 "$scratch/programs" "$command"
    grep --quiet "the command did not get the sensor's reading" "$scratch/demo.err" ||
        fail "another thing failed it"

    printf '%s\n' "--- what the command asks does not count for the panel's"
    ln -sf "$programs/sensor" "$scratch/programs/sensor"
    demo_ends_with 1 "$scratch/programs" "$command"
    grep --quiet --line-regexp --fixed-strings 'mismatch: the requests is 0 and not 2' "$scratch/demo.err" ||
        fail "the sensor counted the command's request"

    printf '%s\n' "--- a command that fails fails it"
    demo_ends_with 1 "$programs" /bin/false
    demo_ends_with 2 "$programs" "$scratch/missing"
fi

printf '%s\n' "--- it needs its programs"
demo_ends_with 2 "$scratch"
demo_ends_with 2
demo_ends_with 2 --unknown
demo_ends_with 0 --help
grep --quiet '^Exit codes:' "$scratch/demo.out" || fail "no exit codes in the help"
timeout 10 "$sources/scripts/demo" --help >"$scratch/help.out" || fail "scripts/demo has no help"
grep --quiet '^Exit codes:' "$scratch/help.out" || fail "no exit codes in the help of scripts/demo"
