#!/bin/sh
# Makes a test CA, a server certificate for localhost signed by it, a client
# certificate signed by it, and a client certificate from a stranger CA,
# in DIR. Keys are P-256: quick to make, accepted everywhere.
# usage: make_certs.sh DIR
set -eu
cd "$1"
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }
ca() {  # name
  key "$1.key"
  openssl req -x509 -new -key "$1.key" -subj "/CN=$1" -days 2 -out "$1.crt"
}
signed() {  # name ca extensions
  key "$1.key"
  openssl req -new -key "$1.key" -subj "/CN=$1" -out "$1.csr"
  printf '%s\n' "$3" > "$1.ext"
  openssl x509 -req -in "$1.csr" -CA "$2.crt" -CAkey "$2.key" \
    -CAcreateserial -days 2 -extfile "$1.ext" -out "$1.crt" 2>/dev/null
  rm -f "$1.csr" "$1.ext"
}
ca ca
ca stranger
signed server ca "subjectAltName=DNS:localhost,IP:127.0.0.1"
signed client ca "extendedKeyUsage=clientAuth"
signed intruder stranger "extendedKeyUsage=clientAuth"
