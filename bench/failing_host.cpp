/// @file
/// The host, in which one call of the system fails: what the product links, behind an import table in which
/// each entry leads through a gate. Run by failing_calls, which says what is to fail; see FailingCalls.h.
/// Without that it is the host as it ships.
#include <windows.h>
#include <evntrace.h>
#include <wmistr.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <string_view>

#include "FailingCalls.h"
#include "HandleCount.h"
#include "contract/EventRecord.h"
#include "host/TxSvcHostMain.h"

namespace
{

// Nothing here may use the import table once that leads through the gate: every function of the system is
// taken by its address, memory functions of the runtime are not behind the gate.
template <typename Function>
Function* Real(const char* name, const wchar_t* module = L"kernel32.dll")
{
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(module), name)));
}

auto* const g_setLastError = Real<decltype(::SetLastError)>("SetLastError");
auto* const g_getLastError = Real<decltype(::GetLastError)>("GetLastError");
auto* const g_getProcAddress = Real<decltype(::GetProcAddress)>("GetProcAddress");
auto* const g_getModuleFileName = Real<decltype(::GetModuleFileNameW)>("GetModuleFileNameW");
auto* const g_backTrace =
    Real<USHORT NTAPI(ULONG, ULONG, void**, ULONG*)>("RtlCaptureStackBackTrace", L"ntdll.dll");
auto* const g_malloc = Real<void*(std::size_t)>("malloc", L"msvcrt.dll");
auto* const g_calloc = Real<void*(std::size_t, std::size_t)>("calloc", L"msvcrt.dll");
auto* const g_realloc = Real<void*(void*, std::size_t)>("realloc", L"msvcrt.dll");
auto* const g_free = Real<void(void*)>("free", L"msvcrt.dll");
auto* const g_exit = Real<void(int)>("exit", L"msvcrt.dll");
auto* const g_terminate = Real<decltype(::TerminateProcess)>("TerminateProcess");

FailingSection* g_section = nullptr;
volatile LONG g_isWatching = 0;
volatile LONG g_failsForGood = 0;
BYTE* g_base = nullptr;
std::size_t g_imageSize = 0;

/// What stands behind one entry of the import table.
enum class Kind
{
    Plain,
    Sleep,
    Wait,
    Timer,
    GetProcAddress,
    Malloc,
    Calloc,
    Realloc,
    Free,
    Exit,
    Abort,
};
struct Gate
{
    void* target;
    LONG function;
    Kind kind;
};
Gate g_gates[kMostFunctions];
LONG g_gateCount = 0;
BYTE* g_code = nullptr; ///< One piece of code for each gate.

/// What a call has brought along, as GateEntry keeps it on the stack.
struct Call
{
    ULONG64 shadow[4];
    ULONG64 value; ///< What is returned when there is no target.
    ULONG64 reserved;
    BYTE vectors[64];
    ULONG64 arguments[4]; ///< rcx, rdx, r8, r9.
    ULONG64 padding;
    ULONG64 returnAddress;
    ULONG64 callerShadow[4];
    ULONG64 fifth;
};
static_assert(offsetof(Call, vectors) == 0x30 && offsetof(Call, arguments) == 0x70);
static_assert(offsetof(Call, returnAddress) == 0x98);

void* MakeGate(void* target, const char* name, Kind kind) noexcept;

/// @return the road's place, or null for a call that does not come from the program.
Road* FindRoad(LONG function, ULONG64 from) noexcept
{
    void* addresses[40];
    const USHORT found = g_backTrace(0, 40, addresses, nullptr);
    USHORT first = 0; // The gate's own frames come before it.
    while (first < found && reinterpret_cast<ULONG64>(addresses[first]) != from)
    {
        ++first;
    }
    DWORD offsets[kMostFrames];
    LONG frames = 0;
    LONG64 key = 0x4F1BBCDCBFA53E0B ^ function;
    for (USHORT i = first; i < found && frames < kMostFrames; ++i)
    {
        const auto offset = static_cast<std::size_t>(static_cast<BYTE*>(addresses[i]) - g_base);
        if (offset < g_imageSize)
        {
            offsets[frames++] = static_cast<DWORD>(offset);
            key = static_cast<LONG64>((static_cast<ULONG64>(key) ^ offset) * 0x100000001B3ULL);
        }
    }
    key = frames == 0 ? 0 : (key == 0 ? 1 : key);
    for (ULONG64 i = static_cast<ULONG64>(key), tries = 0; key != 0 && tries < kMostRoads; ++i, ++tries)
    {
        Road& road = g_section->roads[i % kMostRoads];
        const LONG64 there = ::InterlockedCompareExchange64(&road.key, key, 0);
        if (there == 0)
        {
            road.function = function;
            road.frames = frames;
            std::memcpy(road.offsets, offsets, sizeof(offsets));
            return &road;
        }
        if (there == key)
        {
            return &road;
        }
    }
    return nullptr;
}

