#!/bin/sh
# Runs a GoogleTest program under Wine and passes only when all tests have run and passed: a program that crashes
# under Wine, also at its very end, may still end with 0. Once more, where Wine did not end a process (CProcess::Wait).
# run-test.sh PROGRAM [ARGUMENT...]
output=$(mktemp)
trap 'rm -f "$output"' EXIT
run() {
    wine "$@" >"$output" 2>&1
    code=$?
    cat "$output"
}
run "$@"
! grep -q 'Wine does not end' "$output" || run "$@"
[ $code -eq 0 ] && grep -q '^\[  PASSED  \] [1-9]' "$output" && ! grep -q '^wine: Unhandled' "$output"
