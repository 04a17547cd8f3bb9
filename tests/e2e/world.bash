# Sourced by every end-to-end test: a private world for it, a real client in it, and what it expects.
# Of a client, `status` is its exit code, and the files out and err hold what it wrote. ctest passes
# VELT_MODULE, VELT_CARDSIM, VELT_PROGRAMS (directory of the programs here) and VELT_RESULTS.
# shellcheck shell=bash
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
arguments=("$@") # of the test

# in_world OPTIONS...: runs the test again, from its start, inside a world made with these options of
# private-pcscd; there it returns.
in_world() {
    [ -z "${VELT_WORLD_DIR:-}" ] || return 0
    exec "$root/sim/world/private-pcscd" --cardsim "$VELT_CARDSIM" "$@" -- "$0" "${arguments[@]}"
}

# work_directory [DIRECTORIES...]: a new one to work in; it goes when the test ends, and those with it.
work_directory() {
    cleared=("$(mktemp -d)" "$@")
    trap clear_up EXIT
    cd "${cleared[0]}"
}

clear_up() {
    local job ended=$?
    [ "$ended" -ne 0 ] || close_row
    for job in $(jobs -p); do
        kill "$job" 2>/dev/null || true
    done
    rm -rf "${cleared[@]}"
}

fail() {
    echo "FAILED: $1" >&2
    [ ! -s out ] || sed 's/^/  out: /' out >&2
    [ ! -s err ] || sed 's/^/  err: /' err >&2
    tail -n 4 "$VELT_WORLD_DIR"/pcscd.log "$VELT_WORLD_DIR"/card-*.log | cut -c 1-200 >&2
    exit 1
}

# client ARGUMENTS...: pkcs11-tool with the module, without a verdict.
client() {
    status=0
    pkcs11-tool --module "$VELT_MODULE" "$@" >out 2>err || status=$?
}

# expect_success, expect_failure: how the last client ended.
expect_success() {
    [ "$status" -eq 0 ] || fail "the client ended with status $status"
}

expect_failure() { # function code, as in: C_Login CKR_PIN_LOCKED
    [ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
    grep -qE "PKCS11 function $1 failed: rv = $2 \(0x[0-9a-f]+\)" err || fail "no $2 from $1"
}

# expect_output: standard output is, line by line, what comes in here.
expect_output() {
    diff - out >difference || fail "other output than expected (<): $(cat difference)"
}

# expect_warnings NUMBER FUNCTION(ATTRIBUTE) CODE: how often the client was told so, and went on.
expect_warnings() {
    expect_equal "$(grep -cF "warning: PKCS11 function $2${2:+ failed: rv = }$3" err || true)" "$1" \
        "warnings ${2:-in all}"
}

expect_equal() { # got, expected, what
    [ "$1" = "$2" ] || fail "$3: $1, expected: $2"
}

expect_same() { # file, file
    cmp "$1" "$2" || fail "$1 and $2 differ"
}

# sign ID TEXT SIGNATURE [PIN [SLOT]]: the DigestInfo of a text's SHA-256, signed by the card.
sign() {
    {
        printf '\x30\x31\x30\x0d\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01\x05\x00\x04\x20'
        openssl dgst -sha256 -binary "$2"
    } >digest-info
    client --slot "${5:-0}" --login --pin "${4:-1234}" --sign --mechanism RSA-PKCS --id "$1" \
        --input-file digest-info --output-file "$3"
}

# commands WORDS: how many commands of a kind reached the first card, by its trace.
commands() {
    grep -cE "^[0-9]+ > .*$1" "$VELT_WORLD_DIR/card-1.log" || true
}

# The first card leaves its reader and comes back. The service must have noticed in between: it looks
# at a reader now and then, and would take one that is quick for a card that never left.
power_cycle() {
    kill -USR1 "$VELT_CARD_PID"
    await first_reader_is_empty
    kill -USR2 "$VELT_CARD_PID"
    await_presence "$VELT_WORLD_DIR/card-1.noticed"
}

# keep_powered: for clients that now and then have no connection to the token. The service powers it
# off when nobody has used it for some seconds, which a slow machine may take in between.
keep_powered() {
    "$VELT_PROGRAMS/velt-e2e-hold_readers" held &
    await_presence held
}

first_reader_is_empty() {
    opensc-tool --list-readers | grep -qE '^0 +No '
}

# await_presence FILE, await_absence FILE: at most ten seconds.
await_presence() {
    await test -e "$1"
}

await_absence() {
    await test ! -e "$1"
}

await() {
    local tries=500
    until "$@"; do
        [ $((tries -= 1)) -gt 0 ] || fail "waited in vain: $*"
        sleep 0.02
    done
}

# What is known in the end of a client and a flow goes, as a line with tabs, into a file in the
# directory VELT_RESULTS: client, version, family, column, outcome, flow, commands to the card,
# milliseconds and, where pkcs11-spy looks on, calls of C_GetSlotList.
row_flow=''

# results_of CLIENT PACKAGE FAMILY: whose rows these are; the package tells the version.
results_of() {
    row_client=$1
    row_version=$(dpkg-query -W -f '${Version}' "$2" | sed -E 's/^([0-9]+:)?([0-9]+\.[0-9]+(p[0-9]+)?).*/\2/')
    row_family=$3
    row_file=${VELT_RESULTS:-$PWD}/$(basename "$0" .sh)${3:+-$3}
    mkdir -p "$(dirname "$row_file")"
    : >"$row_file"
}

# row COLUMN ok|part|no FLOW: what the following lines show; they stand for the row if all hold.
row() {
    close_row
    row_column=$1 row_outcome=$2 row_flow=$3
    echo "$row_client, $row_column: $row_flow"
    row_commands=$(all_commands) row_listings=$(slot_listings) row_start=${EPOCHREALTIME/./}
}

close_row() {
    [ -n "$row_flow" ] || return 0
    local now=${EPOCHREALTIME/./}
    printf '%s\t' "$row_client" "$row_version" "$row_family" "$row_column" "$row_outcome" \
        "$row_flow" $(($(all_commands) - row_commands)) $(((now - row_start) / 1000)) >>"$row_file"
    echo $(($(slot_listings) - row_listings)) >>"$row_file"
    row_flow=''
}

all_commands() {
    cat "$VELT_WORLD_DIR"/card-*.log | grep -cE '^[0-9]+ > ' || true
}

slot_listings() {
    [ -e "${PKCS11SPY_OUTPUT:-}" ] || { echo 0 && return; }
    grep -cE '^[0-9]+: C_GetSlotList' "$PKCS11SPY_OUTPUT" || true
}

# listening PORT: whether a server does, in this world.
listening() {
    grep -qE "^ *[0-9]+: [0-9A-F]+:$(printf %04X "$1") 0+:0000 0A" /proc/net/tcp /proc/net/tcp6
}

# issue NAME CERTIFICATE [KEY]: a certificate in PEM, of a key made at once.
issue() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "${3:-/dev/null}" \
        -days 30 -subj "/C=KZ/ST=Region/L=City/O=Somebody/OU=Unit/CN=$1" -out "$2" 2>/dev/null
}
