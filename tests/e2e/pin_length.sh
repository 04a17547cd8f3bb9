#!/usr/bin/env bash
# A user who types too few or too many digits loses no attempt: such a PIN never gets to the card.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card --trace
work_directory

client --list-objects
expect_success
commands '' >without-login
for pin in 1 123 12345 12340000; do
    before=$(commands '')
    client --login --pin "$pin" --list-objects
    expect_failure C_Login CKR_ARGUMENTS_BAD
    expect_equal "$(($(commands '') - before))" "$(cat without-login)" \
        "commands, which are those of reading the objects"
done
expect_equal "$(commands 'verify the PIN')" 0 "PINs that the card was asked to verify"
client --login --pin 1234 --list-objects
expect_success
expect_equal "$(commands 'verify the PIN')" 1 "PINs that the card was asked to verify"
