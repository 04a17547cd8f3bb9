#!/usr/bin/env bash
# A user with a reader but no card is told that the slot is empty.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --no-card
work_directory

client --list-slots
expect_success
expect_output <<'END'
Available slots:
Slot 0 (0x0): Velt Virtual Reader 00 00
  (empty)
Slot 1 (0x1): Velt Virtual Reader 00 01
  (empty)
END
for request in --list-objects --list-mechanisms; do
    client "$request"
    [ "$status" -eq 1 ] || fail "$request ended with status $status"
    grep -qx 'No slot with a token was found.' err || fail "$request does not say what is missing"
done

# A card that comes later is there at the next listing.
"$VELT_CARDSIM" --port 35964 --notice "$PWD/noticed" 2>/dev/null &
await_presence noticed
client --list-slots
expect_success
expect_equal "$(grep -n 'token label' out)" "5:  token label        : Kazakhstan IDCard" "token"
