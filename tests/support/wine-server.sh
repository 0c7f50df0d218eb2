#!/bin/sh
# Starts or stops the one persistent wineserver of a private prefix: wine-server.sh start|stop PREFIX
# A Wine process that has to start the server takes seconds, one that finds it running some milliseconds.
set -eu
WINEPREFIX=$2
export WINEPREFIX WINEDEBUG="${WINEDEBUG:--all}" DISPLAY= WINEDLLOVERRIDES="mscoree=;mshtml="

case $1 in
start)
    # Background processes would hold the caller's pipe open: everything goes to a file.
    log=$WINEPREFIX.log
    mkdir -p "$WINEPREFIX"
    wineserver -k >>"$log" 2>&1 || true
    wineserver -w >>"$log" 2>&1 || true
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
        wineboot -i >>"$log" 2>&1 || { cat "$log" >&2; exit 1; }
        wineserver -k >>"$log" 2>&1 || true
        wineserver -w >>"$log" 2>&1
    fi
    # In this order: with -p before wineboot two service managers with databases of their own answer in turn.
    wineserver -p >>"$log" 2>&1
    # The first program starts the prefix's services. Here their output goes to the file; started by the first
    # test they would hold ctest's pipe, and the test would time out although it passed.
    wine cmd.exe /c rem >>"$log" 2>&1
    ;;
stop)
    wineserver -k >/dev/null 2>&1 || true
    ;;
*)
    echo "usage: $0 start|stop PREFIX" >&2
    exit 2
    ;;
esac
