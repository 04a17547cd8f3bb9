#!/usr/bin/env bash
# A user who mistypes the PIN is refused, and with the right one goes on as if nothing had been.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card --trace
work_directory

for attempt in 1 2; do
    client --login --pin 9999 --list-objects
    expect_failure C_Login CKR_FUNCTION_FAILED
    expect_equal "$(commands 'verify the PIN')" "$attempt" "PINs that the card was asked to verify"
done
printf 'text\n' >letter
sign 87 letter signature
expect_success
# The right PIN gives all attempts back.
client --login --pin 9999 --list-objects
expect_failure C_Login CKR_FUNCTION_FAILED
sign 87 letter again
expect_success
expect_same again signature
