#!/usr/bin/env bash
# A user puts a new certificate on the card and gets it back exactly, also after a power cycle.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card "--empty-certificates"
work_directory

issue() { # name, file
    openssl req -x509 -newkey rsa:2048 -nodes -keyout /dev/null -days 30 -outform DER \
        -subj "/C=KZ/ST=Region/L=City/O=Somebody/OU=Unit/CN=$1" -out "$2" 2>/dev/null
}
write() { # file, ID
    client --login --pin 1234 --write-object "$1" --type cert --id "$2"
}
issue First first.der
issue Second second.der
issue Third third.der

client --read-object --type cert --id 87 --output-file none
[ "$status" -eq 1 ] || fail "there is a certificate already"

# The card wants the PIN first.
client --write-object first.der --type cert --id 87
expect_failure C_CreateObject CKR_FUNCTION_FAILED

write first.der 87
expect_success
head -n 1 out | grep -qx 'Created certificate:' || fail "no certificate created"
write second.der 88
expect_success
power_cycle
for pair in 87:first 88:second; do
    client --read-object --type cert --id "${pair%:*}" --output-file back
    expect_success
    expect_same back "${pair#*:}.der"
done

# A certificate takes the place of the one before; only the first byte of an ID counts.
write third.der 8700
expect_success
client --read-object --type cert --id 87 --output-file back
expect_success
expect_same back third.der
client --read-object --type cert --id 88 --output-file back
expect_success
expect_same back second.der

# There is no third place.
write first.der 89
expect_failure C_CreateObject CKR_ATTRIBUTE_VALUE_INVALID
client --read-object --type cert --id 87 --output-file back
expect_success
expect_same back third.der

# What is on the card cannot be deleted, though the client hears nothing of that.
client --login --pin 1234 --delete-object --type cert --id 87
expect_success
client --read-object --type cert --id 87 --output-file back
expect_success
expect_same back third.der
