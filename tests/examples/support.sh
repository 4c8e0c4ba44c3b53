# shellcheck shell=bash disable=SC2034
# Read by the drivers of the examples: a scratch folder, programs in the background, and what must be in their output.
# A driver is called with the folder of the programs and the root of the sources.
set -euo pipefail
programs=$1 sources=$2
readonly patience=200  # tenths of a second

scratch=$(mktemp -d "${TMPDIR:-/tmp}/vekmsg-test.XXXXXX")

is_running() {
    [[ $'\n'$(jobs -pr)$'\n' == *$'\n'"$1"$'\n'* ]]
}

clean_up() {
    local process
    for process in $(jobs -pr); do kill -KILL "$process" 2>/dev/null || true; done
    rm -rf "$scratch"
}
trap clean_up EXIT

fail() {
    printf 'FAILED: %s\n' "$1" >&2
    local file
    for file in "$scratch"/*.out "$scratch"/*.err; do
        [ -e "$file" ] && printf -- '--- %s\n' "${file##*/}" >&2 && cat "$file" >&2
    done
    exit 1
}

# use_directory FILE: a copy of an example's directory file with its sockets in the scratch folder.
use_directory() {
    sed "s|/tmp/vekmsg-[a-z]*/|$scratch/|" "$1" >"$scratch/${1##*/}"
    grep --quiet --fixed-strings "$scratch/" "$scratch/${1##*/}" || fail "$1 names no socket"
}

# start NAME ARGUMENT...: runs a program in the background; its id is in `process`.
start() {
    : >"$scratch/$1.out"  # what an earlier run has written must not be taken for this one's
    "$programs/$1" "${@:2}" <&0 >"$scratch/$1.out" 2>"$scratch/$1.err" &
    process=$!
}

# run NAME ARGUMENT...: runs a program to its end, which must be a good one.
run() {
    timeout 60 "$programs/$1" "${@:2}" >"$scratch/$1.out" 2>"$scratch/$1.err" || fail "$1 ended with $?"
}

# wait_for_line NAME LINE: until the program in the background has written the line.
wait_for_line() {
    local waited
    for ((waited = 0; waited < patience; ++waited)); do
        grep --quiet --line-regexp --fixed-strings "$2" "$scratch/$1.out" && return
        sleep 0.1
    done
    fail "$1 never wrote \"$2\""
}

# end_well PROCESS NAME: waits for the end of a program in the background, which must be a good one.
end_well() {
    local waited
    for ((waited = 0; waited < patience; ++waited)); do
        is_running "$1" || break
        sleep 0.1
    done
    is_running "$1" && fail "$2 did not end"
    wait "$1" || fail "$2 ended with $?"
}

expect_output() {
    diff "$scratch/$1.out" - || fail "the output of $1 differs"
}

expect_no_records() {
    [ ! -s "$scratch/$1.err" ] || fail "$1 wrote to standard error"
}
