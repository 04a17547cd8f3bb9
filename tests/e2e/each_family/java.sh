#!/usr/bin/env bash
# A Java program sees the token and what it can do. A key store of it is not to be had.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "$rsa_pairs --trace"
work_directory
keep_powered
results_of Java openjdk-17-jre-headless "$family"

java=$(dirname "$(find /usr/lib/jvm -path '*17-openjdk*/bin/keytool' | head -n 1)")
keytool() { # line of the configuration
    printf 'name = velt\nlibrary = %s\n%s\n' "$VELT_MODULE" "$1" >java.cfg
    status=0
    "$java/keytool" -J-XX:TieredStopAtLevel=1 -J-Xshare:auto -keystore NONE -storetype PKCS11 \
        -storepass "$pin" -providerClass sun.security.pkcs11.SunPKCS11 -providerArg java.cfg \
        -v -list >out 2>err </dev/null || status=$?
}

row listing ok "SunPKCS11 with slotListIndex = 0"
keytool 'slotListIndex = 0
showInfo = true'
expect_equal "$(sed -nE 's/^ *model: *//p' out | sed 's/ *$//')" "$model" "model"
grep -q '^Slots with tokens: 0$' out || fail "no token in slot 0"
mechanisms=$(grep -c '^Mechanism ' out)
expect_equal "$mechanisms" "$([ "$family" = idc ] && echo 2 || echo 4)" "mechanisms"

row reading no "keytool -list"
[ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
grep -q 'ProviderException: Could not obtain session' out ||
    fail "the client does not say what is missing"

row listing no "SunPKCS11 with slot = 0"
keytool 'slot = 0'
[ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
grep -q 'CKR_SLOT_ID_INVALID' out err || fail "no CKR_SLOT_ID_INVALID"
