#!/bin/bash
# Maintains the POP-before-SMTP client map that Postfix's listener on
# $KEMAIL_PEER_SMTP_POPAUTH_PORT consults:
#   popauth-map.sh init       an empty map (no client may relay)
#   popauth-map.sh add IP     allow IP (Dovecot's POP3 post-login hook)
#   popauth-map.sh clear      forget every client again
# Each change is built into a new .db and renamed over the old one: Postfix
# sees a replaced file at once, an rewritten one only after a second.
set -u
# Postfix reads the map as its own user; Dovecot runs this hook with umask 077.
umask 022
source "$(dirname "${BASH_SOURCE[0]}")/env.sh"

conf="$KEMAIL_PEERS_STATE/postfix/etc"
clients="$KEMAIL_PEERS_STATE/postfix/popauth.clients"
[ -d "$conf" ] || { echo "popauth-map: no Postfix configuration in $conf" >&2; exit 1; }

exec 9>"$KEMAIL_PEERS_STATE/postfix/popauth.lock"
flock -w 10 9 || { echo "popauth-map: lock busy" >&2; exit 1; }

case "${1:-}" in
  init | clear) : >"$clients" ;;
  add)
    [ -n "${2:-}" ] || { echo "popauth-map: add needs an IP address" >&2; exit 2; }
    grep -qxF "$2" "$clients" 2>/dev/null || echo "$2" >>"$clients"
    ;;
  *) echo "usage: popauth-map.sh init|clear|add IP" >&2; exit 2 ;;
esac

awk '{ printf "%s\tOK\n", $1 }' "$clients" >"$conf/popauth.new"
postmap -c "$conf" "hash:$conf/popauth.new" || exit 1
mv -f "$conf/popauth.new.db" "$conf/popauth.db"
mv -f "$conf/popauth.new" "$conf/popauth"
