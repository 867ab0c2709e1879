#!/bin/bash
# Stops every real peer started from $KEMAIL_PEERS_STATE, all at once (each
# takes a second or more to shut down). Quiet when none runs; the state
# directory (mail, logs) is left for inspection.
set -u
source "$(dirname "${BASH_SOURCE[0]}")/env.sh"

pids=()
for server in aiosmtpd dovecot-pop3 postfix; do
  "$KEMAIL_PEERS_SCRIPTS/$server.sh" stop &
  pids+=($!)
done
rc=0
for pid in "${pids[@]}"; do
  wait "$pid" || rc=1
done
exit $rc
