"""How long the daemon takes for what the tests wait on."""

# A steady pass of the supervision loop sleeps this long.
PASS_SECONDS = 5
# One supervision pass (5 s sleep) plus the pass itself.
ONE_PASS = 7
# A SIGTERM or SIGINT ends the daemon within this.
STOP_LIMIT = 10
# A change is followed within one sleep plus the time the pass itself takes
# (generous: the test machines are shared).
WITHIN_ONE_PASS = PASS_SECONDS + 7
# How long the log must stay unchanged for a pass to count as finished, and
# how long a wait for that may take.
QUIET_SECONDS = 1.5
QUIET_LIMIT = WITHIN_ONE_PASS
