#!/usr/bin/env bash
# Whether what is installed is all there, and whether authors can build and run services with it, by the very commands
# that the documents give them: check-kit.sh BUILD SOURCES
set -euo pipefail
set -m # Else bash has what it starts in the background ignore Ctrl+C.
build=$1
sources=$2
out=$build/kit-test
host=$out/TxSvHost
rm -rf "$out"
mkdir -p "$out/samples"
cd "$out"

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

wants() { # FILE TEXT...
    local file=$1 text
    shift
    for text in "$@"; do # CMake breaks its lines anywhere.
        tr -s '[:space:]' ' ' <"$file" | grep -qF -e "$text" || { cat "$file" >&2; fail "no '$text' in $file"; }
    done
}

# Runs a service until it says that it does, presses Ctrl+C, and once more with "twice". Its exit code is in $code.
run_until_ctrl_c() { # FILE once|twice COMMAND...
    local attempt
    for attempt in 1 2 3; do
        press_ctrl_c "$@"
        # Under Wine a signal ends one of some hundred programs that leave while Ctrl+C is handled.
        [ $code -eq 137 ] || [ $code -eq 139 ] || break
    done
}

press_ctrl_c() { # FILE once|twice COMMAND...
    local file=$1 times=$2 pid turn
    shift 2
    "$@" >"$file" 2>&1 &
    pid=$!
    for ((turn = 0; turn < 300; ++turn)); do
        ! grep -q 'running;' "$file" || break
        sleep 0.1
    done
    kill -INT $pid
    if [ "$times" = twice ]; then
        sleep 0.5
        kill -INT $pid
    fi
    code=0
    wait $pid || code=$?
}

ended_with() { # EXIT_CODE, of which eight bits arrive here
    [ $code -eq $(($1 % 256)) ] || fail "exit code $code instead of $1"
}

configure() { # SOURCES BUILD COMPILER [ARGUMENT...]
    local from=$1 to=$2 compiler=$3
    shift 3
    CXXFLAGS='-Wall -Wextra -Wpedantic -Werror' cmake -G Ninja -S "$from" -B "$to" -DCMAKE_BUILD_TYPE=Release \
        --toolchain "$host/kit/toolchains/mingw-$compiler.cmake" -DCMAKE_PREFIX_PATH="$host/kit" "$@"
}

# The commands of a page: the block that stands behind the mark.
commands_of() { # PAGE
    awk '/^<!-- Run as it stands by the test/ { marked = 1 }
        marked && /^```$/ { exit }
        inside { print }
        marked && /^```sh$/ { inside = 1 }' "$1"
}

