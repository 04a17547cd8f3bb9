#!/usr/bin/env bash
# A user with all four kinds of tokens in four readers uses any of them, also from one program.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
families=(idc kt jc et72k)
cards=()
for family in "${families[@]}"; do
    cards+=(--card "--family $family --trace")
done
in_world "${cards[@]}"
work_directory
results_of pkcs11-tool opensc four

row listing ok "--list-slots with four tokens in four readers"
client --list-slots
expect_success
for family in "${families[@]}"; do
    sed -n '3,/pin min/p' "$root/tests/e2e/expected/$family.slots"
done >expected
sed '/^Available\|^Slot/d' out >tokens
expect_same tokens expected

row reading ok "--slot N --list-objects with four tokens"
for slot in 0 1 2 3; do
    client --slot "$slot" --list-objects
    expect_success
    expect_output <"$root/tests/e2e/expected/${families[slot]}.objects"
done

row signing ok "--slot N --sign with four tokens"
printf 'Pay to the bearer\n' >letter
for slot in 0 1 2 3; do
    family_facts "${families[slot]}"
    client --slot "$slot" --read-object --type cert --id "$certified" --output-file certificate
    expect_success
    openssl x509 -inform DER -in certificate -noout -pubkey >public.pem
    sign "$certified" letter signature "$pin" "$slot"
    expect_success
    openssl dgst -sha256 -verify public.pem -signature signature letter ||
        fail "the signature of slot $slot does not verify"
done

row signing ok "one program signs with four tokens in turn"
status=0
"$VELT_PROGRAMS/velt-e2e-tokens_in_turn" "$VELT_MODULE" digest-info 1234 123456 1234 1234 >out 2>err ||
    status=$?
expect_success
expect_output <<'END'
KZIDCARD: 6 objects
KAZTOKEN: 8 objects
JaCarta PKI: 6 objects
EToken 72K: 8 objects
EToken 72K: 8 objects
JaCarta PKI: 6 objects
KAZTOKEN: 8 objects
KZIDCARD: 6 objects
END
for slot in 0 1 2 3; do
    openssl x509 -inform DER -in "certificate-$slot" -noout -pubkey >public.pem
    for number in 1 2; do
        openssl dgst -sha256 -verify public.pem -signature "signature-$slot-$number" letter ||
            fail "signature $number of slot $slot does not verify"
    done
done
