#!/bin/bash
# Dovecot POP3 on loopback serving the Maildir Postfix delivers into, with the
# test account in plain text (no TLS). Every successful log-in also allows the
# client's IP address to relay through Postfix's POP-before-SMTP listener.
#   dovecot-pop3.sh start | stop      (start stops a running instance first)
set -u
source "$(dirname "${BASH_SOURCE[0]}")/env.sh"
source "$KEMAIL_PEERS_SCRIPTS/common.sh"

base="$KEMAIL_PEERS_STATE/dovecot-pop3"
log="$KEMAIL_PEER_LOG_DIR/dovecot-pop3.log"

stop() {
  peer_stop_pid "Dovecot (POP3)" "$base/run/master.pid" 10
}

write_conf() {
  local uid listen=$KEMAIL_PEER_HOST
  uid=$(id -u "$KEMAIL_PEER_MAIL_USER")
  [ "$KEMAIL_PEER_HAS_IPV6" = yes ] && listen="$KEMAIL_PEER_HOST, $KEMAIL_PEER_HOST6"
  # Dovecot's post-login hook runs with a cleared environment: the state
  # directory is baked into this wrapper.
  cat >"$base/pop3-postlogin" <<HOOK
#!/bin/sh
KEMAIL_PEERS_STATE='$KEMAIL_PEERS_STATE' '$KEMAIL_PEERS_SCRIPTS/popauth-map.sh' add "\$IP" \\
  >>'$KEMAIL_PEER_LOG_DIR/popauth.log' 2>&1
exec "\$@"
HOOK
  chmod 755 "$base/pop3-postlogin"
  cat >"$base/dovecot.conf" <<CONF
instance_name = kemail-pop3
base_dir = $base/run
state_dir = $base/state
log_path = $log
protocols = pop3
listen = $listen
# TLS: STLS offered on the plain listener, POP3S on its own port; USER and
# PASS in the clear stay allowed for the plain tests.
ssl = yes
ssl_cert = <$KEMAIL_PEER_TLS_DIR/server.pem
ssl_key = <$KEMAIL_PEER_TLS_DIR/server.key
disable_plaintext_auth = no
auth_mechanisms = plain login
# A wrong password is answered at once (Dovecot waits 2 s by default),
# so tests of refused log-ins stay fast.
auth_failure_delay = 0
first_valid_uid = $uid
mail_location = maildir:$KEMAIL_PEER_MAILDIR
pop3_uidl_format = %08Xu%08Xv
passdb {
  driver = passwd-file
  args = scheme=PLAIN $KEMAIL_PEERS_STATE/etc/users
}
userdb {
  driver = passwd-file
  args = $KEMAIL_PEERS_STATE/etc/users
}
service pop3-login {
  inet_listener pop3 {
    address = $listen
    port = $KEMAIL_PEER_POP3_PORT
  }
  inet_listener pop3s {
    address = $KEMAIL_PEER_HOST
    port = $KEMAIL_PEER_POP3S_PORT
    ssl = yes
  }
}
service pop3 {
  executable = pop3 pop3-postlogin
}
service pop3-postlogin {
  executable = script-login $base/pop3-postlogin
  user = root
  unix_listener pop3-postlogin {
  }
}
CONF
  peer_backdate "$base/dovecot.conf"
}

start() {
  peer_require_root
  stop
  peer_require_free_port "$KEMAIL_PEER_POP3_PORT"
  peer_require_free_port "$KEMAIL_PEER_POP3S_PORT"
  "$KEMAIL_PEERS_SCRIPTS/test-ca.sh" || peer_die "cannot make the test CA and certificates"
  rm -rf "$base"
  peer_prepare_shared
  mkdir -p "$base/run" "$base/state"
  write_conf
  dovecot -c "$base/dovecot.conf" </dev/null >>"$log" 2>&1 || peer_die "Dovecot (POP3) did not start (see $log)"
  # Dovecot delays log-ins from an address after failed ones (2, 4 ... 15 s),
  # which would stall every test after a deliberate wrong password. The auth
  # process skips the delay when it finds no penalty socket at its start, so
  # the socket goes before the first client makes Dovecot start that process.
  [ -S "$base/run/anvil-auth-penalty" ] || peer_die "Dovecot (POP3) made no anvil-auth-penalty socket (see $log)"
  rm -f "$base/run/anvil-auth-penalty"
  peer_wait_greeting "Dovecot (POP3)" "$log" pop3 "$KEMAIL_PEER_POP3_PORT" >/dev/null || exit 1
  peer_wait_greeting "Dovecot (POP3S)" "$log" pop3s "$KEMAIL_PEER_POP3S_PORT" >/dev/null || exit 1
  if [ "$KEMAIL_PEER_HAS_IPV6" = yes ]; then
    KEMAIL_PROBE_HOST=$KEMAIL_PEER_HOST6 peer_wait_greeting "Dovecot (POP3, IPv6)" "$log" pop3 \
      "$KEMAIL_PEER_POP3_PORT" >/dev/null || exit 1
  fi
}

case "${1:-}" in
  start) start ;;
  stop) stop ;;
  *) echo "usage: dovecot-pop3.sh start|stop" >&2; exit 2 ;;
esac
