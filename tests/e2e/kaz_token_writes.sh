#!/usr/bin/env bash
# A user puts certificates on a KAZTOKEN, by label and by ID, gets them back exactly, also after a
# power cycle, and destroys a key pair, of which nothing is left.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card "--family kt --trace"
work_directory

label() { # ID
    echo "a1b2c3d4e5f60718293a4b5c6d7e8f$1"
}
issue() { # name, file
    openssl req -x509 -newkey rsa:2048 -nodes -keyout /dev/null -days 30 -outform DER \
        -subj "/C=KZ/ST=Region/L=City/O=Somebody/OU=Unit/CN=$1" -out "$2" 2>/dev/null
}
write() { # file, option, value
    client --login --pin 123456 --write-object "$1" --type cert "$2" "$3"
}
expect_certificate() { # ID, file
    client --read-object --type cert --id "$1" --output-file back
    expect_success
    expect_same back "$2"
}
issue First first.der
issue Second second.der

# The token wants the PIN first.
client --write-object first.der --type cert --id 03
expect_failure C_CreateObject CKR_FUNCTION_FAILED
client --read-object --type cert --id 03 --output-file none
[ "$status" -eq 1 ] || fail "there is a certificate already"

write first.der --id 03
expect_success
expect_certificate 03 first.der
write second.der --label "$(label 01)"
expect_success
expect_certificate 01 second.der
write first.der --label "$(label 02)"
expect_success
power_cycle
for pair in 01:second 02:first 03:first; do
    expect_certificate "${pair%:*}" "${pair#*:}.der"
done

# No key, no place: the client is told what is missing.
write first.der --label nobody
expect_failure C_CreateObject CKR_TEMPLATE_INCOMPLETE
write first.der --id 0304
expect_failure C_CreateObject CKR_ATTRIBUTE_VALUE_INVALID

# Whichever object is deleted, its whole pair goes.
client --login --pin 123456 --delete-object --type privkey --id 02
expect_success
expect_ids() { # IDs of the objects, in order
    client --list-objects
    expect_success
    expect_equal "$(sed -nE 's/^ *ID: *//p' out | tr '\n' ' ')" "$1" "IDs"
}
expect_ids "01 01 01 03 03 03 "
expect_equal "$(commands 'delete the selected file')" 3 "deleted files"
power_cycle
expect_ids "01 01 01 03 03 03 "
client --login --pin 123456 --sign --mechanism 0x84B5A002 --id 02 --input-file first.der \
    --output-file none
[ "$status" -eq 1 ] || fail "the destroyed key signs"

# The others work as before.
printf 'text\n' >letter
client --read-object --type pubkey --id 03 --output-file public.der
sign 03 letter signature 123456
expect_success
openssl dgst -sha256 -verify public.der -keyform DER -signature signature letter ||
    fail "the public key of 03 does not verify what 03 signed"
