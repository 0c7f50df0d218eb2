#!/bin/sh
# Makes a private prefix, or starts (makes it, too) or stops the one persistent wineserver of one:
# wine-server.sh make|start|stop PREFIX [ORIGINAL]
# A Wine process that has to start the server takes seconds, one that finds it running some milliseconds.
# With ORIGINAL the prefix is each time made as a copy of that one, in which nothing may run; Wine's own files, which
# nobody writes, they share.
set -eu
WINEPREFIX=$2
original=${3:-}
log=$2.log
export WINEPREFIX WINEDEBUG="${WINEDEBUG:--all}" DISPLAY= WINEDLLOVERRIDES="mscoree=;mshtml="

stop() {
    wineserver -k
    wineserver -w
}

make() {
    stop
    [ -f "$WINEPREFIX/system.reg" ] || { wineboot -i && stop; }
}

copy() { # FROM TO
    rm -rf "$2"
    cp -al "$1" "$2" && find "$2" -path "$2/drive_c/windows" -prune -o -type f -exec \
        sh -c 'cp -p "$1" "$1.own" && mv "$1.own" "$1"' - {} \;
}

start() {
    if [ -n "$original" ]; then
        stop
        copy "$original" "$WINEPREFIX" || return
    else
        make || return
    fi
    # In this order: with -p before wineboot two service managers with databases of their own answer in turn.
    wineserver -p || return
    # The first program starts the prefix's services. Here their output goes to the file; started by the first
    # test they would hold ctest's pipe, and the test would time out although it passed. COM's service is asked for
    # by name: started later, by a host that runs in the manager's place, it would take that host's control pipe.
    wine net.exe start rpcss || true # It may have started.
}

case $1 in
make | start)
    # Background processes would hold the caller's pipe open: everything goes to a file.
    mkdir -p "$WINEPREFIX"
    $1 >>"$log" 2>&1 || {
        cat "$log" >&2
        exit 1
    }
    ;;
stop)
    stop >/dev/null 2>&1 || true # Nothing may run.
    ;;
*)
    echo "usage: $0 make|start|stop PREFIX [ORIGINAL]" >&2
    exit 2
    ;;
esac
