#!/bin/sh
# Starts or stops the one persistent wineserver of a private prefix: wine-server.sh start|stop PREFIX [ORIGINAL]
# A Wine process that has to start the server takes seconds, one that finds it running some milliseconds.
# With ORIGINAL the prefix is each time made as a copy of that one; Wine's own files, which nobody writes, they share.
set -eu
WINEPREFIX=$2
original=${3:-$2}
log=$2.log
export WINEPREFIX WINEDEBUG="${WINEDEBUG:--all}" DISPLAY= WINEDLLOVERRIDES="mscoree=;mshtml="

stop() {
    wineserver -k || true
    wineserver -w || true
}

make() { # PREFIX
    mkdir -p "$1"
    WINEPREFIX=$1 wineboot -i
    WINEPREFIX=$1 wineserver -k || true
    WINEPREFIX=$1 wineserver -w
}

copy() { # FROM TO
    rm -rf "$2"
    cp -al "$1" "$2"
    find "$2" -path "$2/drive_c/windows" -prune -o -type f -exec sh -c 'cp -p "$1" "$1.own" && mv "$1.own" "$1"' - {} \;
}

start() {
    stop
    [ -f "$original/system.reg" ] || make "$original"
    [ "$original" = "$WINEPREFIX" ] || copy "$original" "$WINEPREFIX"
    # In this order: with -p before wineboot two service managers with databases of their own answer in turn.
    wineserver -p
    # The first program starts the prefix's services. Here their output goes to the file; started by the first
    # test they would hold ctest's pipe, and the test would time out although it passed.
    wine cmd.exe /c rem
}

case $1 in
start)
    # Background processes would hold the caller's pipe open: everything goes to a file.
    mkdir -p "$WINEPREFIX"
    start >>"$log" 2>&1 || {
        cat "$log" >&2
        exit 1
    }
    ;;
stop)
    stop >/dev/null 2>&1
    ;;
*)
    echo "usage: $0 start|stop PREFIX [ORIGINAL]" >&2
    exit 2
    ;;
esac
