# shellcheck shell=bash
# Functions shared by the real-peer start/stop scripts. Source env.sh first.

peer_die() {
  echo "peers: $*" >&2
  exit 1
}

peer_require_root() {
  [ "$(id -u)" -eq 0 ] || peer_die "must run as root (the servers bind ports and switch users)"
}

# peer_port_in_use PORT: true when something accepts connections on it.
peer_port_in_use() {
  (exec 3<>"/dev/tcp/$KEMAIL_PEER_HOST/$1") 2>/dev/null
}

peer_require_free_port() {
  if peer_port_in_use "$1"; then
    peer_die "port $KEMAIL_PEER_HOST:$1 is held by another program (not started from $KEMAIL_PEERS_STATE)"
  fi
}

# peer_probe smtp|pop3 PORT [MECHANISM...]: one bounded greeting check.
peer_probe() {
  /usr/bin/python3 "$KEMAIL_PEERS_SCRIPTS/probe.py" "$@"
}

# peer_wait_greeting NAME LOG smtp|pop3 PORT [MECHANISM...]: waits up to
# $KEMAIL_PEER_START_TIMEOUT seconds for a real greeting (an open port alone
# proves nothing: Postfix's master holds it even when every smtpd dies).
peer_wait_greeting() {
  local name=$1 log=$2
  shift 2
  local deadline=$((SECONDS + KEMAIL_PEER_START_TIMEOUT)) out
  while :; do
    out=$(peer_probe "$@") && return 0
    if [ "$SECONDS" -ge "$deadline" ]; then
      echo "peers: $name gave no greeting within ${KEMAIL_PEER_START_TIMEOUT}s: $out" >&2
      [ -f "$log" ] && { echo "--- last lines of $log:" >&2; tail -n 20 "$log" >&2; }
      return 1
    fi
    sleep 0.1
  done
}

# peer_stop_pid NAME PIDFILE [SECONDS]: TERM the process named in PIDFILE, wait
# for it to end, KILL it when it outlives the bound. Quiet when none runs.
peer_stop_pid() {
  local name=$1 pidfile=$2 bound=${3:-10} pid i
  [ -f "$pidfile" ] || return 0
  pid=$(tr -dc 0-9 <"$pidfile")
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
    kill -TERM "$pid" 2>/dev/null
    for ((i = 0; i < bound * 10; i++)); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null; then
      echo "peers: $name (pid $pid) ignored TERM for ${bound}s; killing it" >&2
      kill -KILL "$pid" 2>/dev/null
      sleep 0.2
    fi
  fi
  rm -f "$pidfile"
}

# The unprivileged owner of the Maildir, created once as a system user.
peer_ensure_mail_user() {
  id -u "$KEMAIL_PEER_MAIL_USER" >/dev/null 2>&1 && return 0
  useradd --system --no-create-home --home-dir /nonexistent --shell /usr/sbin/nologin \
    "$KEMAIL_PEER_MAIL_USER" || peer_die "cannot create system user $KEMAIL_PEER_MAIL_USER"
}

# The Maildir that Postfix delivers into and Dovecot POP3 serves, and the
# passwd-file both Dovecot instances read the test account from.
peer_prepare_shared() {
  peer_ensure_mail_user
  local uid gid
  uid=$(id -u "$KEMAIL_PEER_MAIL_USER")
  gid=$(id -g "$KEMAIL_PEER_MAIL_USER")
  mkdir -p "$KEMAIL_PEER_LOG_DIR" "$KEMAIL_PEERS_STATE/etc" "$KEMAIL_PEER_MAILDIR"/{new,cur,tmp}
  chmod 755 "$KEMAIL_PEERS_STATE" "$KEMAIL_PEERS_STATE/etc"
  chown -R "$uid:$gid" "$KEMAIL_PEERS_STATE/mail"
  local users="$KEMAIL_PEERS_STATE/etc/users"
  printf '%s:{PLAIN}%s:%s:%s::%s::\n' "$KEMAIL_PEER_USER" "$KEMAIL_PEER_PASSWORD" "$uid" "$gid" \
    "$KEMAIL_PEERS_STATE/mail" >"$users"
  chown root:dovecot "$users"
  chmod 640 "$users"
}

# Postfix and Dovecot re-read a configuration file written in the current
# second until it is older; backdating it saves seconds at every start.
peer_backdate() {
  touch -d "@$(($(date +%s) - 2))" "$@"
}

# peer_spawn LOG PIDFILE COMMAND...: starts a daemon detached from the caller,
# with no inherited descriptors (a caller's $(...) or pipe must not hang).
peer_spawn() {
  local log=$1 pidfile=$2
  shift 2
  setsid "$@" </dev/null >>"$log" 2>&1 &
  echo $! >"$pidfile"
}
