#!/usr/bin/env bash
# A user who asks for what the card does not offer hears so, and the card stays as it was.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card --trace
work_directory

client --list-objects
mv out before

client --login --pin 1234 --keypairgen --key-type rsa:2048 --id 87
expect_failure C_GenerateKeyPair CKR_SESSION_HANDLE_INVALID
expect_equal "$(commands 'generate key pair')" 0 "key pairs that the card was asked to generate"

client --login --login-type so --so-pin 1234 --list-objects
expect_failure C_Login CKR_ARGUMENTS_BAD
expect_equal "$(commands 'verify the PIN')" 1 "PINs that the card was asked to verify"

client --test-fork
[ "$status" -eq 1 ] || fail "a forked child could use its parent's module"
grep -qE 'rv = CKR_CRYPTOKI_ALREADY_INITIALIZED ' err || fail "no CKR_CRYPTOKI_ALREADY_INITIALIZED"

# The client's own tests: all but its signature in several parts.
client --login --pin 1234 --test
expect_success
expect_equal "$(grep -c 'RSA-PKCS: OK' out)" 2 "keys that sign"
expect_equal "$(tail -n 1 out)" "1 errors" "verdict"
expect_warnings 1 C_SignUpdate CKR_FUNCTION_NOT_SUPPORTED

client --list-objects
expect_success
expect_same out before
