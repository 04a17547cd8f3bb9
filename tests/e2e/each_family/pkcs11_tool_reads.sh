#!/usr/bin/env bash
# A user sees with pkcs11-tool which token is in the reader, logs in and reads what is on it.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "--family $family --trace"
work_directory
results_of pkcs11-tool opensc "$family"

expect_listing() { # what
    expect_success
    expect_output <"$root/tests/e2e/expected/$family.$1"
}
expect_objects() {
    expect_listing objects
    local public private all
    public=$(grep -c '^Public Key Object' out)
    private=$(grep -c '^Private Key Object' out)
    all=$(grep -c ' Object[; ]' out)
    expect_warnings "$public" "C_GetAttributeValue(DERIVE)" CKR_ATTRIBUTE_TYPE_INVALID
    expect_warnings "$private" "C_GetAttributeValue(ALLOWED_MECHANISMS)" CKR_ATTRIBUTE_SENSITIVE
    expect_warnings "$all" "C_GetAttributeValue(UNIQUE_ID)" CKR_ATTRIBUTE_SENSITIVE
    expect_warnings $((public + private + all)) "" ""
}

row listing ok "--show-info --list-slots"
client --list-slots
expect_listing slots
client --show-info
expect_success
expect_output <<'END'
Cryptoki version 2.20
Manufacturer     VELT (velt.example)
Library          VELT PKCS11 Library (ver 1.0)
END

row listing ok "--list-mechanisms"
client --list-mechanisms
expect_listing mechanisms

row listing ok "--list-objects"
client --list-objects
expect_objects

row login ok "--login --list-objects"
client --login --pin "$pin" --list-objects
expect_objects
expect_equal "$(commands 'verify the PIN')" 1 "PINs verified"

row reading ok "the token by the start of its label"
client --token-label "${token_label:0:6}" --list-objects
expect_objects

row login ok "--login refuses a wrong PIN"
client --login --pin "$wrong_pin" --list-objects
expect_failure C_Login "$wrong_pin_code"
expect_equal "$(commands 'verify the PIN')" 2 "PINs verified"
client --login --pin "$pin" --list-objects
expect_success

if [ "$family" = idc ]; then
    row login ok "--login keeps a PIN of other than four characters from the card"
    client --login --pin 12345 --list-objects
    expect_failure C_Login CKR_ARGUMENTS_BAD
    expect_equal "$(commands 'verify the PIN')" 3 "PINs verified"
fi

row reading ok "--read-object --type cert"
client --read-object --type cert --id "$certified" --output-file certificate.der
expect_success
openssl x509 -inform DER -in certificate.der -noout -pubkey >in-certificate.pem ||
    fail "no certificate was read"
serial=$(sed -nE "/^Certificate/,/ID:/ { s/^ *serial: *//p }" \
    "$root/tests/e2e/expected/$family.objects" | head -n 1)
expect_equal "$(openssl x509 -inform DER -in certificate.der -noout -serial)" "serial=$serial" \
    "serial number of the certificate"

row reading ok "--read-object --type pubkey"
client --read-object --type pubkey --id "$certified" --output-file public.der
expect_success
openssl pkey -pubin -inform DER -in public.der -out public.pem
expect_same public.pem in-certificate.pem

row reading ok "--read-object tells of an ID that is not there"
client --read-object --type cert --id 7F --output-file none
[ "$status" -eq 1 ] || fail "there is a certificate 7F"
grep -qx 'error: object not found' err || fail "the client does not say what is missing"

row listing part "--test-hotplug"
prompted() { # how often the client has asked for a key so far
    [ "$(grep -o 'x to exit: ' out | wc -l)" -eq "$1" ]
}
status=0
{
    await prompted 1
    echo
    await prompted 2
    kill -USR1 "$VELT_CARD_PID"
    await first_reader_is_empty
    echo
    await prompted 3
    kill -USR2 "$VELT_CARD_PID"
    await_presence "$VELT_WORLD_DIR/card-1.noticed"
    printf '\nx\n\n'
} | stdbuf -o0 pkcs11-tool --module "$VELT_MODULE" --test-hotplug >out 2>err || status=$?
expect_success
expect_equal "$(grep -A1 '^Slot 0' out | sed -n 's/^  \([a-z(]*\).*/\1/p' | tr '\n' ' ')" \
    "token (empty token " "what the client saw in the first reader"
grep -q 'C_WaitForSlotEvent failed: CKR_FUNCTION_NOT_SUPPORTED' err ||
    fail "C_WaitForSlotEvent gives another answer"

# The ID card says that its PIN is blocked. The others are taken for logged in, until they refuse to
# sign.
[ "$family" = idc ] && outcome=ok || outcome=part
row login "$outcome" "--login with a blocked PIN"
for _ in 1 2 3; do
    client --login --pin "$wrong_pin" --list-objects
    expect_failure C_Login "$wrong_pin_code"
done
printf 'Pay to the bearer\n' >letter
sign "$certified" letter none "$pin"
if [ "$family" = idc ]; then
    expect_failure C_Login CKR_PIN_LOCKED
else
    # The client tries again in parts, and that is what it tells of.
    expect_failure C_SignUpdate CKR_FUNCTION_NOT_SUPPORTED
    refused="$(grep -cE 'refused: (a PIN is needed|nobody is logged in)' \
        "$VELT_WORLD_DIR/card-1.log" || true)"
    expect_equal "$refused" 1 "signatures that the token refused"
fi
[ ! -s none ] || fail "a blocked token signs"
