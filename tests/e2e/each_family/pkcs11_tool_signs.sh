#!/usr/bin/env bash
# A user signs with pkcs11-tool, with RSA and GOST keys, and others verify it with the certificates.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "--family $family --trace"
work_directory
results_of pkcs11-tool opensc "$family"

printf 'Pay to the bearer\n' >letter
printf 'Pay to the sender\n' >forged
client --read-object --type cert --id "$certified" --output-file certificate.der
expect_success
openssl x509 -inform DER -in certificate.der -noout -pubkey >public.pem

row signing ok "--sign --mechanism RSA-PKCS --id"
sign "$certified" letter signature "$pin"
expect_success
verify=(openssl dgst -sha256 -verify public.pem -signature signature)
"${verify[@]}" letter || fail "the signature does not verify"
! "${verify[@]}" forged || fail "the signature verifies for another text"
expect_equal "$(signatures)" 1 "signatures that the token was asked for"

row signing ok "--sign --label, without --mechanism"
label=$(sed -nE 's/^ *label: *//p' "$root/tests/e2e/expected/$family.objects" | head -n 1)
client --login --pin "$pin" --sign --label "$label" --input-file digest-info \
    --output-file by-label
expect_success
expect_same by-label signature
expect_equal "$(signatures)" 2 "signatures that the token was asked for"

if [ -n "$uncertified" ]; then
    row signing ok "--sign with an RSA key of 1,024 bits, verified with --read-object --type pubkey"
    client --read-object --type pubkey --id "$uncertified" --output-file public.der
    expect_success
    sign "$uncertified" letter small "$pin"
    expect_success
    expect_equal "$(stat -c %s small)" 128 "length of the signature"
    openssl dgst -sha256 -verify public.der -keyform DER -signature small letter ||
        fail "the signature with 1,024 bits does not verify"
fi

row signing no "--sign --mechanism SHA256-RSA-PKCS"
made=$(signatures)
client --login --pin "$pin" --sign --mechanism SHA256-RSA-PKCS --id "$certified" \
    --input-file letter --output-file none
expect_failure C_SignInit CKR_MECHANISM_INVALID
expect_equal "$(signatures)" "$made" "signatures that the token was asked for"

if [ -n "$gost_id" ]; then
    row signing ok "--sign --mechanism $gost_mechanism (GOST)"
    client --read-object --type cert --id "$gost_id" --output-file gost.der
    expect_success
    openssl x509 -inform DER -in gost.der -noout -pubkey -engine gost >gost.pem 2>/dev/null
    [ -s gost.pem ] || fail "no GOST key in the certificate"
    openssl dgst -sha256 -binary letter >digest
    openssl dgst -sha256 -binary forged >other-digest
    client --login --pin "$pin" --sign --mechanism "$gost_mechanism" --id "$gost_id" \
        --input-file digest --output-file gost
    expect_success
    expect_equal "$(stat -c %s gost)" 64 "length of the GOST signature"
    gost_verifies() { # digest
        openssl pkeyutl -verify -engine gost -pubin -inkey gost.pem -in "$1" -sigfile gost 2>&1 |
            grep -q 'Signature Verified Successfully'
    }
    gost_verifies digest || fail "the GOST signature does not verify"
    ! gost_verifies other-digest || fail "the GOST signature verifies for another digest"

    row signing no "--sign --mechanism with the other number of the GOST mechanism"
    other=0x84B5A002
    [ "$gost_mechanism" != "$other" ] || other=0xFFFFFFFF84B5A002
    client --login --pin "$pin" --sign --mechanism "$other" --id "$gost_id" --input-file digest \
        --output-file none
    expect_failure C_SignInit CKR_MECHANISM_INVALID
fi

case $family in
kt | jc) row random ok "--login --generate-random" ;;
*) row random part "--login --generate-random" ;;
esac
before=$(commands 'random')
for name in one other; do
    client --login --pin "$pin" --generate-random 32 --output-file "$name"
    expect_success
    expect_equal "$(stat -c %s "$name")" 32 "random bytes"
done
case $family in
kt | jc)
    expect_equal $(($(commands 'random') - before)) 2 "commands for random bytes"
    ! cmp -s one other || fail "the same random bytes twice"
    ;;
*)
    # The client writes down what its buffer happened to hold.
    expect_equal $(($(commands 'random') - before)) 0 "commands for random bytes"
    ;;
esac

row testing part "--login --test"
client --login --pin "$pin" --test
expect_success
expect_equal "$(tail -n 1 out)" "1 errors" "verdict"
expect_equal "$(grep -c 'RSA-PKCS: OK' out)" \
    "$(grep -c '^Private Key Object; RSA' "$root/tests/e2e/expected/$family.objects")" "keys that sign"
expect_warnings 1 C_SignUpdate CKR_FUNCTION_NOT_SUPPORTED

row testing no "--test-fork"
client --test-fork
[ "$status" -eq 1 ] || fail "a forked child could use its parent's module"
grep -qE 'rv = CKR_CRYPTOKI_ALREADY_INITIALIZED ' err || fail "no CKR_CRYPTOKI_ALREADY_INITIALIZED"
