#!/bin/bash
# Postfix on loopback with five SMTP listeners (two with TLS, one open one
# on [::1] too when the loopback has IPv6), and the private Dovecot
# instance that is its SASL server:  postfix.sh start | stop
# start stops a running instance first and begins with an empty queue.
set -u
source "$(dirname "${BASH_SOURCE[0]}")/env.sh"
source "$KEMAIL_PEERS_SCRIPTS/common.sh"

base="$KEMAIL_PEERS_STATE/postfix"
conf="$base/etc"
spool="$base/spool"
auth="$KEMAIL_PEERS_STATE/dovecot-auth"
log="$KEMAIL_PEER_LOG_DIR/postfix.log"
auth_log="$KEMAIL_PEER_LOG_DIR/dovecot-auth.log"
sasl_socket="private/kemail-auth"

stop() {
  # Both take a second or more to shut down: stop them side by side. A TERM
  # to Postfix's master is what "postfix stop" sends; it then ends its children.
  peer_stop_pid "Postfix master" "$spool/pid/master.pid" 10 &
  peer_stop_pid "Dovecot (SASL)" "$auth/run/master.pid" 10
  wait $!
}

write_dovecot_conf() {
  cat >"$auth/dovecot.conf" <<CONF
# Private Dovecot that only answers Postfix's SASL questions.
instance_name = kemail-auth
base_dir = $auth/run
state_dir = $auth/state
log_path = $auth_log
protocols =
ssl = no
disable_plaintext_auth = no
# CRAM-MD5 needs the plain password, hence {PLAIN} in the users file.
auth_mechanisms = plain login cram-md5
# A wrong password is answered at once (Dovecot waits 2 s by default),
# so tests of refused log-ins stay fast.
auth_failure_delay = 0
passdb {
  driver = passwd-file
  args = scheme=PLAIN $KEMAIL_PEERS_STATE/etc/users
}
userdb {
  driver = passwd-file
  args = $KEMAIL_PEERS_STATE/etc/users
}
service auth {
  unix_listener $spool/$sasl_socket {
    mode = 0660
    user = postfix
    group = postfix
  }
}
CONF
  peer_backdate "$auth/dovecot.conf"
}

