#!/bin/bash
# The real peers themselves: every listener greets, each AUTH mechanism works
# and a wrong password is refused, mail lands where the tests look for it,
# POP3 logs in, POP before SMTP refuses and then relays, and everything stops.
# Spoken with Python's own smtplib/poplib, never with kemail code.
# Argument 1 (the build directory) is not needed here.
set -u
source "$(dirname "$0")/lib.sh"

peers_require
peers_start

# dialogue CHECK: one raw dialogue in Debian's Python; exit status = verdict.
dialogue() {
  /usr/bin/python3 - "$@" <<'PY'
import hashlib, hmac, os, smtplib, socket, sys

HOST = os.environ["KEMAIL_PEER_HOST"]
USER = os.environ["KEMAIL_PEER_USER"]
PASSWORD = os.environ["KEMAIL_PEER_PASSWORD"]
DOMAIN = os.environ["KEMAIL_PEER_DOMAIN"]
PORT = {name: int(os.environ[f"KEMAIL_PEER_{name}_PORT"])
        for name in ("SMTP_OPEN", "SMTP_AUTH", "SMTP_POPAUTH", "POP3", "AIOSMTPD")}


def smtp(port, source=None):
    s = smtplib.SMTP(HOST, port, timeout=10,
                     source_address=(source, 0) if source else None)
    s.ehlo("client.kemail.test")
    return s


def expect(what, got, want):
    if got != want:
        print(f"  {what}: got {got!r}, want {want!r}")
        sys.exit(1)


def message(subject):
    return (f"From: sender@{DOMAIN}\r\nTo: {USER}@{DOMAIN}\r\nSubject: {subject}\r\n"
            f"\r\nline one\r\n.leading dot\r\nlast line\r\n").encode()


def send(s, subject, rcpt=None):
    refused = s.sendmail(f"sender@{DOMAIN}", [rcpt or f"{USER}@{DOMAIN}"], message(subject))
    expect("refused recipients", refused, {})


def auth(s, mechanism, password):
    s.user, s.password = USER, password
    method = {"CRAM-MD5": s.auth_cram_md5, "PLAIN": s.auth_plain, "LOGIN": s.auth_login}[mechanism]
    try:
        return s.auth(mechanism, method, initial_response_ok=False)[0]
    except smtplib.SMTPAuthenticationError as e:
        return e.smtp_code


def pop3_login(password, source=None):
    with socket.create_connection((HOST, PORT["POP3"]), timeout=10,
                                  source_address=(source, 0) if source else None) as c:
        f = c.makefile("rwb")
        def cmd(line):
            if line:
                f.write(line.encode() + b"\r\n")
                f.flush()
            return f.readline().decode().rstrip("\r\n")
        replies = [cmd(None), cmd(f"USER {USER}"), cmd(f"PASS {password}")]
        if replies[2].startswith("+OK"):
            replies.append(cmd("STAT"))
        replies.append(cmd("QUIT"))
        return replies


check = sys.argv[1]
if check == "open-offers-no-auth":
    s = smtp(PORT["SMTP_OPEN"])
    expect("AUTH offered", s.has_extn("auth"), False)
    send(s, "open listener")
    s.quit()
elif check == "auth-listener-demands-auth":
    s = smtp(PORT["SMTP_AUTH"])
    # smtplib merges the "AUTH" line and the old "AUTH=" one Postfix also sends.
    expect("AUTH line", sorted(set(s.esmtp_features["auth"].split())), ["CRAM-MD5", "LOGIN", "PLAIN"])
    expect("MAIL without AUTH", s.mail(f"sender@{DOMAIN}")[0], 530)
    s.close()
elif check in ("postfix-auth", "aiosmtpd-auth"):
    port = PORT["SMTP_AUTH" if check == "postfix-auth" else "AIOSMTPD"]
    for mechanism in ("CRAM-MD5", "PLAIN", "LOGIN"):
        s = smtp(port)
        expect(f"{mechanism} with a wrong password", auth(s, mechanism, "wrong-" + PASSWORD), 535)
        s.close()
        s = smtp(port)
        expect(f"{mechanism} with the right password", auth(s, mechanism, PASSWORD), 235)
        send(s, f"AUTH {mechanism}")
        s.quit()
elif check == "pop3-login-and-stat":
    wrong = pop3_login("wrong-" + PASSWORD)
    expect("PASS with a wrong password", wrong[2].startswith("-ERR"), True)
    right = pop3_login(PASSWORD)
    expect("greeting", right[0].startswith("+OK"), True)
    expect("PASS", right[2].startswith("+OK"), True)
    expect("STAT", right[3].split()[:2], ["+OK", sys.argv[2]])
elif check == "pop-before-smtp":
    source, foreign = "127.0.0.42", "someone@example.org"
    s = smtp(PORT["SMTP_POPAUTH"], source)
    s.mail(f"sender@{DOMAIN}")
    code, text = s.rcpt(foreign)
    expect("relay before POP3", (code, text.decode()[:24]), (554, "5.7.1 <someone@example.o"))
    s.quit()
    expect("POP3 log-in", pop3_login(PASSWORD, source)[2].startswith("+OK"), True)
    s = smtp(PORT["SMTP_POPAUTH"], source)
    send(s, "POP before SMTP", foreign)
    s.quit()
    s = smtp(PORT["SMTP_POPAUTH"], "127.0.0.43")
    s.mail(f"sender@{DOMAIN}")
    expect("relay for another address", s.rcpt(foreign)[0], 554)
    s.quit()
PY
}

