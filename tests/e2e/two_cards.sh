#!/usr/bin/env bash
# A user with two cards in two readers reaches each through its own slot.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card "--old-atr --data-object 111111111111111111" \
    --card "--data-object 222222222222222222 --pin 5678 --keys fresh,fresh --trace"
work_directory

client --list-slots
expect_success
expect_equal "$(grep -c 'token label  *: Kazakhstan IDCard$' out)" 2 "tokens"

for slot in 0 1; do
    digit=$((slot + 1))
    client --slot "$slot" --list-objects
    expect_success
    expect_equal "$(sed -nE 's/^ *label: *//p' out | sort | uniq -c | tr -s ' ')" \
        " 3 RSA1$(printf '%.0s'$digit {1..18})
 3 RSA2$(printf '%.0s'$digit {1..18})" "labels in slot $slot"
done

# Each takes its own PIN, and signs with its own keys.
printf 'text\n' >letter
client --slot 1 --login --pin 1234 --list-objects
expect_failure C_Login CKR_FUNCTION_FAILED
for card in 0:1234 1:5678; do
    slot=${card%:*}
    client --slot "$slot" --read-object --type cert --id 87 --output-file certificate.der
    expect_success
    openssl x509 -inform DER -in certificate.der -noout -pubkey >"public-$slot.pem"
    sign 87 letter "signature-$slot" "${card#*:}" "$slot"
    expect_success
    openssl dgst -sha256 -verify "public-$slot.pem" -signature "signature-$slot" letter ||
        fail "the signature of slot $slot does not verify"
done
! cmp -s public-0.pem public-1.pem || fail "both cards have the same key"
