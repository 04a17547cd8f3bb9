#!/usr/bin/env bash
# A Python program lists, logs in, reads attributes and signs.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/../world.bash"
# shellcheck source=tests/e2e/families.bash
source "$root/tests/e2e/families.bash"
family_facts "$1"
in_world --card "$rsa_pairs --trace"
work_directory
keep_powered
results_of PyKCS11 python3-pykcs11 "$family"

printf 'Pay to the bearer\n' >letter
sign "$first" letter expected "$pin"
expect_success
before=$(signatures)
python() { # what, lines of the program
    cat - >program.py
    status=0
    /usr/bin/python3 program.py "$VELT_MODULE" "$pin" "$first" >out 2>err || status=$?
}
start() {
    cat <<'END'
import sys
from PyKCS11 import *

library = PyKCS11Lib()
library.load(sys.argv[1])
slot = library.getSlotList(tokenPresent=True)[0]
session = library.openSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION)
session.login(sys.argv[2])
identifier = (int(sys.argv[3], 16),)
key = session.findObjects([(CKA_CLASS, CKO_PRIVATE_KEY), (CKA_ID, identifier)])[0]


def code(call):
    try:
        call()
    except PyKCS11Error as error:
        return hex(error.value)
    return "no error"


END
}

row listing ok "getSlotList, getTokenInfo"
python <<'END'
import sys
from PyKCS11 import *

library = PyKCS11Lib()
library.load(sys.argv[1])
slots = library.getSlotList(tokenPresent=True)
print(slots, library.getTokenInfo(slots[0]).model.rstrip("\0 "))
END
expect_success
expect_equal "$(cat out)" "[0] $model" "token"

row reading ok "login, findObjects, getAttributeValue"
{
    start
    cat <<'END'
label = session.getAttributeValue(key, [CKA_LABEL])[0]
print(len(session.findObjects()), len(session.findObjects([(CKA_LABEL, label)])))
certificate = session.findObjects([(CKA_CLASS, CKO_CERTIFICATE), (CKA_ID, identifier)])[0]
value, unknown = session.getAttributeValue(certificate, [CKA_VALUE, 0x12345])
print(unknown)
open("certificate.der", "wb").write(bytes(value))
END
} | python
expect_success
expect_equal "$(cat out)" "6 3
()" "objects, and an attribute that there is not"
client --read-object --type cert --id "$first" --output-file by-tool
expect_same certificate.der by-tool

row signing no "Session.sign"
{
    start
    echo 'print(code(lambda: session.sign(key, bytes(35), Mechanism(CKM_RSA_PKCS))))'
} | python
expect_success
expect_equal "$(cat out)" 0x91 "answer"
expect_equal $(($(signatures) - before)) 1 "signatures that the token was asked for"

row signing ok "C_SignInit and C_Sign with room for the signature"
{
    start
    cat <<'END'
mechanism = Mechanism(CKM_RSA_PKCS)
signature = ckbytelist(bytes(256))
data = ckbytelist(open("digest-info", "rb").read())
print(library.lib.C_SignInit(session.session, mechanism.to_native(), key))
print(library.lib.C_Sign(session.session, data, signature))
open("signature", "wb").write(bytes(signature))
END
} | python
expect_success
expect_equal "$(cat out)" "0
0" "answers"
expect_same signature expected

# The client takes the room that it gave for the number of mechanisms.
row listing no "getMechanismList"
{
    start
    cat <<'END'
try:
    print(len(library.getMechanismList(slot)))
except KeyError:
    print("KeyError")
END
} | python
expect_success
grep -qxE '1024|KeyError' out || fail "the client made something of the list"

row login no "closeAllSessions after a session was closed"
{
    start
    cat <<'END'
session.logout()
session.closeSession()
print(code(lambda: library.closeAllSessions(slot)))
END
} | python
expect_success
expect_equal "$(cat out)" 0xb0 "answer"