# The message as the client sent it, with Postfix's headers set aside.
postfix_kept_the_message() {
  local file=$1 subject=$2
  [ "$(peers_strip_postfix_headers "$file" | peers_lf_to_crlf)" = \
    "$(printf 'From: sender@%s\r\nTo: %s@%s\r\nSubject: %s\r\n\r\nline one\r\n.leading dot\r\nlast line\r' \
      "$KEMAIL_PEER_DOMAIN" "$KEMAIL_PEER_USER" "$KEMAIL_PEER_DOMAIN" "$subject")" ] &&
    peers_postfix_headers "$file" | grep -q '^Return-Path: <sender@'
}

maildir_holds() {
  peers_wait_maildir "$1" >/dev/null
}

# aiosmtpd stores the bytes as received, CRLF and all, with the envelope.
aiosmtpd_kept_the_messages() {
  local n=0 file mechanism
  for mechanism in CRAM-MD5 PLAIN LOGIN; do
    n=$((n + 1))
    file=$(peers_aiosmtpd_list | sed -n "${n}p")
    cmp -s "$file" <(printf 'From: sender@%s\r\nTo: %s@%s\r\nSubject: AUTH %s\r\n\r\nline one\r\n.leading dot\r\nlast line\r\n' \
      "$KEMAIL_PEER_DOMAIN" "$KEMAIL_PEER_USER" "$KEMAIL_PEER_DOMAIN" "$mechanism") || return 1
    [ "$(cat "${file%.eml}.env")" = "$(printf 'mail-from: sender@%s\nrcpt-to: %s@%s\nauth: %s' \
      "$KEMAIL_PEER_DOMAIN" "$KEMAIL_PEER_USER" "$KEMAIL_PEER_DOMAIN" "$KEMAIL_PEER_USER")" ] || return 1
  done
}

peers_check "every listener greets (and AUTH lists CRAM-MD5 PLAIN LOGIN)" "$KEMAIL_REPO_ROOT/scripts/peers/status.sh" --quiet

peers_check "open listener offers no AUTH and accepts mail" dialogue open-offers-no-auth
peers_check "Postfix delivers it into the Maildir" maildir_holds 1
peers_check "the Maildir copy is the message sent, under Postfix's headers" \
  postfix_kept_the_message "$(peers_maildir_list | tail -n 1)" "open listener"

peers_check "AUTH listener answers MAIL without AUTH with 530" dialogue auth-listener-demands-auth
peers_check "Postfix: CRAM-MD5, PLAIN, LOGIN give 235, a wrong password 535" dialogue postfix-auth
peers_check "the three authenticated messages arrive" maildir_holds 4

peers_check "Dovecot POP3 refuses a wrong password, logs in, STAT counts 4" dialogue pop3-login-and-stat 4

peers_maildir_clear
peers_check "POP before SMTP: relay refused, POP3 log-in, relay allowed" dialogue pop-before-smtp
peers_check "the relayed message lands in the same Maildir" maildir_holds 1

peers_check "aiosmtpd: CRAM-MD5, PLAIN, LOGIN give 235, a wrong password 535" dialogue aiosmtpd-auth
peers_wait_aiosmtpd 3 >/dev/null
peers_check "aiosmtpd stores the three messages byte for byte (CRLF) with their envelopes" \
  aiosmtpd_kept_the_messages

peers_stop
peers_check "after stop-all no listener answers" \
  bash -c "! '$KEMAIL_REPO_ROOT/scripts/peers/status.sh' --quiet"
peers_finish
