#!/usr/bin/env bash
# A thief who guesses gets three attempts; after them the card stays locked, whatever the PIN.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world
work_directory

for pin in 0000 1111 2222; do
    client --login --pin "$pin" --list-objects
    expect_failure C_Login CKR_FUNCTION_FAILED
done
for pin in 1234 3333; do
    client --login --pin "$pin" --list-objects
    expect_failure C_Login CKR_PIN_LOCKED
done
printf 'text\n' >letter
sign 87 letter signature
expect_failure C_Login CKR_PIN_LOCKED
[ ! -s signature ] || fail "a locked card signed"
# What needs no PIN still works.
client --read-object --type cert --id 87 --output-file certificate.der
expect_success
