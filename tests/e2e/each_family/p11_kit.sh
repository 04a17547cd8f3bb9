#!/usr/bin/env bash
# A user of any p11-kit program finds the token, and a container or another machine uses it from afar.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "$rsa_pairs --trace"
work_directory
keep_powered
results_of p11-kit p11-kit "$family"

# The module in this world's list of modules, and nothing else.
directory=$(pkg-config --variable=p11_module_configs p11-kit-1)
mount -t tmpfs tmpfs "$directory"
echo "module: $VELT_MODULE" >"$directory/velt-pkcs11.module"
library=$(pkg-config --variable=libdir p11-kit-1)
reader='Velt Virtual Reader 00 00'

through() { # module, arguments of pkcs11-tool
    VELT_MODULE=$1 client --slot-description "$reader" "${@:2}"
}
printf 'Pay to the bearer\n' >letter
sign "$first" letter signature "$pin"
expect_success
made=$(signatures)

row listing ok "p11-kit list-modules"
status=0
p11-kit list-modules >out 2>err || status=$?
expect_success
expect_equal "$(sed -nE 's/^ *token: //p; s/^ *model: //p' out)" "$token_label
$model" "token and model"

for way in proxy server; do
    case $way in
    proxy)
        module=$library/p11-kit-proxy.so
        name='p11-kit-proxy.so'
        ;;
    server)
        module=$library/pkcs11/p11-kit-client.so
        name='p11-kit server, p11-kit-client.so'
        p11-kit server --foreground --name "$PWD/socket" --provider "$VELT_MODULE" \
            "pkcs11:model=${model// /%20}" >server.log 2>&1 &
        await_presence socket
        export P11_KIT_SERVER_ADDRESS=unix:path=$PWD/socket
        ;;
    esac

    row listing ok "$name: --list-slots"
    VELT_MODULE=$module client --list-slots
    expect_success
    expect_equal "$(sed -nE 's/^ *token label *: //p' out)" "$token_label" "token"

    row login ok "$name: --login --list-objects"
    through "$module" --login --pin "$pin" --list-objects
    expect_success
    expect_equal "$(grep -c '^Private Key Object; RSA' out)" 2 "private keys"

    row reading ok "$name: --read-object"
    through "$module" --read-object --type cert --id "$second" --output-file afar.der
    expect_success
    client --read-object --type cert --id "$second" --output-file near.der
    expect_success
    expect_same afar.der near.der

    row signing ok "$name: --login --sign"
    through "$module" --login --pin "$pin" --sign --mechanism RSA-PKCS --id "$first" \
        --input-file digest-info --output-file afar
    expect_success
    expect_same afar signature
    made=$((made + 1))
    expect_equal "$(signatures)" "$made" "signatures that the token was asked for"
done
