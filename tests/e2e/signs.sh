#!/usr/bin/env bash
# A user signs with either key of the card, and others verify it with the certificate.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card --trace
work_directory

printf 'Pay to the bearer\n' >letter
made=0
for id in 87 88; do
    client --read-object --type cert --id "$id" --output-file certificate.der
    expect_success
    openssl x509 -inform DER -in certificate.der -noout -pubkey >public.pem
    sign "$id" letter signature
    expect_success
    openssl dgst -sha256 -verify public.pem -signature signature letter ||
        fail "the signature of key $id does not verify"
    # One signature asked for is one signature made.
    made=$((made + 1))
    expect_equal "$(commands 'sign 51 bytes')" "$made" "signatures that the card was asked for"
    cp signature "signature-$id"
done
! cmp -s signature-87 signature-88 || fail "both keys make the same signature"

# The mechanism may be left to the client.
client --login --pin 1234 --sign --id 88 --input-file digest-info --output-file by-default
expect_success
expect_same by-default signature-88

# Digests are the client's business.
client --login --pin 1234 --sign --mechanism SHA256-RSA-PKCS --id 87 --input-file letter \
    --output-file none
expect_failure C_SignInit CKR_MECHANISM_INVALID