bool Fails(const Gate& gate, const Call& call) noexcept
{
    Road* const road = FindRoad(gate.function, call.returnAddress);
    if (road == nullptr)
    {
        return false;
    }
    const LONG count = ::InterlockedIncrement(&road->count);
    const auto from = static_cast<DWORD>(call.returnAddress - reinterpret_cast<ULONG64>(g_base));
    bool fails = g_section->key != 0 && road->key == g_section->key && count == g_section->occurrence;
    if (fails)
    {
        g_section->failedFrom = from;
        ::InterlockedExchange(&g_failsForGood, g_section->isForGood);
    }
    fails = fails || (g_failsForGood != 0 && from == g_section->failedFrom);
    if (fails)
    {
        ::InterlockedIncrement(&g_section->failed);
    }
    return fails;
}

/// Functions of system DLLs that the program looks up are watched like those that it imports.
void* WatchFound(void* found, HMODULE module, const char* name) noexcept
{
    wchar_t path[MAX_PATH] = {};
    const DWORD error = g_getLastError();
    g_getModuleFileName(module, path, MAX_PATH);
    g_setLastError(error);
    const bool isSystem =
        std::wcsstr(path, L"\\windows\\") != nullptr || std::wcsstr(path, L"\\Windows\\") != nullptr;
    return found == nullptr || !isSystem ? found : MakeGate(found, name, Kind::Plain);
}

void ShortenWaits(const Gate& gate, Call& call) noexcept
{
    if (g_section->isQuick == 0)
    {
        return;
    }
    const auto atMost = [](ULONG64& milliseconds, DWORD most) {
        const auto value = static_cast<DWORD>(milliseconds);
        milliseconds = value == INFINITE || value < most ? milliseconds : most;
    };
    if (gate.kind == Kind::Sleep)
    {
        atMost(call.arguments[0], 20);
    }
    else if (gate.kind == Kind::Wait)
    {
        atMost(call.arguments[1], 60);
    }
    else if (gate.kind == Kind::Timer)
    {
        atMost(call.fifth, 100);
    }
}

} // namespace

/// @return where the call goes on; null to return call->value at once.
extern "C" void* PassGate(Gate* gate, Call* call)
{
    if (g_isWatching == 0)
    {
        return gate->target;
    }
    if (gate->kind != Kind::Free && gate->kind != Kind::Exit && gate->kind != Kind::Abort &&
        Fails(*gate, *call))
    {
        call->value = g_section->value;
        if (g_section->hasCode != 0)
        {
            g_setLastError(g_section->code);
        }
        return nullptr;
    }
    const auto& arguments = call->arguments;
    switch (gate->kind)
    {
    case Kind::GetProcAddress: {
        const auto module = reinterpret_cast<HMODULE>(arguments[0]);
        auto* const name = reinterpret_cast<const char*>(arguments[1]);
        auto* const found = reinterpret_cast<void*>(g_getProcAddress(module, name));
        call->value = reinterpret_cast<ULONG64>(WatchFound(found, module, name));
        return nullptr;
    }
    case Kind::Malloc:
        call->value = reinterpret_cast<ULONG64>(g_malloc(arguments[0]));
        ::InterlockedExchangeAdd(&g_section->blocks, call->value != 0 ? 1 : 0);
        return nullptr;
    case Kind::Calloc:
        call->value = reinterpret_cast<ULONG64>(g_calloc(arguments[0], arguments[1]));
        ::InterlockedExchangeAdd(&g_section->blocks, call->value != 0 ? 1 : 0);
        return nullptr;
    case Kind::Realloc:
        call->value =
            reinterpret_cast<ULONG64>(g_realloc(reinterpret_cast<void*>(arguments[0]), arguments[1]));
        ::InterlockedExchangeAdd(&g_section->blocks, arguments[0] == 0 && call->value != 0 ? 1 : 0);
        return nullptr;
    case Kind::Free:
        ::InterlockedExchangeAdd(&g_section->blocks, arguments[0] != 0 ? -1 : 0);
        return gate->target;
    case Kind::Exit:
        g_section->exitCode = static_cast<DWORD>(arguments[0]);
        ::InterlockedExchange(&g_section->hasEnded, 2);
        return gate->target;
    case Kind::Abort:
        g_section->crashCode = 0xAB027;
        FindRoad(gate->function, call->returnAddress);
        ::InterlockedExchange(&g_section->hasCrashed, 1);
        g_terminate(reinterpret_cast<HANDLE>(-1), 0xAB027);
        return gate->target;
    default:
        ShortenWaits(*gate, *call);
        return gate->target;
    }
}

