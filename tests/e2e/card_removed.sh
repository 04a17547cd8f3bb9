#!/usr/bin/env bash
# A user who pulls the card while an application works gets plain errors, and goes on with a card.
# shellcheck source=tests/e2e/world.bash
source "$(dirname "$0")/world.bash"
in_world
work_directory

"$VELT_PROGRAMS/velt-e2e-mid_session" "$VELT_MODULE" "kill -USR1 $VELT_CARD_PID" "kill -USR2 $VELT_CARD_PID" >out ||
    fail "the application saw other codes"
cat out
