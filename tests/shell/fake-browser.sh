#!/usr/bin/env bash
# Stands in for the user's browser in the sign-in test: records the login address it is given,
# then "completes the sign-in" by starting the program with the callback address, as the
# desktop would, and records how that second start ended and how long it took.
set -u
url="$1"
echo "$url" >"$RAVLET_BROWSER_DIR/opened"
state="${url##*state=}"
start=$(date +%s%N)
"$RAVLET_TEST_PROGRAM" "ravlet://auth-callback?code=one-time-code&state=$state" \
    >"$RAVLET_BROWSER_DIR/second.out" 2>&1
status=$?
end=$(date +%s%N)
echo "$status $(((end - start) / 1000000))" >"$RAVLET_BROWSER_DIR/second.result"