/// Comes here from each gate, with the gate in r11: keeps the arguments, asks, and goes on or returns.
__asm__(".text\n"
        ".globl GateEntry\n"
        ".def GateEntry; .scl 2; .type 32; .endef\n"
        ".seh_proc GateEntry\n"
        "GateEntry:\n"
        "  subq $0x98, %rsp\n"
        "  .seh_stackalloc 0x98\n"
        "  .seh_endprologue\n"
        "  movups %xmm0, 0x30(%rsp)\n"
        "  movups %xmm1, 0x40(%rsp)\n"
        "  movups %xmm2, 0x50(%rsp)\n"
        "  movups %xmm3, 0x60(%rsp)\n"
        "  movq %rcx, 0x70(%rsp)\n"
        "  movq %rdx, 0x78(%rsp)\n"
        "  movq %r8, 0x80(%rsp)\n"
        "  movq %r9, 0x88(%rsp)\n"
        "  movq %r11, %rcx\n"
        "  movq %rsp, %rdx\n"
        "  call PassGate\n"
        "  testq %rax, %rax\n"
        "  je 1f\n"
        "  movq %rax, %r11\n"
        "  movups 0x30(%rsp), %xmm0\n"
        "  movups 0x40(%rsp), %xmm1\n"
        "  movups 0x50(%rsp), %xmm2\n"
        "  movups 0x60(%rsp), %xmm3\n"
        "  movq 0x70(%rsp), %rcx\n"
        "  movq 0x78(%rsp), %rdx\n"
        "  movq 0x80(%rsp), %r8\n"
        "  movq 0x88(%rsp), %r9\n"
        "  addq $0x98, %rsp\n"
        "  jmpq *%r11\n"
        "1:\n"
        "  movq 0x20(%rsp), %rax\n"
        "  addq $0x98, %rsp\n"
        "  retq\n"
        ".seh_endproc\n");
extern "C" void GateEntry();

