#!/usr/bin/env bash
# A user of a program that closes its sessions between uses learns what a token does after the pause:
# the PC/SC service powers a token off that nobody has used for some seconds.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world --card "--family idc" --card "--family kt" --card "--family jc" --card "--family et72k"
work_directory

cat >program.py <<'END'
import sys
import time
from PyKCS11 import *

library = PyKCS11Lib()
library.load(sys.argv[1])
models = []


def objects(slot):
    library.getSlotList(tokenPresent=True)
    try:
        session = library.openSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION)
    except PyKCS11Error as error:
        return hex(error.value)
    count = len(session.findObjects())
    session.closeSession()
    return count


for visit in range(3):
    print([objects(slot) for slot in range(4)])
    time.sleep(0 if visit else 10)
END
status=0
/usr/bin/python3 program.py "$VELT_MODULE" >out 2>err || status=$?
expect_success
# JaCarta and eToken 72K have forgotten their applet then; the program must be started anew.
expect_output <<'END'
[6, 8, 6, 8]
[6, 8, '0x6', '0x6']
[6, 8, '0x6', '0x6']
END