write_postfix_conf() {
  local uid gid interfaces=$KEMAIL_PEER_HOST protocols=ipv4 networks=127.0.0.0/8 ipv6_listener=""
  uid=$(id -u "$KEMAIL_PEER_MAIL_USER")
  gid=$(id -g "$KEMAIL_PEER_MAIL_USER")
  if [ "$KEMAIL_PEER_HAS_IPV6" = yes ]; then
    # The open listener on [::1] too, for clients that resolve to IPv6.
    interfaces="$KEMAIL_PEER_HOST, [$KEMAIL_PEER_HOST6]"
    protocols=all
    networks="127.0.0.0/8, [$KEMAIL_PEER_HOST6]/128"
    ipv6_listener="[$KEMAIL_PEER_HOST6]:$KEMAIL_PEER_SMTP_OPEN_PORT inet n - n - - smtpd
  -o syslog_name=postfix/open6"
  fi
  cat >"$conf/main.cf" <<CONF
compatibility_level = 3.6
queue_directory = $spool
data_directory = $base/data
# Explicit names: the machine's host name need not be a domain name.
myhostname = mx.$KEMAIL_PEER_DOMAIN
mydomain = $KEMAIL_PEER_DOMAIN
myorigin = \$mydomain
mydestination =
inet_interfaces = $interfaces
inet_protocols = $protocols
mynetworks = $networks
smtpd_peername_lookup = no
# Keep what clients send as they sent it: no Date or Message-Id added, no
# address in a header rewritten (loopback would count as local otherwise).
local_header_rewrite_clients =
smtpd_error_sleep_time = 0
biff = no
readme_directory = no
alias_maps =
alias_database =
local_recipient_maps =
# There is no syslog: Postfix logs through postlogd into the state directory.
maillog_file = $log
maillog_file_prefixes = $KEMAIL_PEERS_STATE
# Every recipient, whatever its domain, ends in one Maildir: nothing leaves.
transport_maps = static:virtual:
virtual_mailbox_domains = $KEMAIL_PEER_DOMAIN
virtual_mailbox_base = $KEMAIL_PEERS_STATE/mail
virtual_mailbox_maps = static:Maildir/
virtual_uid_maps = static:$uid
virtual_gid_maps = static:$gid
virtual_minimum_uid = $uid
# SASL through the private Dovecot, in the clear (no TLS anywhere).
smtpd_sasl_type = dovecot
smtpd_sasl_path = $sasl_socket
smtpd_sasl_security_options = noanonymous
smtpd_tls_security_level = none
smtpd_tls_auth_only = no
# TLS for the listeners that ask for it (the others stay in the clear):
# the test CA's server certificate, and TLS noted in the Received header.
smtpd_tls_cert_file = $KEMAIL_PEER_TLS_DIR/server.pem
smtpd_tls_key_file = $KEMAIL_PEER_TLS_DIR/server.key
smtpd_tls_received_header = yes
smtpd_tls_loglevel = 1
# Also announce the old "AUTH=" form, which clients must tolerate.
broken_sasl_auth_clients = yes
# Restrictions of the AUTH listener: MAIL without AUTH gets 530.
kemail_auth_only = permit_sasl_authenticated, check_client_access static:{530 5.7.0 Authentication required}, reject
# Relay rule of the POP-before-SMTP listener.
kemail_popauth_relay = check_client_access hash:$conf/popauth, reject_unauth_destination
CONF
  # The options of every listener that requires AUTH (MAIL without it: 530).
  local auth_required='  -o smtpd_sasl_auth_enable=yes
  -o smtpd_delay_reject=no
  -o smtpd_sender_restrictions=$kemail_auth_only
  -o smtpd_relay_restrictions=$kemail_auth_only
  -o smtpd_recipient_restrictions=$kemail_auth_only'
  cat >"$conf/master.cf" <<CONF
# No service is chrooted: a chroot would need copies of /etc files.
$KEMAIL_PEER_HOST:$KEMAIL_PEER_SMTP_OPEN_PORT inet n - n - - smtpd
  -o syslog_name=postfix/open
$KEMAIL_PEER_HOST:$KEMAIL_PEER_SMTP_AUTH_PORT inet n - n - - smtpd
  -o syslog_name=postfix/auth
$auth_required
$KEMAIL_PEER_HOST:$KEMAIL_PEER_SMTP_POPAUTH_PORT inet n - n - - smtpd
  -o syslog_name=postfix/popauth
  -o mynetworks=
  -o smtpd_relay_restrictions=\$kemail_popauth_relay
$KEMAIL_PEER_HOST:$KEMAIL_PEER_SMTP_STARTTLS_PORT inet n - n - - smtpd
  -o syslog_name=postfix/starttls
  -o smtpd_tls_security_level=may
  -o smtpd_tls_auth_only=yes
$auth_required
$KEMAIL_PEER_HOST:$KEMAIL_PEER_SMTPS_PORT inet n - n - - smtpd
  -o syslog_name=postfix/smtps
  -o smtpd_tls_wrappermode=yes
  -o smtpd_tls_security_level=encrypt
$auth_required
$ipv6_listener
tlsmgr     unix  - - n 1000? 1 tlsmgr
pickup     unix  n - n 60   1 pickup
cleanup    unix  n - n -    0 cleanup
qmgr       unix  n - n 300  1 qmgr
rewrite    unix  - - n -    - trivial-rewrite
bounce     unix  - - n -    0 bounce
defer      unix  - - n -    0 bounce
trace      unix  - - n -    0 bounce
verify     unix  - - n -    1 verify
flush      unix  n - n 1000? 0 flush
proxymap   unix  - - n -    - proxymap
proxywrite unix  - - n -    1 proxymap
smtp       unix  - - n -    - smtp
relay      unix  - - n -    - smtp
showq      unix  n - n -    - showq
error      unix  - - n -    - error
retry      unix  - - n -    - error
discard    unix  - - n -    - discard
local      unix  - n n -    - local
virtual    unix  - n n -    - virtual
anvil      unix  - - n -    1 anvil
scache     unix  - - n -    1 scache
postlog    unix-dgram n - n - 1 postlogd
CONF
  peer_backdate "$conf/main.cf" "$conf/master.cf"
}

