#!/usr/bin/env bash
. "$(dirname "$0")/support.sh"

use_directory "$sources/examples/hello.directory"
mkfifo "$scratch/commands"
exec {commands}<>"$scratch/commands"
start event_loop "$scratch/hello.directory" <"$scratch/commands"
loop=$process
wait_for_line event_loop "receiver is listening"
wait_for_line event_loop "the timer runs"
run hello_sender "$scratch/hello.directory"
wait_for_line event_loop "a message from sender"
printf 'quit\n' >&"$commands"
end_well "$loop" event_loop

expect_output hello_sender <<EOT
receiver answers: Hello
EOT
expect_no_records event_loop