namespace
{

constexpr std::size_t kGateBytes = 32;

void* MakeGate(void* target, const char* name, Kind kind) noexcept
{
    for (LONG i = 0; i < g_gateCount; ++i)
    {
        if (g_gates[i].target == target)
        {
            return g_code + static_cast<std::size_t>(i) * kGateBytes;
        }
    }
    const LONG number = ::InterlockedIncrement(&g_gateCount) - 1;
    if (number >= kMostFunctions)
    {
        return target;
    }
    Gate& gate = g_gates[number];
    gate = {target, number, kind};
    std::strncpy(g_section->functions[number], name, sizeof(g_section->functions[number]) - 1);
    BYTE* const code = g_code + static_cast<std::size_t>(number) * kGateBytes;
    const auto put = [code](std::size_t at, BYTE first, BYTE second, const void* value) {
        code[at] = first;
        code[at + 1] = second;
        std::memcpy(code + at + 2, static_cast<const void*>(&value), sizeof(value));
    };
    put(0, 0x49, 0xBB, &gate);                                // mov r11, gate
    put(10, 0x49, 0xBA, reinterpret_cast<void*>(&GateEntry)); // mov r10, GateEntry
    code[20] = 0x41;                                          // jmp r10
    code[21] = 0xFF;
    code[22] = 0xE2;
    return code;
}

// Event tracing: a session that wants everything, whose events are the section's log.

TRACEHANDLE g_session = 0x7E57;

ULONG WINAPI TakeEvent(TRACEHANDLE /*session*/, EVENT_TRACE_HEADER* header)
{
    const auto& fields = reinterpret_cast<const ETWLogging::MessageEvent*>(header)->fields;
    const auto number = *reinterpret_cast<const ULONG*>(fields[0].DataPtr);
    auto* const function = reinterpret_cast<const wchar_t*>(fields[2].DataPtr);
    auto* const message = reinterpret_cast<const wchar_t*>(fields[7].DataPtr);
    const auto length = static_cast<LONG>(std::wcslen(function) + std::wcslen(message) + 5);
    const LONG at = ::InterlockedExchangeAdd(&g_section->logUsed, length);
    if (at + length > kMostLog)
    {
        ::InterlockedIncrement(&g_section->logDropped);
        return ERROR_SUCCESS;
    }
    const std::wstring_view pieces[] = {function, L": ", message, L"\n"};
    wchar_t* to = g_section->log + at;
    *to++ = static_cast<wchar_t>(L'0' + number);
    *to++ = L' ';
    for (const std::wstring_view piece : pieces)
    {
        to = std::ranges::copy(piece, to).out;
    }
    return ERROR_SUCCESS;
}

ULONG WINAPI TakeRegistration(
    WMIDPREQUEST callback,
    void* context,
    const GUID*,
    ULONG,
    TRACE_GUID_REGISTRATION*,
    const wchar_t*,
    const wchar_t*,
    TRACEHANDLE* registration)
{
    *registration = 1;
    WNODE_HEADER node{};
    ULONG size = sizeof(node);
    return callback(WMI_ENABLE_EVENTS, context, &size, &node);
}

struct Special
{
    const char* name;
    Kind kind;
    void* instead;
};

template <typename Function>
void* Instead(Function* function)
{
    return reinterpret_cast<void*>(function);
}

const Special kSpecials[] = {
    {"Sleep", Kind::Sleep, nullptr},
    {"WaitForSingleObject", Kind::Wait, nullptr},
    {"CreateTimerQueueTimer", Kind::Timer, nullptr},
    {"GetProcAddress", Kind::GetProcAddress, nullptr},
    {"malloc", Kind::Malloc, nullptr},
    {"calloc", Kind::Calloc, nullptr},
    {"realloc", Kind::Realloc, nullptr},
    {"free", Kind::Free, nullptr},
    {"exit", Kind::Exit, nullptr},
    {"abort", Kind::Abort, nullptr},
    {"RegisterTraceGuidsW", Kind::Plain, Instead(&TakeRegistration)},
    {"UnregisterTraceGuids", Kind::Plain, Instead(+[](TRACEHANDLE) -> ULONG { return ERROR_SUCCESS; })},
    {"GetTraceLoggerHandle", Kind::Plain, Instead(+[](void*) { return g_session; })},
    {"GetTraceEnableLevel", Kind::Plain, Instead(+[](TRACEHANDLE) -> UCHAR { return 5; })},
    {"GetTraceEnableFlags", Kind::Plain, Instead(+[](TRACEHANDLE) -> ULONG { return 0; })},
    {"TraceEvent", Kind::Plain, Instead(&TakeEvent)}};

/// What works on every call, unwinds the stack, or belongs to C: left alone.
bool IsLeftAlone(const char* dll, const char* name) noexcept
{
    for (const char* const other :
         {"RtlCaptureContext",
          "RtlLookupFunctionEntry",
          "RtlUnwindEx",
          "RtlVirtualUnwind",
          "RaiseException",
          "__C_specific_handler",
          "SetLastError",
          "GetLastError",
          "EnterCriticalSection",
          "LeaveCriticalSection",
          "AcquireSRWLockExclusive",
          "ReleaseSRWLockExclusive",
          "FlsGetValue",
          "TlsGetValue"})
    {
        if (std::strcmp(other, name) == 0)
        {
            return true;
        }
    }
    bool isSpecial = false;
    for (const Special& special : kSpecials)
    {
        isSpecial = isSpecial || std::strcmp(special.name, name) == 0;
    }
    return _stricmp(dll, "msvcrt.dll") == 0 && !isSpecial;
}

/// @param slot aligned for nothing: the linker packs the table.
void PatchSlot(BYTE* slot, const char* name) noexcept
{
    Kind kind = Kind::Plain;
    void* target = nullptr;
    std::memcpy(static_cast<void*>(&target), slot, sizeof(target));
    for (const Special& special : kSpecials)
    {
        if (std::strcmp(special.name, name) == 0)
        {
            kind = special.kind;
            target = special.instead != nullptr ? special.instead : target;
        }
    }
    void* const gate = MakeGate(target, name, kind);
    DWORD protection = 0;
    ::VirtualProtect(slot, sizeof(gate), PAGE_READWRITE, &protection);
    std::memcpy(slot, static_cast<const void*>(&gate), sizeof(gate));
}

void PatchImports() noexcept
{
    IMAGE_DOS_HEADER dos;
    IMAGE_NT_HEADERS64 headers;
    std::memcpy(&dos, g_base, sizeof(dos));
    std::memcpy(&headers, g_base + dos.e_lfanew, sizeof(headers));
    g_imageSize = headers.OptionalHeader.SizeOfImage;
    const BYTE* at =
        g_base + headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    IMAGE_IMPORT_DESCRIPTOR descriptor;
    for (std::memcpy(&descriptor, at, sizeof(descriptor)); descriptor.Name != 0;
         std::memcpy(&descriptor, at += sizeof(descriptor), sizeof(descriptor)))
    {
        auto* const dll = reinterpret_cast<const char*>(g_base + descriptor.Name);
        BYTE* slot = g_base + descriptor.FirstThunk;
        ULONGLONG thunk = 0;
        for (const BYTE* entry = g_base + descriptor.OriginalFirstThunk;
             std::memcpy(&thunk, entry, sizeof(thunk)), thunk != 0;
             entry += sizeof(thunk), slot += sizeof(void*))
        {
            auto* const name =
                reinterpret_cast<const char*>(g_base + thunk + offsetof(IMAGE_IMPORT_BY_NAME, Name));
            if (!IMAGE_SNAP_BY_ORDINAL64(thunk) && !IsLeftAlone(dll, name))
            {
                PatchSlot(slot, name);
            }
        }
    }
}

LONG WINAPI NoteCrash(EXCEPTION_POINTERS* pointers)
{
    g_isWatching = 0;
    g_section->crashCode = pointers->ExceptionRecord->ExceptionCode;
    g_section->failedFrom =
        static_cast<DWORD>(static_cast<BYTE*>(pointers->ExceptionRecord->ExceptionAddress) - g_base);
    ::InterlockedExchange(&g_section->hasCrashed, 1);
    g_terminate(reinterpret_cast<HANDLE>(-1), pointers->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const HANDLE mapping = ::OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, kFailingSection);
    if (mapping == nullptr)
    {
        return TxSvcHostMain(argc, argv);
    }
    g_section = static_cast<FailingSection*>(
        ::MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(FailingSection)));
    g_base = reinterpret_cast<BYTE*>(::GetModuleHandleW(nullptr));
    g_code = static_cast<BYTE*>(::VirtualAlloc(
        nullptr, kMostFunctions * kGateBytes, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
    ::SetUnhandledExceptionFilter(&NoteCrash);
    static_cast<void>(CountOwnHandles()); // Looks its function up.
    PatchImports();

    g_isWatching = 1;
    const int result = TxSvcHostMain(argc, argv);
    g_isWatching = 0;
    g_section->exitCode = static_cast<DWORD>(result);
    g_section->handles = static_cast<LONG>(CountOwnHandles());
    g_section->threads = static_cast<LONG>(CountOwnThreads());
    ::InterlockedExchange(&g_section->hasEnded, 1);
    return result;
}
