# Sourced by the scripts of this directory: what they measure, with what, and where results go.
# shellcheck shell=bash
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
module=$root/build/release/velt-pkcs11.so
programs=$root/build/release/bench-programs
cardsim=$root/build/release/velt-cardsim
results=$root/build/bench
# shellcheck disable=SC2034
softhsm=/usr/lib/softhsm/libsofthsm2.so opensc=/usr/lib/$(uname -m)-linux-gnu/opensc-pkcs11.so

# Installs and builds what the measurements need.
prepare() {
    "$root/scripts/install-packages" bench
    if command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER-ccache}
    fi
    mkdir -p "$results"
    (
        cd "$root"
        cmake --preset release --log-level=WARNING
        cmake --build --preset release --target velt-pkcs11 velt-cardsim velt-bench
    ) >"$results/build.log" 2>&1 || {
        cat "$results/build.log" >&2
        exit 1
    }
}

# The families that there are simulated cards of.
families() {
    "$cardsim" --help | sed -nE 's/^Options of family ([^ ]+) .*/\1/p'
}

# in_world FAMILY COMMAND...: beside a card of the family, in a PC/SC service of our own.
in_world() {
    "$root/sim/world/private-pcscd" --cardsim "$cardsim" --card "--family $1 --pin 1234" -- "${@:2}"
}

# The instructions of every operation, a line each: family, operation, instructions.
count_instructions() {
    local family directory part rounds total name
    for family in $(families); do
        directory=$(mktemp -d)
        # Counting begins in the module's calls and pauses where it calls PC/SC.
        rounds=$(valgrind -q --tool=callgrind --collect-atstart=no --toggle-collect='C_*' \
            --toggle-collect='SCard*' --callgrind-out-file="$directory/out" \
            "$programs/velt-bench-instructions" "$family" "$module")
        for part in $(find "$directory" -name 'out.*' | sort -t. -k3 -n); do
            name=$(sed -nE 's/^desc: Trigger: Client Request: (.*)/\1/p' "$part")
            total=$(sed -nE 's/^totals: ([0-9]+)/\1/p' "$part")
            printf '%s\t%s\t%s\n' "$family" "$name" $((total / rounds))
        done
        rm -r "$directory"
    done
}
