#!/usr/bin/env bash
# A user sees a KAZTOKEN, what it can do and what is on it, and needs the right PIN to log in.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card "--family kt --trace"
work_directory

client --list-slots
expect_success
expect_output <<'END'
Available slots:
Slot 0 (0x0): Velt Virtual Reader 00 00
  token label        : KAZTOKEN              
  token manufacturer : Fliokluv LLP
  token model        : KAZTOKEN
  token flags        : login required, token initialized, PIN initialized
  hardware version   : 1.0
  firmware version   : 1.0
  serial num         : 
  pin min/max        : 4/10
Slot 1 (0x1): Velt Virtual Reader 00 01
  (empty)
END

client --list-mechanisms
expect_success
expect_output <<'END'
Supported mechanisms:
  RSA-PKCS-KEY-PAIR-GEN, keySize={1024,2048}, hw, generate_key_pair
  RSA-PKCS, keySize={1024,2048}, hw, sign
  mechtype-0x84B5A001, keySize={256,512}, hw, generate_key_pair
  mechtype-0x84B5A002, keySize={256,512}, hw, sign
END

public_key() { # ID, kind
    cat <<END
Public Key Object; $2
  label:      a1b2c3d4e5f60718293a4b5c6d7e8f$1
  ID:         $1
  Usage:      encrypt, verify
  Access:     local
END
}
private_key() { # ID, kind
    cat <<END
Private Key Object; $2
  label:      a1b2c3d4e5f60718293a4b5c6d7e8f$1
  ID:         $1
  Usage:      decrypt, sign
  Access:     sensitive, always sensitive, never extractable, local
END
}
certificate() { # ID
    cat <<END
Certificate Object; type = X.509 cert
  label:      a1b2c3d4e5f60718293a4b5c6d7e8f$1
  subject:    DN: C=KZ, CN=Velt Token Holder $1, SN=Holder, GN=Token/serialNumber=IIN0000000000$1
  serial:     5A20386C${1}771DA3F629
  ID:         $1
END
}

gost="unknown key algorithm $((0x84B5A001))"
for login in "" "--login --pin 123456"; do
    # shellcheck disable=SC2086
    client $login --list-objects
    expect_success
    {
        public_key 01 "RSA 2048 bits"
        private_key 01 "RSA "
        certificate 01
        private_key 02 "$gost"
        public_key 02 "$gost"
        certificate 02
        public_key 03 "RSA 1024 bits"
        private_key 03 "RSA "
    } | expect_output
done
expect_equal "$(commands 'verify the PIN')" 1 "PINs that the token was asked to verify"

client --login --pin 654321 --list-objects
expect_failure C_Login CKR_PIN_INCORRECT
client --login --pin 123456 --list-objects
expect_success

# Three wrong ones block it. The client hears of success then, and of a failure at the first use.
for attempt in 1 2 3; do
    client --login --pin 654321 --list-objects
    expect_failure C_Login CKR_PIN_INCORRECT
    expect_equal "$(commands 'verify the PIN')" $((3 + attempt)) "PINs verified"
done
printf 'text\n' >letter
sign 01 letter signature 123456
[ "$status" -eq 1 ] || fail "the token signs without a PIN"
expect_equal "$(grep -c 'refused: a PIN is needed' "$VELT_WORLD_DIR/card-1.log")" 1 "refusals"
[ ! -s signature ] || fail "there is a signature without a PIN"
