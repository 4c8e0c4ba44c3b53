#!/usr/bin/env bash
# The third argument names the sending program, the fourth what it says.
. "$(dirname "$0")/support.sh"
sender=$3 words=$4

use_directory "$sources/examples/hello.directory"
start hello_receiver "$scratch/hello.directory"
receiver=$process
wait_for_line hello_receiver "receiver is listening"
run "$sender" "$scratch/hello.directory"
end_well "$receiver" hello_receiver

expect_output hello_receiver <<EOT
receiver is listening
sender says: $words
EOT
expect_output "$sender" <<EOT
receiver answers: Hello yourself
EOT
expect_no_records hello_receiver
expect_no_records "$sender"

# Without a receiver the sender says why it cannot send.
timeout 60 "$programs/$sender" "$scratch/hello.directory" 2>"$scratch/alone.err" && fail "$sender sent to nobody"
grep --quiet --fixed-strings 'Unable to send to any receiver address' "$scratch/alone.err" || fail "$sender did not say why"
