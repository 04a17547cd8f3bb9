#!/usr/bin/env bash
# A user without a reader, or without the PC/SC service, is told so at once.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --no-card
work_directory

service=$(tr -cd '0-9' </run/pcscd/pcscd.pid)
kill "$service"
while kill -0 "$service" 2>/dev/null; do
    sleep 0.02
done

client --list-slots
expect_failure 'C_GetSlotList\(NULL\)' CKR_FUNCTION_FAILED

: >no-readers
pcscd --foreground --config "$PWD/no-readers" >service.log 2>&1 &
await_presence /run/pcscd/pcscd.comm
client --list-slots
[ "$status" -eq 1 ] || fail "the client ended with status $status"
expect_output <<<"Available slots:"
expect_equal "$(cat err)" "No slots." "verdict"
