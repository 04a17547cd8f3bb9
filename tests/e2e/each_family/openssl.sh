#!/usr/bin/env bash
# A user signs documents, asks for certificates and logs in to web sites with OpenSSL and curl.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "$rsa_pairs --trace"
work_directory
keep_powered
results_of "OpenSSL engine" libengine-pkcs11-openssl "$family"

url="pkcs11:model=${model// /%20};id=%$first"
configuration() { # lines of the engine's section
    cat <<END
openssl_conf = all
[all]
engines = engines
ssl_conf = tls
[engines]
pkcs11 = pkcs11
[pkcs11]
MODULE_PATH = $VELT_MODULE
PIN = $pin
$1
[tls]
system_default = tls_default
[tls_default]
SignatureAlgorithms = $2
[req]
distinguished_name = subject
[subject]
END
}
configuration '' RSA+SHA256 >unforced.cnf
configuration 'FORCE_LOGIN = EMPTY' RSA+SHA256:ECDSA+SHA256 >forced.cnf
configuration 'FORCE_LOGIN = EMPTY' RSA-PSS+SHA256:RSA+SHA256:ECDSA+SHA256 >usual.cnf
with() { # configuration, command
    status=0
    OPENSSL_CONF=$1.cnf timeout 60 "${@:2}" >out 2>err </dev/null || status=$?
}
engine=(-engine pkcs11 -keyform engine)
made=0
expect_signatures() { # further ones
    made=$((made + $1))
    expect_equal "$(signatures)" "$made" "signatures that the token was asked for"
}

printf 'Pay to the bearer\n' >letter
client --read-object --type cert --id "$first" --output-file certificate.der
expect_success
openssl x509 -inform DER -in certificate.der -out certificate.pem
openssl x509 -in certificate.pem -noout -pubkey >public.pem

row login no "openssl dgst -sign without FORCE_LOGIN"
with unforced openssl dgst -sha256 "${engine[@]}" -sign "$url;type=private" -out none letter
[ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
grep -q 'PKCS#11 module:ERR_CKR_error:Function failed' err || fail "no CKR_FUNCTION_FAILED"
expect_equal "$(commands 'verify the PIN')" 0 "PINs verified"
made=$(signatures)

for name in "$url;type=private" "slot_0-id_$first"; do
    row signing ok "openssl dgst -sign '${name%%[_:]*}...' with FORCE_LOGIN"
    with forced openssl dgst -sha256 "${engine[@]}" -sign "$name" -out signature letter
    expect_success
    openssl dgst -sha256 -verify public.pem -signature signature letter ||
        fail "the signature does not verify"
    expect_signatures 1
done

row login ok "FORCE_LOGIN = EMPTY"
pins=$(commands 'verify the PIN')
with forced openssl dgst -sha256 "${engine[@]}" -sign "$url;type=private" -out again letter
expect_success
expect_same again signature
expect_signatures 1
expect_equal $(($(commands 'verify the PIN') - pins)) 1 "PINs verified"

row signing ok "openssl req -new"
with forced openssl req -new "${engine[@]}" -key "$url;type=private" -subj /CN=Somebody -out request
expect_success
openssl req -in request -verify -noout 2>&1 | grep -q 'verify OK' || fail "the request does not verify"
expect_signatures 1

row signing ok "openssl cms -sign"
with forced openssl cms -sign "${engine[@]}" -inkey "$url;type=private" -signer certificate.pem \
    -in letter -binary -nodetach -outform PEM -out signed
expect_success
openssl cms -verify -in signed -inform PEM -noverify -binary -out content 2>/dev/null ||
    fail "the message does not verify"
expect_same content letter
expect_signatures 1

issue localhost server.pem server.key
openssl s_server -accept 44330 -cert server.pem -key server.key -Verify 1 -www >server.log 2>&1 &
await listening 44330
connect() { # configuration, version of TLS
    with "$1" openssl s_client -connect localhost:44330 "${engine[@]}" -key "$url;type=private" \
        -cert certificate.pem "-$2"
}

row TLS ok "openssl s_client -tls1_2, SignatureAlgorithms = RSA+SHA256:ECDSA+SHA256"
connect forced tls1_2
expect_success
grep -q 'Cipher is ECDHE' out || fail "no connection"
expect_signatures 1

row TLS ok "curl --tls-max 1.2, SignatureAlgorithms = RSA+SHA256:ECDSA+SHA256"
with forced curl --silent --show-error --cacert server.pem --tls-max 1.2 --cert "$url;type=cert" \
    --key "$url;type=private" https://localhost:44330/
expect_success
grep -q 'Client certificate' out || fail "the server did not see the certificate"
expect_signatures 1

row TLS no "openssl s_client -tls1_2, usual signature algorithms"
connect usual tls1_2
[ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
expect_signatures 0

row TLS no "openssl s_client -tls1_3"
connect usual tls1_3
[ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
expect_signatures 0
