#!/bin/sh
# Runs a link command (CMake's RULE_LAUNCH_LINK) and passes on everything the
# linker prints except its note that a statically linked getaddrinfo loads
# the system's name-service modules at run time, together with the line
# naming the caller that leads it. That is known and provided for: the
# package depends on the C library release the program was linked with.
# The link's exit status is kept.
notes=$(mktemp) || exit 1
"$@" 2>"$notes"
status=$?
awk '
  /: in function `/ { if (held != "") print held; held = $0; next }
  /warning: Using .getaddrinfo. in statically linked applications/ { held = ""; next }
  { if (held != "") { print held; held = "" } print }
  END { if (held != "") print held }
' "$notes" >&2
rm -f "$notes"
exit $status