check_installed() {
    local page link
    (cd "$host" && ls -d ./* bin/* kit/*) | grep -v symbols >installed
    diff - installed <<'LIST' || fail "something else is installed"
./README.md
./bin
./docs
./kit
bin/TxSvHost.exe
bin/TxSvHostPS.dll
bin/txsvcctl.exe
bin/txsvcrun.exe
kit/README.md
kit/TxSvHostEvents.mof
kit/idl
kit/include
kit/lib
kit/samples
kit/toolchains
LIST
    [ ! -f "$build/bin/TxSvHost.pdb" ] || [ -f "$host/symbols/TxSvHost.pdb" ] || fail "no symbols were installed"
    while IFS=: read -r page link; do
        case $link in
        http* | '') ;;
        *) [ -e "$(dirname "$page")/$link" ] || fail "$page: a link leads to nothing: $link" ;;
        esac
    done < <(grep -rHo --include='*.md' ']([^)#]*' "$host" | sed 's/:](/:/')
    ! grep -rlI "$sources" "$host" || fail "an installed file has a path of the machine that built it"
}

# The block of the README, one command after another, by somebody whose home is here.
play_readme() {
    local line
    commands_of "$sources/README.md" >block
    while read -r line <&3; do
        echo "> $line"
        case $line in
        *'until Ctrl+C')
            eval "run_until_ctrl_c $out/run.log once ${line%%#*}"
            tr -d '\r' <run.log
            ended_with 0
            ;;
        cmake\ --install*) (cd "$sources" && eval "${line/build\/mingw-release/$build}") >install.log ;;
        *) eval "$line" >line.log 2>&1 || { cat line.log; fail "$line"; } && tr -d '\r' <line.log | tail -n 5 ;;
        esac
    done 3<block
    wants run.log 'MyService: running' 'STOP is sent' 'MyService: stopped, exit code 0'
    diff <(tail -n +2 block) <(commands_of "$sources/docs/hosting-a-service.md") ||
        fail "README.md and docs/hosting-a-service.md differ"
    [ "$(wc -l <block)" -gt 8 ] || fail "no block of commands in README.md"
}

build_samples() { # COMPILER [ARGUMENT...]
    local to=samples/$1
    mkdir "$to"
    cp -r "$host/kit/samples/." "$to"
    configure "$to" "$to/build" "$1" && cmake --build "$to/build" "${@:2}"
}

# No DLL but the system's: others are not found in the folder of a service.
check_imports() {
    local file dll
    for file in samples/*/build/bin/*.{dll,exe} samples/clang/build/bin/log_controller/*.dll; do
        for dll in $(x86_64-w64-mingw32-objdump -p "$file" | sed -n 's/^[[:space:]]*DLL Name: //p'); do
            [ -e "$WINEPREFIX/drive_c/windows/system32/${dll,,}" ] || fail "$file imports $dll"
        done
    done
    strings -n 3 -el samples/gcc/build/bin/EchoSubsystem.dll >strings.log
    wants strings.log FileDescription 'Sample: a hosted service that answers over a named pipe' 1.0
}

run_group() {
    local ctl=$host/bin/txsvcctl.exe compiler
    for compiler in clang gcc; do
        wine "$ctl" install KitGroup "Echo$compiler" --clsid '{0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E02}' \
            --module "samples/$compiler/build/bin/EchoSubsystem.dll" --replace-module
        wine "$ctl" start "Echo$compiler"
        wine "samples/$compiler/build/bin/EchoClient.exe" "Echo$compiler" "made by $compiler" >echo.log
        wants echo.log "echo from Echo$compiler in process" "made by $compiler"
        wine "$ctl" stop "Echo$compiler"
    done
}

# A service that does all wrong: it never stops, a thread of it crashes, its exception comes out of the C++ library,
# which lld must be helped with. And one without the export.
throw() {
    mkdir throwing
    cat >throwing/CMakeLists.txt <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(Throwing LANGUAGES CXX)
find_package(TxSvHost REQUIRED)
txsvhost_add_service(Throwing DESCRIPTION "Sa\"ys; \\it\\" SOURCES Throwing.cpp)
txsvhost_add_service(Forgetful SOURCES Forgetful.cpp)
CMAKE
    cat >throwing/Forgetful.cpp <<'CPP'
#include "TxSubsystemModule.h"
class CForgetful : public TxSdk::CSubsystem {};
CPP
    cat >throwing/Throwing.cpp <<'CPP'
#include "TxSubsystemModule.h"
#include <string>
DWORD WINAPI Crash(void* address) { return *static_cast<volatile DWORD*>(address); }
class CThrowing : public TxSdk::CSubsystem
{
    DWORD OnStart(DWORD argc, LPWSTR* argv) override
    {
        if (argc > 2)
        {
            ::CloseHandle(::CreateThread(nullptr, 0, &Crash, nullptr, 0, nullptr));
        }
        return std::stoul(argv[argc - 1]);
    }
    void Run(HANDLE) override { ::Sleep(INFINITE); }
};
TX_SUBSYSTEM_MODULE(CThrowing, {0x0E0C3F5B, 0x6D52, 0x4E0B, {0x9B, 0x57, 0x2D, 0x4F, 0x9C, 0x7A, 0x1E, 0x77}})
CPP
    { configure throwing throwing/build clang && cmake --build throwing/build --target Throwing; } >throwing.log 2>&1 ||
        fail "$(tail -n 30 throwing.log)"
    ! cmake --build throwing/build --target Forgetful >forgetful.log 2>&1 || fail "Forgetful was built"
    wants forgetful.log 'write TX_SUBSYSTEM_MODULE(class, CLSID)'
    local run=(wine "$host/bin/txsvcrun.exe" --module throwing/build/Throwing.dll
        --clsid '{0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E77}')
    code=0
    "${run[@]}" 'no number' >throw.log 2>&1 || code=$?
    wants throw.log 'stopped, exit code 1064' 'an exception left OnStart, Run or OnStop'
    ended_with 1064

    code=0
    "${run[@]}" thread 0 >thread.log 2>&1 || code=$?
    wants thread.log 'access violation (0xC0000005) at Throwing.dll+0x' 'which nobody caught'
    ended_with 0xC0000005

    run_until_ctrl_c twice.log twice "${run[@]}" 0
    wants twice.log 'STOP is sent' 'ended by force'
    ended_with 0xC000013A
}

# What is no module for the host, in words.
refuse() { # MODULE TEXT
    ! wine "$host/bin/txsvcrun.exe" --module "$1" --clsid '{0E0C3F5B-6D52-4E0B-9B57-2D4F9C7A1E77}' >refuse.log 2>&1 ||
        fail "$1 ran"
    wants refuse.log "$2"
}

refuse_others() {
    local machine=$((0x$(od -An -tx4 -j60 -N4 throwing/build/Throwing.dll | tr -d ' ') + 4))
    cp throwing/build/Throwing.dll other.dll
    printf '\x4c\x01' | dd of=other.dll bs=1 seek=$machine conv=notrunc status=none # For 32 bits.
    refuse other.dll 'is not a 64-bit (x64) module'
    x86_64-w64-mingw32-g++-posix -std=c++20 -shared -I "$host/kit/include" throwing/Throwing.cpp -o shared.dll
    refuse shared.dll 'which is not to be found. Link it statically'
    if wine "$host/bin/txsvcctl.exe" new MyService >refuse.log 2>&1; then
        fail "a project was written over another one"
    fi
    wants refuse.log "cannot make folder"

    cat >32.cmake <<'CMAKE'
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_CXX_COMPILER_TARGET i686-w64-mingw32)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
CMAKE
    ! cmake -G Ninja -S MyService -B 32 --toolchain "$out/32.cmake" -DCMAKE_PREFIX_PATH="$host/kit" >32.log 2>&1 ||
        fail "32 bits were taken"
    tr '\n' ' ' <32.log | tr -s ' ' >32.line
    wants 32.line 'the host is a 64-bit (x64) program and loads only DLLs of its own kind'
}

trap 'echo "FAILED: line $LINENO" >&2' ERR
export HOME=$out
play_readme
check_installed
build_samples clang >clang.log 2>&1 &
build_samples gcc --target EchoSubsystem EchoClient MinimalSubsystem >gcc.log 2>&1 || fail "$(tail -n 30 gcc.log)"
wait $! || fail "$(tail -n 30 clang.log)"
check_imports
run_group
throw
refuse_others
echo "all of it works"
