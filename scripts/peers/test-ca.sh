#!/bin/bash
# Makes the TLS material of the real peers, once, under $KEMAIL_PEER_TLS_DIR:
#   ca.pem / ca.key          the test CA the clients trust
#   server.pem / server.key  the servers' certificate, signed by the test CA,
#                            for mx.kemail.test, localhost, 127.0.0.1 and ::1
#   other-ca.pem             a CA that signed nothing (the "wrong CA" case)
# EC keys: made in well under a second.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/env.sh"
dir=$KEMAIL_PEER_TLS_DIR
[ -s "$dir/server.pem" ] && [ -s "$dir/other-ca.pem" ] && exit 0
mkdir -p "$dir"
cd "$dir"
ec=(-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes)
openssl req -x509 "${ec[@]}" -days 30 -subj /CN=kemail-test-ca -keyout ca.key -out ca.pem 2>/dev/null
openssl req -x509 "${ec[@]}" -days 30 -subj /CN=kemail-other-ca -keyout other-ca.key \
  -out other-ca.pem 2>/dev/null
openssl req "${ec[@]}" -subj "/CN=$KEMAIL_PEER_TLS_NAME" -keyout server.key -out server.csr 2>/dev/null
printf 'subjectAltName=DNS:%s,DNS:localhost,IP:127.0.0.1,IP:::1\n' "$KEMAIL_PEER_TLS_NAME" >san.ext
openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 30 \
  -extfile san.ext -out server.pem 2>/dev/null
# The servers read the key as root before they drop privileges; nobody else may.
chmod 600 ca.key other-ca.key server.key
chmod 644 ca.pem other-ca.pem server.pem
