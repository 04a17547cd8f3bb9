#!/usr/bin/env bash
# A user gets each certificate from the card exactly as it was issued, and the key's public half.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
if [ -z "${VELT_TEST_DATA:-}" ]; then
    VELT_TEST_DATA=$(mktemp -d)
    export VELT_TEST_DATA
    for key in 1 2; do
        openssl req -x509 -newkey rsa:2048 -nodes -keyout /dev/null -days 30 -outform DER \
            -subj "/C=KZ/O=Somebody/CN=Holder $key" -out "$VELT_TEST_DATA/$key.der" 2>/dev/null
    done
fi
in_world --card "--data-object 0102030405060708FF --certificate1 $VELT_TEST_DATA/1.der --certificate2 $VELT_TEST_DATA/2.der"
work_directory "$VELT_TEST_DATA"

client --read-object --type cert --id 87 --output-file first
expect_success
expect_same first "$VELT_TEST_DATA/1.der"
client --read-object --type cert --id 88 --output-file second
expect_success
expect_same second "$VELT_TEST_DATA/2.der"

client --read-object --type cert --label RSA20102030405060708FF --output-file by-label
expect_success
expect_same by-label second

# The key belongs to the card, not to these certificates: it verifies what the card signs.
client --read-object --type pubkey --id 88 --output-file public.der
expect_success
printf 'text\n' >letter
sign 88 letter signature
expect_success
openssl dgst -sha256 -verify public.der -keyform DER -signature signature letter ||
    fail "the public key of 88 does not verify what 88 signed"
