#!/usr/bin/env bash
# Makes the certificates the TLS tests and a local trial need, in DIR:
#
#   ca.pem ca.key         the CA both apartments trust
#   a.pem a.key           apartment certificates signed by it, for client
#   b.pem b.key           and server authentication alike
#   expired.pem .key      signed by the same CA, valid only in 2020
#   other-ca.pem          an unrelated CA, and other.pem/other.key signed
#                         by it (a stranger to ca.pem)
#
# EC P-256 keys, so that the whole set takes a fraction of a second. A set
# already complete in DIR is kept as it is; otherwise it is made anew.
# Prints DIR.
#
#   scripts/make-test-certs.sh DIR
set -euo pipefail
[[ $# -eq 1 ]] || { echo "usage: $0 DIR" >&2; exit 2; }
dir=$1
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)

files=(ca.pem ca.key a.pem a.key b.pem b.key other-ca.pem other.pem other.key
       expired.pem expired.key)
complete=1
for f in "${files[@]}"; do [[ -s $dir/$f ]] || complete=0; done
if [[ $complete -eq 1 ]]; then echo "$dir"; exit 0; fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export OPENSSL_CONF=/dev/null  # the system's defaults add nothing we want

newkey() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2>/dev/null; }

selfsigned_ca() {  # <name> <CN>
  newkey "$work/$1.key"
  openssl req -x509 -new -key "$work/$1.key" -out "$work/$1.pem" -subj "/CN=$2" -days 4000 \
    -addext "basicConstraints=critical,CA:TRUE" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" 2>/dev/null
}

# `openssl ca` rather than `x509 -req`: it alone takes explicit validity
# dates, which the expired certificate needs, and without faked clocks.
cat > "$work/ca.cnf" <<EOF
[ca]
default_ca = signer
[signer]
database = $work/index.txt
new_certs_dir = $work
serial = $work/serial
default_md = sha256
policy = anything
unique_subject = no
copy_extensions = none
x509_extensions = apartment
[anything]
commonName = supplied
[apartment]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature
extendedKeyUsage = serverAuth,clientAuth
EOF

leaf() {  # <name> <CN> <signing CA> <start> <end>: <start>/<end> as YYYYMMDDHHMMSSZ
  : > "$work/index.txt"
  openssl rand -hex 8 > "$work/serial"
  newkey "$work/$1.key"
  openssl req -new -key "$work/$1.key" -subj "/CN=$2" -out "$work/$1.csr" 2>/dev/null
  openssl ca -batch -notext -config "$work/ca.cnf" -cert "$work/$3.pem" -keyfile "$work/$3.key" \
    -startdate "$4" -enddate "$5" -in "$work/$1.csr" -out "$work/$1.pem" 2>/dev/null
}

start=$(date -u -d '-1 day' +%Y%m%d%H%M%SZ)
end=$(date -u -d '+10 years' +%Y%m%d%H%M%SZ)
selfsigned_ca ca "apartment test CA"
selfsigned_ca other-ca "unrelated test CA"
leaf a "apartment a" ca "$start" "$end"
leaf b "apartment b" ca "$start" "$end"
leaf other "apartment of another CA" other-ca "$start" "$end"
leaf expired "apartment expired" ca 20200101000000Z 20200102000000Z

for f in "${files[@]}"; do cp "$work/$f" "$dir/$f"; done
chmod 600 "$dir"/*.key
echo "$dir"