start() {
  peer_require_root
  stop
  local port
  for port in "$KEMAIL_PEER_SMTP_OPEN_PORT" "$KEMAIL_PEER_SMTP_AUTH_PORT" "$KEMAIL_PEER_SMTP_POPAUTH_PORT" \
              "$KEMAIL_PEER_SMTP_STARTTLS_PORT" "$KEMAIL_PEER_SMTPS_PORT"; do
    peer_require_free_port "$port"
  done
  rm -rf "$base" "$auth"
  peer_prepare_shared
  mkdir -p "$conf" "$spool" "$base/data" "$auth/run" "$auth/state"
  chown postfix:postfix "$base/data"
  "$KEMAIL_PEERS_SCRIPTS/test-ca.sh" || peer_die "cannot make the test CA and certificates"
  write_postfix_conf
  write_dovecot_conf
  "$KEMAIL_PEERS_SCRIPTS/popauth-map.sh" init >>"$log" 2>&1 || peer_die "cannot build the POP-before-SMTP map (see $log)"
  # check creates the queue directories, private/ among them, which must
  # exist before Dovecot puts its SASL socket there.
  postfix -c "$conf" check >>"$log" 2>&1 || peer_die "postfix check failed (see $log)"
  dovecot -c "$auth/dovecot.conf" </dev/null >>"$auth_log" 2>&1 || peer_die "Dovecot (SASL) did not start (see $auth_log)"
  # As for POP3: no growing delay after a wrong password (see dovecot-pop3.sh).
  [ -S "$auth/run/anvil-auth-penalty" ] || peer_die "Dovecot (SASL) made no anvil-auth-penalty socket (see $auth_log)"
  rm -f "$auth/run/anvil-auth-penalty"
  local i
  for ((i = 0; i < KEMAIL_PEER_START_TIMEOUT * 10; i++)); do
    [ -S "$spool/$sasl_socket" ] && break
    sleep 0.1
  done
  [ -S "$spool/$sasl_socket" ] || peer_die "Dovecot made no SASL socket $spool/$sasl_socket (see $auth_log)"
  postfix -c "$conf" start </dev/null >>"$log" 2>&1 || peer_die "postfix start failed (see $log)"
  peer_wait_greeting "Postfix (open)" "$log" smtp "$KEMAIL_PEER_SMTP_OPEN_PORT" >/dev/null || exit 1
  peer_wait_greeting "Postfix (AUTH)" "$log" smtp "$KEMAIL_PEER_SMTP_AUTH_PORT" CRAM-MD5 PLAIN LOGIN \
    >/dev/null || exit 1
  peer_wait_greeting "Postfix (POP before SMTP)" "$log" smtp "$KEMAIL_PEER_SMTP_POPAUTH_PORT" >/dev/null || exit 1
  peer_wait_greeting "Postfix (STARTTLS)" "$log" starttls "$KEMAIL_PEER_SMTP_STARTTLS_PORT" CRAM-MD5 PLAIN \
    LOGIN >/dev/null || exit 1
  peer_wait_greeting "Postfix (SMTPS)" "$log" smtps "$KEMAIL_PEER_SMTPS_PORT" CRAM-MD5 PLAIN LOGIN \
    >/dev/null || exit 1
  if [ "$KEMAIL_PEER_HAS_IPV6" = yes ]; then
    KEMAIL_PROBE_HOST=$KEMAIL_PEER_HOST6 peer_wait_greeting "Postfix (open, IPv6)" "$log" smtp \
      "$KEMAIL_PEER_SMTP_OPEN_PORT" >/dev/null || exit 1
  fi
}

case "${1:-}" in
  start) start ;;
  stop) stop ;;
  *) echo "usage: postfix.sh start|stop" >&2; exit 2 ;;
esac
