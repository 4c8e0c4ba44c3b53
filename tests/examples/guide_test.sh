#!/usr/bin/env bash
. "$(dirname "$0")/support.sh"

for component in shop kitchen relay far; do use_directory "$sources/examples/guide/$component.directory"; done
start kitchen "$scratch/kitchen.directory"
kitchen=$process
start relay "$scratch/relay.directory"
wait_for_line kitchen "kitchen is open"
wait_for_line relay "relay is open"
run shop "$scratch"
run shop_c "$scratch/shop.directory"

# What these have sent without waiting for an answer has arrived when the kitchen has said so.
wait_for_line kitchen "far orders 2 soup, urgent, 2 extras, seal of 3 bytes, time-to-live 2"
wait_for_line kitchen "not an order: kitchen answer 1.0"
kill -TERM "$kitchen"
end_well "$kitchen" kitchen

# Two of the messages come on connections of their own, so that only the set of lines is certain.
sort "$scratch/kitchen.out" >"$scratch/sorted.out"
expect_output sorted < <(sort <<EOT
kitchen is open
shop orders 2 soup, urgent, 2 extras, seal of 3 bytes, time-to-live 3
shop orders 2 soup, urgent, 2 extras, seal of 3 bytes, time-to-live 3
shop orders 2 soup, urgent, 2 extras, seal of 3 bytes, time-to-live 3
not an order: an answer sent back
far orders 2 soup, urgent, 2 extras, seal of 3 bytes, time-to-live 2
far orders 2 soup, urgent, 2 extras, seal of 3 bytes, time-to-live 2
runner orders 2 soup, urgent, 2 extras, seal of 3 bytes, time-to-live 3
shop_c orders 1 pie, not urgent, 1 extras, seal of 3 bytes, time-to-live 3
not an order: kitchen answer 1.0
EOT
)
expect_output shop_c <<EOT
1 pie, 1 extras
kitchen answers: pie is coming
record 3 from vekmsg_impl.cpp: VekmsgTerminalImpl_::sendMessage() null sp_message
all done
EOT
[ "$(grep --count --fixed-strings '<!-- shop  order desk -->' "$scratch/shop.out")" = 2 ] || fail "not two messages traced"
sed -n '/^<!--/,/^<\/vek:Message>$/p; /^<\/vek:Message>$/q' "$scratch/shop.out" >"$scratch/traced.out"
expect_output traced <"$sources/examples/guide/trace.xml"
sed '1,/^<\/vek:Message>$/d; 1,/^<\/vek:Message>$/d' "$scratch/shop.out" >"$scratch/rest.out"
expect_output rest <<EOT

the pipe is ready
a terminal is ready
kitchen answers: soup is coming
kitchen answers: soup is coming
kitchen answers: soup is coming
record 3 from vekmsg_impl.cpp: Can't send a message to itself (shop)
record 7 from vekmsg_impl.cpp: VekmsgConnection_::start() Can't start without a socket
all done
EOT
for program in kitchen shop shop_c; do expect_no_records "$program"; done

# The answer through the relay came on a connection of its own.
settled='vekmsg warning: Duplicate connections between relay and kitchen. Closing the old '
[ "$(cut -d '[' -f 1 "$scratch/relay.err")" = "$settled" ] || fail "the relay did not settle two connections"
