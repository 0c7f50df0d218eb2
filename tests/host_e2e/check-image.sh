#!/bin/sh
# Looks at the host's executable: check-image.sh FILE LARGEST_SIZE (0: any)
set -eu
headers=$(x86_64-w64-mingw32-objdump -p "$1")
status=0
complain() {
    echo "$1: $2" >&2
    status=1
}

# DLLs that Windows takes from the system folder whatever stands beside the program.
for dll in $(echo "$headers" | sed -n 's/^[[:space:]]*DLL Name: //p' | tr '[:upper:]' '[:lower:]'); do
    case $dll in
    advapi32.dll | kernel32.dll | msvcrt.dll | ole32.dll) ;;
    *) complain "$1" "imports $dll" ;;
    esac
done
for flag in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT; do
    echo "$headers" | grep -q "$flag" || complain "$1" "lacks $flag"
done
size=$(wc -c <"$1")
if [ "$2" -ne 0 ] && [ "$size" -gt "$2" ]; then
    complain "$1" "has $size bytes, more than $2"
fi
echo "$size bytes"
exit $status
