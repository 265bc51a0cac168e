#!/bin/sh
# Makes the development roots of a build folder: make_dev_roots.sh DIRECTORY
#
# DIRECTORY gets root_rsa2048.pem, root_rsa3072.der and root_rsa4096.der, of the same sizes as the product's
# roots, and their keys rsa2048.key, rsa3072.key and rsa4096.key (mode 0600). It appears whole or not at all;
# when it is there already, or another run is faster, it is left as it is.
set -eu
umask 077

target=$1
[ -d "$target" ] && exit 0
mkdir -p "$(dirname "$target")"
work=$(mktemp -d "$target.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM

# No configuration of the machine is read, only this one. The comment pads the certificate to its size.
export OPENSSL_CONF=/dev/null
write_config() {  # bits comment-length
  cat >"$work/config" <<END
[ ca ]
default_ca = self
[ self ]
new_certs_dir = $work
database = $work/index
serial = $work/serial
default_md = sha256
policy = any
x509_extensions = root
unique_subject = no
[ any ]
commonName = supplied
[ req ]
prompt = no
string_mask = utf8only
distinguished_name = name
[ name ]
commonName = Development Root RSA-$1
[ root ]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
nsComment = $(printf "%$2s" '' | tr ' ' '.')
END
}

quietly() {  # command; shows what it said only when it fails
  "$@" 2>"$work/log" || { cat "$work/log" >&2; exit 1; }
}

make_root() {  # bits comment-length; leaves root.der
  write_config "$1" "$2"
  : >"$work/index"
  echo 01 >"$work/serial"
  openssl req -new -sha256 -config "$work/config" -key "$work/rsa$1.key" -out "$work/request"
  quietly openssl ca -batch -notext -selfsign -config "$work/config" -keyfile "$work/rsa$1.key" \
    -startdate 20240101000000Z -enddate 20440101000000Z -in "$work/request" -out "$work/root.pem"
  openssl x509 -in "$work/root.pem" -outform DER -out "$work/root.der"
}

# A certificate grows by one byte with each of the comment's, but for the steps of the length fields around it.
sized_root() {  # bits bytes
  quietly openssl genpkey -algorithm RSA -pkeyopt "rsa_keygen_bits:$1" -out "$work/rsa$1.key"
  comment=1
  for _ in 1 2 3 4 5 6; do
    make_root "$1" "$comment"
    size=$(wc -c <"$work/root.der")
    [ "$size" -eq "$2" ] && return
    comment=$((comment + $2 - size))
    [ "$comment" -gt 0 ] || break
  done
  echo "make_dev_roots: no RSA-$1 certificate of $2 bytes could be made" >&2
  exit 1
}

sized_root 2048 1389 # 1934 bytes as PEM without the last line end
printf %s "$(openssl x509 -inform DER -in "$work/root.der")" >"$work/root_rsa2048.pem"
sized_root 3072 1145
mv "$work/root.der" "$work/root_rsa3072.der"
sized_root 4096 1606
mv "$work/root.der" "$work/root_rsa4096.der"

(cd "$work" && rm -rf config index* serial* request log root.pem root.der ./*.pem.old 0*.pem)
mv -T "$work" "$target" 2>/dev/null || [ -d "$target" ]
