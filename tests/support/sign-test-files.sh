#!/bin/sh
# Signs copies of a module for the tests of the trusted-module check: sign-test-files.sh KEYS OUT MODULE...
# Makes OUT/VARIANT/<name of the module> for each variant below. The keys are made on first use and never leave
# the build tree; nobody trusts them: Wine does not ask for a trusted root, Windows would want KEYS/root.pem
# (and KEYS/namesake.pem) in its store first.
set -eu
keys=$1
out=$2
shift 2
umask 077
log=$keys/log
mkdir -p "$keys"
: >"$log"

root() { # NAME SUBJECT
    openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -subj "$2" -keyout "$keys/$1.key" -out "$keys/$1.pem" \
        -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign
}

leaf() { # NAME SUBJECT ISSUER
    printf '%s\n' basicConstraints=critical,CA:FALSE keyUsage=critical,digitalSignature \
        extendedKeyUsage=codeSigning >"$keys/$1.ext"
    openssl req -new -key "$keys/leaf.key" -utf8 -subj "$2" -out "$keys/$1.csr"
    openssl x509 -req -in "$keys/$1.csr" -CA "$keys/$3.pem" -CAkey "$keys/$3.key" -CAcreateserial \
        -days 3650 -extfile "$keys/$1.ext" -out "$keys/$1.pem"
}

make_keys() {
    root root '/CN=Test Root'
    root namesake '/CN=Tarvex, Inc.' # An issuer with an accepted name makes nobody a signer of that name.
    openssl genrsa -out "$keys/leaf.key" 2048
    leaf tarvex '/CN=Tarvex, Inc.' root
    leaf quintor '/CN=Quintor Corporation' root
    leaf foreign '/CN=Somebody Else Ltd' root
    leaf contains '/CN=Tarvex, Inc. Partners' root
    leaf lowercase '/CN=tarvex, inc.' root
    leaf organisation '/O=Tarvex, Inc./OU=Tarvex, Inc./CN=Somebody Else Ltd' root
    leaf nocommonname '/O=Tarvex, Inc./OU=Tarvex, Inc.' root
    leaf issuer '/CN=Somebody Else Ltd' namesake
}

sign() { # VARIANT MODULE [CHAIN]
    mkdir -p "$out/$1"
    rm -f "$out/$1/${2##*/}"
    osslsigncode sign -h sha256 -certs "$keys/$1.pem" -key "$keys/leaf.key" -ac "$keys/${3:-root}.pem" \
        -in "$2" -out "$out/$1/${2##*/}"
}

# Changes one byte of the text for DOS, which the signature covers and nobody runs: the module still loads.
change() { # MODULE
    mkdir -p "$out/changed"
    cp "$out/tarvex/${1##*/}" "$out/changed/${1##*/}"
    old=$(dd if="$out/changed/${1##*/}" bs=1 skip=90 count=1 2>/dev/null | od -An -tu1 | tr -d ' ')
    # shellcheck disable=SC2059 # The escape is what is wanted.
    printf "\\$(printf %03o $(((old + 1) % 256)))" |
        dd of="$out/changed/${1##*/}" bs=1 seek=90 conv=notrunc 2>/dev/null
}

{
    [ -f "$keys/complete" ] || { make_keys && touch "$keys/complete"; }
    for module in "$@"; do
        for variant in tarvex quintor foreign contains lowercase organisation nocommonname; do
            sign "$variant" "$module"
        done
        sign issuer "$module" namesake
        change "$module"
        mkdir -p "$out/unsigned"
        cp "$module" "$out/unsigned/"
    done
} >>"$log" 2>&1 || {
    cat "$log" >&2
    exit 1
}
