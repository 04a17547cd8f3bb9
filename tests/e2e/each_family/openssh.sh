#!/usr/bin/env bash
# A user logs in to other machines with the key on the token, through ssh-agent, and signs files.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "$rsa_pairs --trace"
work_directory
keep_powered
results_of OpenSSH openssh-client "$family"
client_options=(-F /dev/null -p 2222 -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null
    -o PreferredAuthentications=publickey -o LogLevel=ERROR)
run() {
    status=0
    timeout 60 "$@" >out 2>err </dev/null || status=$?
}

# A server for this user alone, and an agent that asks a program for the PIN.
chmod 755 .
ssh-keygen -q -t ed25519 -N '' -f host-key
cat >configuration <<END
Port 2222
ListenAddress 127.0.0.1
HostKey $PWD/host-key
AuthorizedKeysFile $PWD/keys
PidFile none
StrictModes no
UsePAM no
END
mkdir -p /run/sshd
"$(PATH=$PATH:/usr/sbin type -P sshd)" -D -e -f configuration >sshd.log 2>&1 &
ssh-agent -D -P '/*' -a "$PWD/agent" >agent.log 2>&1 &
# shellcheck disable=SC2016  # it is the program's own variable
printf '#!/bin/sh\necho "$TOKEN_PIN"\n' >ask-pin
chmod +x ask-pin
export SSH_ASKPASS=$PWD/ask-pin SSH_ASKPASS_REQUIRE=force DISPLAY=none TOKEN_PIN=$pin
export SSH_AUTH_SOCK=$PWD/agent
await_presence agent
await listening 2222

row listing ok "ssh-keygen -D"
run ssh-keygen -D "$VELT_MODULE"
expect_success
expect_equal "$(cut -d ' ' -f 1 out | sort | uniq -c | tr -s ' ')" " 2 ssh-rsa" "kinds of keys"
expect_equal "$(commands 'verify the PIN')" 0 "PINs verified"
cp out keys
head -n 1 out >first.pub

row login ok "ssh-add -s refuses a wrong PIN"
TOKEN_PIN=$wrong_pin run ssh-add -s "$VELT_MODULE"
[ "$status" -eq 1 ] || fail "the client ended with status $status, not 1"
grep -q 'agent refused operation' err || fail "the agent does not refuse"

row login ok "ssh-add -s"
run ssh-add -s "$VELT_MODULE"
expect_success
run ssh-add -l
expect_success
expect_equal "$(grep -c '(RSA)$' out)" 2 "keys"

letter_signs() { # key
    printf 'Pay to the bearer\n' >letter
    rm -f letter.sig
    run ssh-keygen -Y sign -f "$1" -n file letter
    expect_success
    echo "somebody $(cat "$1")" >allowed
    ssh-keygen -Y verify -f allowed -I somebody -n file -s letter.sig <letter >out 2>err ||
        fail "the signature does not verify"
}
row signing ok "ssh-keygen -Y sign, through ssh-agent"
letter_signs first.pub
expect_equal "$(signatures)" 1 "signatures that the token was asked for"

row login ok "ssh, through ssh-agent"
run ssh "${client_options[@]}" -o IdentitiesOnly=yes -i first.pub 127.0.0.1 echo arrived
expect_success
expect_equal "$(cat out)" arrived "what the other machine said"
expect_equal "$(signatures)" 2 "signatures that the token was asked for"

row login ok "ssh-add -e, then -s again"
run ssh-add -e "$VELT_MODULE"
expect_success
run ssh-add -l
[ "$status" -eq 1 ] || fail "the agent still has keys"
run ssh-add -s "$VELT_MODULE"
expect_success
letter_signs first.pub

# Opening a JaCarta or an eToken selects its applet anew, which ends the login.
case $family in
jc | et72k) row login part "another program opens the token while ssh-agent uses it" ;;
*) row login ok "another program opens the token while ssh-agent uses it" ;;
esac
client --list-objects
expect_success
case $family in
jc | et72k)
    run ssh-keygen -Y sign -f first.pub -n file letter
    [ "$status" -ne 0 ] || fail "the token signs though nobody is logged in"
    grep -q 'agent refused operation' err || fail "the agent does not refuse"
    run ssh-add -e "$VELT_MODULE"
    run ssh-add -s "$VELT_MODULE"
    expect_success
    ;;
esac
letter_signs first.pub

row login ok "ssh -o PKCS11Provider, without an agent"
unset SSH_AUTH_SOCK
run ssh "${client_options[@]}" -o PKCS11Provider="$VELT_MODULE" 127.0.0.1 echo arrived
expect_success
expect_equal "$(cat out)" arrived "what the other machine said"
