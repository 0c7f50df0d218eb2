#!/bin/sh
# Whether the page of the findings is the one that the tool writes: findings-page.sh TXSVCCTL PAGE
set -eu
wine "$1" check --explain all | tr -d '\r' | diff - "$2"
