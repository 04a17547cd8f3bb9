#!/usr/bin/env bash
# A user puts certificates on a token with pkcs11-tool and gets them back exactly, also after a power
# cycle, and learns what deleting one takes along.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "--family $family --trace"
work_directory
results_of pkcs11-tool opensc "$family"

write() { # file, options
    client --login --pin "$pin" --write-object "$1" --type cert "${@:2}"
}
expect_certificate() { # ID, file
    client --read-object --type cert --id "$1" --output-file back
    expect_success
    expect_same back "$2"
}
expect_ids() { # IDs of the objects in their order
    client --list-objects
    expect_success
    expect_equal "$(sed -nE 's/^ *ID: *//p' out | tr '\n' ' ')" "$1" "IDs"
}
label_of() { # ID
    awk -v id="$1" '$1 == "label:" { label = $2 } $1 == "ID:" && $2 == id { print label; exit }' \
        "$root/tests/e2e/expected/$family.objects"
}
for name in first second third; do
    issue "$name" "$name.pem"
    openssl x509 -in "$name.pem" -outform DER -out "$name.der"
done
last=${gost_id:-88}

row writing ok "--write-object is refused before --login"
client --write-object first.der --type cert --id "$certified"
expect_failure C_CreateObject CKR_FUNCTION_FAILED

row writing ok "--write-object --type cert --id"
write first.der --id "$certified"
expect_success
head -n 1 out | grep -qx 'Created certificate:' || fail "no certificate created"
expect_certificate "$certified" first.der

row writing ok "--write-object --type cert --id --label"
write second.der --id "$last" --label "$(label_of "$last")"
expect_success
power_cycle
expect_certificate "$certified" first.der
expect_certificate "$last" second.der

if [ -n "$uncertified" ]; then
    row writing ok "--write-object to a key that had no certificate"
    write third.der --id "$uncertified"
    expect_success
    expect_certificate "$uncertified" third.der
fi

[ "$family" = idc ] && outcome=part || outcome=no
row writing "$outcome" "--write-object with an ID of two bytes"
write third.der --id "${certified}7F"
if [ "$family" = idc ]; then
    expect_success
    expect_certificate "$certified" third.der
else
    expect_failure C_CreateObject CKR_ATTRIBUTE_VALUE_INVALID
    expect_certificate "$certified" first.der
fi

# A KAZTOKEN takes a certificate under any ID; without a key it is never shown.
[ "$family" = kt ] && outcome=part || outcome=ok
row writing "$outcome" "--write-object is refused for an ID without a key"
client --list-objects
mv out before
write third.der --id 7F
case $family in
idc) expect_failure C_CreateObject CKR_ATTRIBUTE_VALUE_INVALID ;;
kt) expect_success ;;
*) expect_failure C_CreateObject CKR_FUNCTION_FAILED ;;
esac
client --list-objects
expect_success
expect_same out before

if [ "$family" != idc ]; then
    row writing ok "--write-object is refused for a label that no key has"
    write third.der --label nobody
    expect_failure C_CreateObject CKR_TEMPLATE_INCOMPLETE
fi

row writing no "--keypairgen"
client --login --pin "$pin" --keypairgen --key-type rsa:2048 --id "$certified"
expect_failure C_GenerateKeyPair CKR_SESSION_HANDLE_INVALID
expect_equal "$(commands 'generate')" 0 "key pairs that the token was asked to generate"

row writing part "--delete-object --type cert"
client --list-objects
before=$(sed -nE 's/^ *ID: *//p' out | tr '\n' ' ')
delete_words=$([ "$family" = kt ] && echo 'delete the selected file' || echo 'delete object')
deleted=$(commands "$delete_words")
client --login --pin "$pin" --delete-object --type cert --id "$certified"
expect_success
if [ "$family" = idc ]; then
    expect_ids "$before"
    expect_certificate "$certified" third.der
else
    # The key pair goes with its certificate; where IDs are positions, the others move up.
    case $family in
    kt) expect_ids "02 02 02 03 03 03 " ;;
    jc) expect_ids "00 00 00 " ;;
    et72k) expect_ids "00 00 00 01 01 01 " ;;
    esac
    expect_equal $(($(commands "$delete_words") - deleted)) "$([ "$family" = kt ] && echo 3 || echo 1)" "deletions"
    power_cycle
    case $family in
    kt) expect_certificate 02 second.der ;;
    *) expect_certificate 00 second.der ;;
    esac
fi
