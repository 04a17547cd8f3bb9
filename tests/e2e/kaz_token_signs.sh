#!/usr/bin/env bash
# A user signs with a KAZTOKEN's RSA and GOST keys, and others verify it with the certificates. The
# token also gives random bytes.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card "--family kt --trace"
work_directory

public_key() { # ID: the key in the certificate of a pair, in the file public.pem
    client --read-object --type cert --id "$1" --output-file certificate.der
    expect_success
    openssl x509 -inform DER -in certificate.der -noout -pubkey -engine gost >public.pem 2>/dev/null
    [ -s public.pem ] || fail "no public key in the certificate of $1"
}

# RSA, of which the token gets the padded block in two parts.
printf 'Pay to the bearer\n' >letter
public_key 01
sign 01 letter signature 123456
expect_success
openssl dgst -sha256 -verify public.pem -signature signature letter ||
    fail "the signature of key 01 does not verify"
expect_equal "$(commands 'sign, first part: 51 bytes')" 1 "first parts"
expect_equal "$(commands 'sign 205 bytes')" 1 "last parts"
client --read-object --type pubkey --id 03 --output-file public.der
expect_success
sign 03 letter small 123456
expect_success
openssl dgst -sha256 -verify public.der -keyform DER -signature small letter ||
    fail "the signature of key 03 does not verify"
expect_equal "$(stat -c %s signature small | tr '\n' ' ')" "256 128 " "lengths of the signatures"

# GOST, of a digest that is the client's business.
gost_verifies() { # digest, signature
    openssl pkeyutl -verify -engine gost -pubin -inkey public.pem -in "$1" -sigfile "$2" 2>&1 |
        grep -q 'Signature Verified Successfully'
}
gost_sign() { # digest, signature
    client --login --pin 123456 --sign --mechanism 0x84B5A002 --id 02 --input-file "$1" \
        --output-file "$2"
}
public_key 02
openssl dgst -sha256 -binary letter >digest
openssl dgst -sha256 -binary certificate.der >other-digest
gost_sign digest gost
expect_success
expect_equal "$(stat -c %s gost)" 64 "length of a GOST signature"
gost_verifies digest gost || fail "the GOST signature does not verify"
! gost_verifies other-digest gost || fail "the GOST signature verifies for another digest"
expect_equal "$(commands 'sign 32 bytes')" 1 "GOST signatures"
gost_sign letter none
[ "$status" -eq 1 ] || fail "the token signs what is no digest"

# Random bytes.
for name in one other; do
    client --generate-random 32 --output-file "$name"
    expect_success
    expect_equal "$(stat -c %s "$name")" 32 "random bytes"
done
! cmp -s one other || fail "the same random bytes twice"
expect_equal "$(commands 'get 32 bytes at random')" 2 "commands for random bytes"
