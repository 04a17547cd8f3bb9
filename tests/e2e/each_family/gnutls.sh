#!/usr/bin/env bash
# A user of GnuTLS sees the token, reads its public keys and puts certificates on it. Signing is not
# to be had with GnuTLS: it fails cleanly.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "$rsa_pairs --trace"
work_directory
keep_powered
results_of GnuTLS gnutls-bin "$family"

export GNUTLS_PIN=$pin
url="pkcs11:model=${model// /%20}"
run() {
    status=0
    "$1" --provider "$VELT_MODULE" "${@:2}" >out 2>err </dev/null || status=$?
}
expect_refusal() { # what the client says of it
    [ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
    grep -qF -- "$1" out err || fail "the client does not say: $1"
}
client --read-object --type pubkey --id "$first" --output-file public.der
expect_success
openssl pkey -pubin -inform DER -in public.der -out public.pem

row listing ok "p11tool --list-tokens"
run p11tool --list-tokens
expect_success
expect_equal "$(sed -nE 's/^\tModel: //p' out)" "$model" "model"
expect_equal "$(grep -c '^Token ' out)" 1 "tokens"
expect_equal "$(sed -nE 's/^\tSerial: *//p' out)" "" "serial number, which nothing has read yet"

row listing ok "p11tool --login --list-all 'pkcs11:model=...'"
run p11tool --login --list-all "$url"
expect_success
expect_equal "$(grep -c '^Object ' out)" 6 "objects"
expect_equal "$(sed -nE 's/^\tType: //p' out | sort | uniq -c | tr -s ' ' | tr '\n' ',')" \
    " 2 Private key (RSA-2048), 2 Public key (RSA-2048), 2 X.509 Certificate," "kinds of objects"

if [ "$family" = idc ]; then
    row listing ok "p11tool --list-all 'pkcs11:token=LABEL'"
    run p11tool --list-all "pkcs11:token=Kazakhstan%20IDCard"
    expect_success
    expect_equal "$(grep -c '^Object ' out)" 6 "objects"
else
    row listing no "p11tool --list-all 'pkcs11:token=LABEL'"
    run p11tool --list-all "pkcs11:token=${token_label%% *}"
    [ "$status" -eq 2 ] || fail "the client ended with status $status, not 2"
    grep -q '^No matching objects found' out err || fail "the client does not say what is missing"
fi

row reading ok "p11tool --export of a public key"
run p11tool --export "$url;id=%$first;type=public"
expect_success
sed '/^$/d' out >exported
expect_same exported public.pem

row reading ok "p11tool --login --export-pubkey of a private key"
run p11tool --login --outfile exported --export-pubkey "$url;id=%$first;type=private"
expect_success
expect_same exported public.pem

row reading no "p11tool --export, --export-chain of a certificate"
for request in --export --export-chain; do
    run p11tool "$request" "$url;id=%$first;type=cert"
    expect_refusal "The requested data were not available."
done

row writing no "p11tool --login --delete of a certificate"
run p11tool --login --batch --delete "$url;id=%$first;type=cert"
expect_refusal "The requested data were not available."

# The client asks for the length of a signature first, which costs the signature itself.
row signing no "p11tool --login --test-sign"
run p11tool --login --test-sign "$url;id=%$first;type=private"
expect_refusal "Cannot sign data: PKCS #11 error."
expect_equal "$(signatures)" 1 "signatures that the token was asked for"

row signing no "certtool --generate-request"
echo 'cn = "Somebody"' >template
run certtool --generate-request --template template \
    --load-privkey "$url;id=%$first;type=private" \
    --load-pubkey "$url;id=%$first;type=public"
expect_refusal "sign: PKCS #11 error."
expect_equal "$(signatures)" 2 "signatures that the token was asked for"

row TLS no "gnutls-cli with the token's key and certificate"
issue localhost server.pem server.key
client --read-object --type cert --id "$first" --output-file certificate.der
openssl x509 -inform DER -in certificate.der -out certificate.pem
openssl s_server -accept 44330 -cert server.pem -key server.key -Verify 1 -quiet >server.log 2>&1 &
await listening 44330
run gnutls-cli --priority NORMAL:-VERS-TLS1.3 --port 44330 --insecure --x509certfile certificate.pem \
    --x509keyfile "$url;id=%$first;type=private" localhost
expect_refusal "PKCS #11 error."
expect_equal "$(signatures)" 3 "signatures that the token was asked for"

row writing ok "p11tool --login --write --load-certificate"
issue New new.pem
client --list-objects --type cert
label=$(awk -v id="$second" '$1 == "label:" { l = $2 } $1 == "ID:" && $2 == id { print l }' out)
run p11tool --login --write --load-certificate new.pem --id "$second" --label "$label" "$url"
expect_success
client --read-object --type cert --id "$second" --output-file back
expect_success
openssl x509 -inform DER -in back -out back.pem
expect_same back.pem new.pem

# What follows the token's own mechanisms is whatever stood in the client's memory, and takes the
# client minutes to look up: it is left to itself after the first lines.
row listing part "p11tool --list-mechanisms"
if [ "$family" = idc ]; then
    expected='CKM_RSA_PKCS CKM_RSA_PKCS_KEY_PAIR_GEN '
else
    expected='CKM_RSA_PKCS_KEY_PAIR_GEN CKM_RSA_PKCS UNKNOWN UNKNOWN '
fi
{ stdbuf -oL p11tool --provider "$VELT_MODULE" --list-mechanisms "$url" 2>err || true; } |
    head -n "$(wc -w <<<"$expected")" >out
expect_equal "$(cut -d ' ' -f 2 out | tr '\n' ' ')" "$expected" "mechanisms"

case $family in
kt | jc) row random ok "p11tool --login --generate-random" ;;
*) row random part "p11tool --login --generate-random" ;;
esac
before=$(commands 'random')
run p11tool --login --generate-random 16 "$url"
expect_success
expect_equal "$(stat -c %s out)" 16 "random bytes"
[ "$family" != kt ] && [ "$family" != jc ] && expected=0 || expected=1
expect_equal $(($(commands 'random') - before)) "$expected" "commands for random bytes"
