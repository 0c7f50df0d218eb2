#!/usr/bin/env bash
# Whether what authors include compiles without a warning: each header alone, all in both orders, with and without the
# macros that change Windows' own headers, and the generated one in C: check-headers.sh SDK GENERATED_FOLDER
set -euo pipefail
sdk=$1
generated=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

# Everything that clang has, but for: what COM brings (interfaces without virtual destructors, in headers alone), what
# is about older languages or the size of objects, and pointer arithmetic (of the registry's and SIDs' structures).
clang=(clang++-19 --target=x86_64-w64-mingw32 -std=c++20 -Weverything -Wno-non-virtual-dtor -Wno-weak-vtables
    -Wno-c++98-compat -Wno-c++98-compat-pedantic -Wno-padded -Wno-unsafe-buffer-usage)
gcc=(x86_64-w64-mingw32-g++-posix -std=c++20 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Wuseless-cast)

compile() { # FILE COMPILER...
    "${@:2}" -Werror -fsyntax-only -I"$sdk" -I"$generated" "$1" || { echo "FAILED: ${*:2}:" >&2; cat "$1" >&2; exit 1; }
}

headers=("$sdk"/*.h)
[ ${#headers[@]} -ge 6 ]
for header in "${headers[@]}"; do
    name=$(basename "$header")
    echo "#include \"$name\"" >"$name.cpp"
    cat "$name.cpp" >>orders.cpp
done
alone=(Tx*.cpp)
alone=("${alone[@]::${#alone[@]}-1}") # The last one has nothing before it in reverse.cpp.
# All after each other and then all the other way round in a second file: each pair in both orders. With a service.
{ tac orders.cpp; cat; } >reverse.cpp <<'CPP'
class CQuiet final : public TxSdk::CSubsystem
{
};
TX_SUBSYSTEM_MODULE(CQuiet, {0x0E0C3F5B, 0x6D52, 0x4E0B, {0x9B, 0x57, 0x2D, 0x4F, 0x9C, 0x7A, 0x1E, 0x77}})
CPP
cat >caller.c <<'C'
#define COBJMACROS
#define INITGUID
#include "TxSvHost.h"

HRESULT Stop(DWORD* processId);
HRESULT Stop(DWORD* processId)
{
    ITxSvcClassObject* classObject = NULL;
    ITxSvcSubsystemControlManager* manager = NULL;
    HRESULT result = CoGetClassObject(
        &CLSID_TxSvcSubsystemControlManager, CLSCTX_LOCAL_SERVER, NULL, &IID_ITxSvcClassObject, (void**)&classObject);
    if (SUCCEEDED(result))
    {
        result = ITxSvcClassObject_CreateObject(classObject, &IID_ITxSvcSubsystemControlManager, (void**)&manager);
        ITxSvcClassObject_Release(classObject);
    }
    if (SUCCEEDED(result))
    {
        result = ITxSvcSubsystemControlManager_TxStopSvcSubsystem(manager, 0, processId);
        ITxSvcSubsystemControlManager_Release(manager);
    }
    return result;
}
C

in_cpp() { # COMPILER...
    local file
    for file in "${alone[@]}"; do
        compile "$file" "$@" -DWIN32_LEAN_AND_MEAN # So it brings least of what they might only find by luck.
    done
    compile orders.cpp "$@" -DNO_STRICT
    compile reverse.cpp "$@" -DNOMINMAX -DSTRICT -DUNICODE -D_UNICODE -DWIN32_LEAN_AND_MEAN
}

in_cpp "${clang[@]}" &
in_cpp "${gcc[@]}"
wait $!
strict=(-std=c11 -Wall -Wextra -Wpedantic)
compile caller.c x86_64-w64-mingw32-gcc-posix "${strict[@]}"
compile caller.c clang-19 --target=x86_64-w64-mingw32 "${strict[@]}"
# The version is for mingw's own headers, which know no compiler that is Microsoft's in everything.
compile caller.c clang-19 --target=x86_64-w64-mingw32 -fms-compatibility -fgnuc-version=4.2.1 -Wall -Wextra
echo "${#headers[@]} headers and the generated one"
