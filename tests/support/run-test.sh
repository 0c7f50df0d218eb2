#!/bin/sh
# Runs a GoogleTest program under Wine and passes only when all tests have run and passed: a program that crashes
# under Wine, also at its very end, may still end with 0. run-test.sh PROGRAM [ARGUMENT...]
output=$(mktemp)
trap 'rm -f "$output"' EXIT
wine "$@" >"$output" 2>&1
code=$?
cat "$output"
[ $code -eq 0 ] && grep -q '^\[  PASSED  \] [1-9]' "$output" && ! grep -q '^wine: Unhandled' "$output"
