#!/usr/bin/env bash
# A user of NSS programs, Firefox and Thunderbird among them, sees the token's certificates, logs in to
# web sites with them and signs mail. With two certificates on a token NSS may take the wrong key.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "$rsa_pairs --trace"
work_directory
keep_powered
results_of NSS libnss3-tools "$family"

run() {
    status=0
    timeout 60 "$@" >out 2>err </dev/null || status=$?
}
expect_status() {
    [ "$status" -eq "$1" ] || fail "the client ended with status $status, not $1"
}
expect_text() {
    grep -qF -- "$1" out err || fail "the client does not say: $1"
}

# An authority of our own certifies the token's keys. Authorities named with six attributes leave a
# certificate with a subject on the token, those with two do not.
authority() { # name, subject
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" -days 30 \
        -subj "$2" -addext keyUsage=critical,keyCertSign -out "$1.pem" 2>/dev/null
}
certify() { # authority, serial number, public key, name, file
    openssl req -new -key "$1.key" -subj "/C=KZ/CN=$4" -out request 2>/dev/null
    openssl x509 -req -in request -CA "$1.pem" -CAkey "$1.key" -set_serial "$2" -days 20 \
        -extfile extensions -force_pubkey "$3" -outform DER -out "$5" 2>/dev/null
}
put() { # certificate, ID
    client --login --pin "$pin" --write-object "$1" --type cert --id "$2"
    expect_success
}
echo 'basicConstraints = CA:FALSE' >extensions # which make it version 3
authority six "/C=KZ/ST=Region/L=City/O=Somebody/OU=Unit/CN=Six"
authority two "/C=KZ/CN=Two"
for id in "$first" "$second"; do
    client --read-object --type pubkey --id "$id" --output-file "public-$id.der"
    expect_success
    openssl pkey -pubin -inform DER -in "public-$id.der" -out "public-$id.pem"
done
certify six 0x5A01 "public-$first.pem" Alice apart-1
certify six 0x6B02 "public-$second.pem" Bob apart-2
# Serial numbers that begin with a zero byte, subjects that are not served, equal lengths.
certify two 0x80000001 "public-$first.pem" Alice alike-1
certify two 0x80000002 "public-$second.pem" Rober alike-2
put apart-1 "$first"
put apart-2 "$second"
client --list-objects --type cert
mapfile -t labels < <(sed -nE 's/^ *label: *//p' out)

# The user's database, which trusts the authorities and knows the module, and a server's.
printf '%s\n' "$pin" >pin
openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout server.key \
    -subj /CN=localhost -out request 2>/dev/null
openssl x509 -req -in request -CA six.pem -CAkey six.key -set_serial 7 -days 20 -out server.pem \
    2>/dev/null
openssl pkcs12 -export -inkey server.key -in server.pem -name server -passout pass: -out server.p12
for database in user server; do
    mkdir "$database"
    certutil -N -d "sql:$database" --empty-password
    for name in six two; do
        certutil -A -d "sql:$database" -n "$name" -t CT,C, -i "$name.pem"
    done
done
pk12util -i server.p12 -d sql:server -W '' -K '' >pk12util.log

row listing ok "modutil -add, -list"
run modutil -dbdir sql:user -add velt-pkcs11 -libfile "$VELT_MODULE" -force
expect_status 0
run modutil -dbdir sql:user -list
expect_status 0
expect_equal "$(sed -nE 's/^\ttoken: (.*)/[\1]/p' out | tail -n 2 | head -n 1)" "[$token_label]" \
    "name of the token"

row listing part "modutil -list MODULE while a reader is empty"
run modutil -dbdir sql:user -list velt-pkcs11
expect_status 32
expect_text "Token Model: $model"
expect_text 'Unable to get information about token "".'

row reading ok "certutil -L -h all"
run certutil -L -d sql:user -h all -f pin
expect_status 0
for label in "${labels[@]}"; do
    grep -qE "^$token_label:$label +u,u,u$" out || fail "certificate $label is not listed"
done

row login ok "certutil -K"
run certutil -K -d sql:user -h "$token_label" -f pin
expect_status 0
expect_equal "$(grep -c ' rsa ' out)" 2 "keys"

row login ok "certutil -K refuses a wrong PIN"
printf '%s\n' "$wrong_pin" >wrong-pin
run certutil -K -d sql:user -h "$token_label" -f wrong-pin
expect_status 255
run certutil -K -d sql:user -h "$token_label" -f pin
expect_status 0

selfserv -d sql:server -n server -p 44330 -rr -V tls1.2: >server.log 2>&1 &
await listening 44330
# connect NUMBER VERSIONS: with certificate 1 or 2, until the handshake is over.
connect() {
    run tstclnt -d sql:user -h localhost -p 44330 -n "$token_label:${labels[$1 - 1]}" -W pin \
        -V "$2" -Q
}
made=$(signatures)
for number in 1 2; do
    row TLS ok "tstclnt, TLS 1.2, certificate $number of two well apart"
    connect "$number" tls1.2:tls1.2
    expect_status 0
    made=$((made + 1))
    expect_equal "$(signatures)" "$made" "signatures that the token was asked for"
done

row TLS no "tstclnt, TLS 1.3"
for versions in tls1.3:tls1.3 tls1.2:tls1.3; do
    connect 1 "$versions"
    expect_text "Failed to load a suitable client certificate"
done
expect_equal "$(signatures)" "$made" "signatures that the token was asked for"

row signing ok "cmsutil -S"
printf 'Pay to the bearer\n' >letter
for number in 1 2; do
    run cmsutil -S -d sql:user -N "$token_label:${labels[number - 1]}" -f pin -i letter -o signed
    expect_status 0
    openssl cms -verify -in signed -inform DER -CAfile six.pem -purpose any -binary -out content \
        2>err || fail "message $number does not verify"
    expect_same content letter
done

put alike-1 "$first"
put alike-2 "$second"
row TLS ok "tstclnt, TLS 1.2, certificate 1 of two too much alike"
connect 1 tls1.2:tls1.2
expect_status 0

row TLS no "tstclnt, TLS 1.2, certificate 2 of two too much alike"
made=$(signatures)
connect 2 tls1.2:tls1.2
[ "$status" -ne 0 ] || fail "there is a connection"
expect_equal $(($(signatures) - made)) 1 "signatures that the token was asked for"

# NSS gives a new certificate an ID of 20 bytes; the ID card looks at the first.
row writing no "certutil -A on the token"
issue New new.pem
run certutil -A -d sql:user -h "$token_label" -n New -t ,, -i new.pem -f pin
expect_status 255
expect_text SEC_ERROR_ADDING_CERT

row writing no "certutil -R, -G on the token"
for request in "-R -s CN=New -o request" -G; do
    # shellcheck disable=SC2086
    run certutil $request -d sql:user -h "$token_label" -f pin -z "$VELT_WORLD_DIR/card-1.log"
    expect_status 255
    expect_text "unable to generate key(s)"
done
expect_equal "$(commands generate)" 0 "key pairs that the token was asked to generate"

row writing part "certutil -D on the token"
run certutil -D -d sql:user -h "$token_label" -n "$token_label:${labels[0]}" -f pin
expect_status 0
client --list-objects
expect_success
[ "$family" = idc ] && expected=6 || expected=3 # the key pair goes with its certificate
expect_equal "$(grep -c ' Object[; ]' out)" "$expected" "objects"
