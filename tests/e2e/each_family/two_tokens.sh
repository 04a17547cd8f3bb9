#!/usr/bin/env bash
# A user with two tokens of one kind learns which clients tell them apart.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
case $1 in
idc) other="--family idc --keys 1024,1024 --trace" ;;
kt) other="--family kt --pairs rsa1024,rsa1024 --trace" ;;
*) other="--family $1 --objects rsa1024+certificate,rsa1024+certificate --trace" ;;
esac
in_world --card "$rsa_pairs --trace" --card "$other"
work_directory
keep_powered
run() {
    status=0
    timeout 60 "$@" >out 2>err </dev/null || status=$?
}

results_of pkcs11-tool opensc "$family"
row signing ok "--slot N --sign with two tokens of one kind"
printf 'Pay to the bearer\n' >letter
for slot in 0 1; do
    sign "$first" letter "signature-$slot" "$pin" "$slot"
    expect_success
    client --slot "$slot" --read-object --type pubkey --id "$first" --output-file "public-$slot"
    expect_success
    openssl dgst -sha256 -verify "public-$slot" -keyform DER -signature "signature-$slot" letter ||
        fail "the signature of slot $slot does not verify"
done
! cmp -s public-0 public-1 || fail "both tokens show the same key"
close_row
mv "$row_file" "$row_file-pkcs11-tool"

results_of OpenSSH openssh-client "$family"
row listing part "ssh-keygen -D with two tokens of one kind"
run ssh-keygen -D "$VELT_MODULE"
expect_success
sort -u out >keys
for slot in 0 1; do
    openssl pkey -pubin -inform DER -in "public-$slot" -out public.pem
    ssh-keygen -i -m PKCS8 -f public.pem >key
    grep -qF "$(cut -d ' ' -f 2 key)" keys && echo "$slot"
done >seen || true
expect_equal "$(cat seen)" 0 "tokens whose first key is listed"
close_row
mv "$row_file" "$row_file-ssh"

# Without a serial number the tokens' URIs are the same, and the engine logs in to none.
results_of "OpenSSL engine" libengine-pkcs11-openssl "$family"
cat >engine.cnf <<END
openssl_conf = all
[all]
engines = engines
[engines]
pkcs11 = pkcs11
[pkcs11]
MODULE_PATH = $VELT_MODULE
PIN = $pin
FORCE_LOGIN = EMPTY
END
row signing no "openssl dgst -sign 'pkcs11:model=...' with two tokens of one kind"
OPENSSL_CONF=engine.cnf run openssl dgst -sha256 -engine pkcs11 -keyform engine \
    -sign "pkcs11:model=${model// /%20};id=%$first;type=private" -out none letter
[ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
close_row
mv "$row_file" "$row_file-openssl"

results_of NSS libnss3-tools "$family"
row listing part "certutil -L with two tokens of one kind"
mkdir user
certutil -N -d sql:user --empty-password
modutil -dbdir sql:user -add velt-pkcs11 -libfile "$VELT_MODULE" -force >modutil.log 2>&1
printf '%s\n' "$pin" >pin
run certutil -L -d sql:user -h all -f pin
expect_success
grep -c "^$token_label:" out >seen || true
