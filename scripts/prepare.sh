# Sourced by the commands at the root of the tree: the set-up that they share. The current folder is the root.

# Everything that the build, the tests and the demo need from Debian 12.
packages=(wine64 wine g++-mingw-w64-x86-64-posix mingw-w64-tools clang-19 lld-19 clang-tidy-19 clang-format-19 cppcheck
    llvm cmake ninja-build python3 googletest osslsigncode openssl libcli11-dev nlohmann-json3-dev)

say() {
    if [ -t 1 ]; then printf '\n\033[1m== %s\033[0m\n' "$*"; else printf '\n== %s\n' "$*"; fi
}

fail() {
    printf '\nFAILED: %s\n' "$*" >&2
    exit 1
}

install_missing_packages() { # [FURTHER_PACKAGE...]
    local missing=() package sudo=()
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        # Not a Debian: fine as long as the programs are there.
        for program in wine python3 clang++-19 ld.lld-19 x86_64-w64-mingw32-windres cmake ninja osslsigncode; do
            command -v "$program" >/dev/null ||
                fail "'$program' is missing and there is no apt to install it. Needed are: ${packages[*]}"
        done
        return
    fi
    for package in "${packages[@]}" "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    say "Installing what is missing: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "not root, and there is no sudo: install ${missing[*]} and try again"
        sudo=(sudo)
    fi
    export DEBIAN_FRONTEND=noninteractive
    # The recommended packages are left out, among them a 32-bit Wine that nothing here uses.
    { "${sudo[@]}" apt-get update -qq &&
        "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >/dev/null ||
        fail "apt-get could not install ${missing[*]}"
}

# ctest's fixtures stop the servers of the tests' prefixes too; this also covers an interrupted run.
stop_wine_servers() { # PRESET
    local prefix
    for prefix in "$PWD/build/$1"/wineprefix*/; do
        tests/support/wine-server.sh stop "${prefix%/}"
    done
}

build() { # PRESET [TARGET...], with the version in HOST_VERSION where it is set
    say "Building ($1)"
    local preset=$1 log=build/$1.log
    shift
    mkdir -p build
    # --fresh: a tree that an older version of the presets configured would keep its flags.
    { cmake --fresh --preset "$preset" ${HOST_VERSION:+-D "HOST_VERSION=$HOST_VERSION"} && cmake --build --preset "$preset" ${1:+--target "$@"}; } >"$log" 2>&1 || {
        tail -n 40 "$log" >&2
        fail "the build broke; the whole log is in $log"
    }
    tail -n 1 "$log"
}
