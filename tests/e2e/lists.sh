#!/usr/bin/env bash
# A user sees each reader, what the card in it can do and what is on it, before any PIN is asked for.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card "--data-object 0102030405060708FF"
work_directory

client --list-slots
expect_success
expect_output <<'END'
Available slots:
Slot 0 (0x0): Velt Virtual Reader 00 00
  token label        : Kazakhstan IDCard
  token manufacturer : KZ
  token model        : KZIDCARD
  token flags        : login required, token initialized, PIN initialized
  hardware version   : 1.0
  firmware version   : 1.0
  serial num         : 
  pin min/max        : 4/4
Slot 1 (0x1): Velt Virtual Reader 00 01
  (empty)
END

client --show-info
expect_success
expect_output <<'END'
Cryptoki version 2.20
Manufacturer     VELT (velt.example)
Library          VELT PKCS11 Library (ver 1.0)
END

client --list-mechanisms
expect_success
expect_output <<'END'
Supported mechanisms:
  RSA-PKCS, keySize={1024,2048}, hw, sign
  RSA-PKCS-KEY-PAIR-GEN, keySize={1024,2048}, hw, generate_key_pair
END

objects() { # number of the pair, ID, subject, serial number
    cat <<END
Certificate Object; type = X.509 cert
  label:      RSA${1}0102030405060708FF
  subject:    DN: $3
  serial:     $4
  ID:         $2
Public Key Object; RSA 2048 bits
  label:      RSA${1}0102030405060708FF
  ID:         $2
  Usage:      encrypt, verify
  Access:     local
Private Key Object; RSA 
  label:      RSA${1}0102030405060708FF
  ID:         $2
  Usage:      decrypt, sign
  Access:     sensitive, always sensitive, never extractable, local
END
}

for login in "" "--login --pin 1234"; do
    # shellcheck disable=SC2086
    client $login --list-objects
    expect_success
    {
        objects 1 87 "C=KZ, CN=Velt Holder One, SN=Holder, GN=One/serialNumber=IIN000000000001" \
            4D10275B31660C92E518
        objects 2 88 "C=KZ, CN=Velt Holder Two, SN=Holder, GN=Two/serialNumber=IIN000000000002" \
            4D10275B32660C92E518
    } | expect_output
    # What the client asks for and the card's objects do not have.
    expect_warnings 2 "C_GetAttributeValue(DERIVE)" CKR_ATTRIBUTE_TYPE_INVALID
    expect_warnings 2 "C_GetAttributeValue(ALLOWED_MECHANISMS)" CKR_ATTRIBUTE_SENSITIVE
    expect_warnings 6 "C_GetAttributeValue(UNIQUE_ID)" CKR_ATTRIBUTE_SENSITIVE
    expect_warnings 10 "" ""
done
