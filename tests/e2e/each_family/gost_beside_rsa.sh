#!/usr/bin/env bash
# A user whose token holds a GOST pair beside RSA pairs learns which clients still find the RSA keys.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "--family $family --trace"
work_directory
keep_powered
run() {
    status=0
    timeout 60 "$@" >out 2>err </dev/null || status=$?
}
rsa=$(grep -c '^Private Key Object; RSA' "$root/tests/e2e/expected/$family.objects")

results_of OpenSSH openssh-client "$family"
row listing ok "ssh-keygen -D with a GOST pair on the token"
run ssh-keygen -D "$VELT_MODULE"
expect_success
expect_equal "$(grep -c '^ssh-rsa ' out)" "$rsa" "keys"
grep -q 'skipping unsupported key type' err || fail "the client says nothing of the GOST key"
close_row
mv "$row_file" "$row_file-ssh"

results_of GnuTLS gnutls-bin "$family"
row listing ok "p11tool --list-all with a GOST pair on the token"
export GNUTLS_PIN=$pin
run p11tool --provider "$VELT_MODULE" --list-all "pkcs11:model=${model// /%20}"
expect_success
expect_equal "$(grep -cE 'Type: Private key$' out)" 1 "private keys of an unknown kind"
expect_equal "$(grep -cE 'Type: (Public|Private) key \(RSA-' out)" $((2 * rsa)) "RSA keys"
close_row
mv "$row_file" "$row_file-gnutls"

# The engine drops the unknown kind of key and takes the whole list for a failure.
results_of "OpenSSL engine" libengine-pkcs11-openssl "$family"
row signing no "openssl dgst -sign with a GOST pair on the token"
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
printf 'Pay to the bearer\n' >letter
OPENSSL_CONF=engine.cnf run openssl dgst -sha256 -engine pkcs11 -keyform engine \
    -sign "pkcs11:model=${model// /%20};id=%$certified;type=private" -out none letter
[ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
grep -q 'object not found' err || fail "the client does not say what is missing"
expect_equal "$(signatures)" 0 "signatures that the token was asked for"
