#include "FailingFunctions.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace
{

/// What the function returns when it fails.
enum class Form
{
    Zero,    ///< FALSE or null, and a last error.
    Invalid, ///< -1, and a last error.
    Code,    ///< The code itself: a Win32 error, an HRESULT, an NTSTATUS.
    Value,   ///< The code itself, and no error: WAIT_FAILED and the like.
};
struct Kind
{
    Form form;
    std::vector<DWORD> codes;
};

const Kind kDenied = {Form::Zero, {ERROR_ACCESS_DENIED, ERROR_NO_SYSTEM_RESOURCES}};
const Kind kRegistry = {Form::Code, {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND, ERROR_KEY_DELETED}};
const Kind kCom = {
    Form::Code, {static_cast<DWORD>(E_OUTOFMEMORY), static_cast<DWORD>(E_ACCESSDENIED), 0x800706BA}};
const Kind kFile = {Form::Zero, {ERROR_ACCESS_DENIED, ERROR_DISK_FULL}};
const Kind kMemory = {Form::Zero, {ERROR_NOT_ENOUGH_MEMORY}};
const std::map<std::string_view, Kind> kKinds = {
    {"AddAccessAllowedAce", {Form::Zero, {ERROR_ALLOTTED_SPACE_EXCEEDED}}},
    {"AddAce", {Form::Zero, {ERROR_ALLOTTED_SPACE_EXCEEDED}}},
    {"AdjustTokenPrivileges", kDenied},
    {"CheckTokenMembership", kDenied},
    {"CLSIDFromString",
     {Form::Code, {static_cast<DWORD>(CO_E_CLASSSTRING), static_cast<DWORD>(E_INVALIDARG)}}},
    {"CloseHandle", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"CloseServiceHandle", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"CoCreateInstance", kCom},
    {"CoGetClassObject", kCom},
    {"CoInitializeEx",
     {Form::Code, {static_cast<DWORD>(E_OUTOFMEMORY), static_cast<DWORD>(RPC_E_CHANGED_MODE)}}},
    {"CoInitializeSecurity",
     {Form::Code, {static_cast<DWORD>(RPC_E_TOO_LATE), static_cast<DWORD>(E_OUTOFMEMORY)}}},
    {"CoRegisterClassObject", kCom},
    {"CoRevokeClassObject", {Form::Code, {static_cast<DWORD>(E_FAIL)}}},
    {"ControlService", {Form::Zero, {ERROR_SERVICE_CANNOT_ACCEPT_CTRL, ERROR_SERVICE_REQUEST_TIMEOUT}}},
    {"ConvertStringSecurityDescriptorToSecurityDescriptorA", {Form::Zero, {ERROR_NOT_ENOUGH_MEMORY}}},
    {"CreateDirectoryW", kFile},
    {"CreateEventW", kDenied},
    {"CreateFileW", {Form::Invalid, {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_PATH_NOT_FOUND}}},
    {"CreateMutexExW", kDenied},
    {"CreateThread", kMemory},
    {"CreateThreadpoolWait", kMemory},
    {"CreateTimerQueue", kMemory},
    {"CreateTimerQueueTimer", kMemory},
    {"DeleteFileW", kFile},
    {"DeleteTimerQueueEx", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"DeleteTimerQueueTimer", {Form::Zero, {ERROR_INVALID_HANDLE, ERROR_IO_PENDING}}},
    {"ExpandEnvironmentStringsW", kMemory},
    {"FindCloseChangeNotification", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"FindFirstChangeNotificationW", {Form::Invalid, {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY}}},
    {"FindNextChangeNotification", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"FlsAlloc", {Form::Invalid, {ERROR_NOT_ENOUGH_MEMORY}}},
    {"FlsSetValue", kMemory},
    {"FormatMessageW", kMemory},
    {"FreeLibrary", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"GetAce", {Form::Zero, {ERROR_INVALID_PARAMETER}}},
    {"GetAclInformation", {Form::Zero, {ERROR_INVALID_PARAMETER}}},
    {"GetEnvironmentVariableW", {Form::Zero, {ERROR_ENVVAR_NOT_FOUND}}},
    {"GetFileAttributesW", {Form::Invalid, {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND}}},
    {"GetFileInformationByHandle", kFile},
    {"GetFileSizeEx", kFile},
    {"GetFinalPathNameByHandleW", kMemory},
    {"GetFullPathNameW", kMemory},
    {"GetModuleFileNameW", kMemory},
    {"GetModuleHandleW", {Form::Zero, {ERROR_MOD_NOT_FOUND}}},
    {"GetPrivateProfileStringW", {Form::Zero, {ERROR_FILE_NOT_FOUND}}},
    {"GetProcAddress", {Form::Zero, {ERROR_PROC_NOT_FOUND}}},
    {"GetProcessTimes", kDenied},
    {"GetSecurityDescriptorDacl", {Form::Zero, {ERROR_INVALID_SECURITY_DESCR}}},
    {"GetSecurityInfo", {Form::Code, {ERROR_ACCESS_DENIED}}},
    {"GetTokenInformation", {Form::Zero, {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY}}},
    {"GetTraceLoggerHandle", {Form::Invalid, {ERROR_INVALID_HANDLE}}},
    {"GetWindowsDirectoryW", kMemory},
    {"InitOnceExecuteOnce", kMemory},
    {"InitializeAcl", {Form::Zero, {ERROR_INVALID_PARAMETER}}},
    {"InitializeSecurityDescriptor", {Form::Zero, {ERROR_UNKNOWN_REVISION}}},
    {"K32EnumProcessModules", kDenied},
    {"K32GetModuleFileNameExW", kDenied},
    {"K32GetModuleInformation", kDenied},
    {"K32GetProcessMemoryInfo", kDenied},
    {"LCMapStringEx", kMemory},
    {"LoadLibraryExW", {Form::Zero, {ERROR_MOD_NOT_FOUND, ERROR_COMMITMENT_LIMIT}}},
    {"LoadLibraryW", {Form::Zero, {ERROR_MOD_NOT_FOUND, ERROR_BAD_EXE_FORMAT, ERROR_COMMITMENT_LIMIT}}},
    {"LookupAccountNameW", {Form::Zero, {ERROR_NONE_MAPPED, RPC_S_SERVER_UNAVAILABLE}}},
    {"LookupPrivilegeValueW", {Form::Zero, {ERROR_NO_SUCH_PRIVILEGE}}},
    {"MoveFileExW", kFile},
    {"NtDeleteKey", {Form::Code, {0xC0000022}}},
    {"OpenEventW", {Form::Zero, {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND}}},
    {"OpenProcess", kDenied},
    {"OpenProcessToken", kDenied},
    {"OpenSCManagerW", {Form::Zero, {ERROR_ACCESS_DENIED, RPC_S_SERVER_UNAVAILABLE}}},
    {"OpenServiceW", {Form::Zero, {ERROR_ACCESS_DENIED, ERROR_SERVICE_DOES_NOT_EXIST}}},
    {"OpenThreadToken", {Form::Zero, {ERROR_ACCESS_DENIED, ERROR_NO_TOKEN}}},
    {"QueryPerformanceCounter", {Form::Zero, {ERROR_NOT_SUPPORTED}}},
    {"QueryPerformanceFrequency", {Form::Zero, {ERROR_NOT_SUPPORTED}}},
    {"QueryServiceStatus", kDenied},
    {"ReadFile", kFile},
    {"ReadProcessMemory", {Form::Zero, {ERROR_PARTIAL_COPY}}},
    {"RegCloseKey", {Form::Code, {ERROR_INVALID_HANDLE}}},
    {"RegCreateKeyExW", kRegistry},
    {"RegDeleteValueW", kRegistry},
    {"RegEnumValueW", {Form::Code, {ERROR_ACCESS_DENIED, ERROR_MORE_DATA}}},
    {"RegNotifyChangeKeyValue", {Form::Code, {ERROR_ACCESS_DENIED, ERROR_KEY_DELETED}}},
    {"RegOpenKeyExA", kRegistry},
    {"RegOpenKeyExW", kRegistry},
    {"RegQueryInfoKeyW", kRegistry},
    {"RegQueryValueExA", kRegistry},
    {"RegQueryValueExW", kRegistry},
    {"RegSetValueExW", {Form::Code, {ERROR_ACCESS_DENIED, ERROR_NO_SYSTEM_RESOURCES}}},
    {"RegisterServiceCtrlHandlerW", {Form::Zero, {ERROR_SERVICE_NOT_IN_EXE}}},
    {"RegisterTraceGuidsW", {Form::Code, {ERROR_INVALID_PARAMETER, ERROR_NOT_ENOUGH_MEMORY}}},
    {"RegisterWaitForSingleObject", kMemory},
    {"ReleaseMutex", {Form::Zero, {ERROR_NOT_OWNER}}},
    {"ResetEvent", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"SHDeleteKeyW", kRegistry},
    {"SHGetFolderPathW", kCom},
    {"SHGetKnownFolderPath", kCom},
    {"SetEndOfFile", kFile},
    {"SetEvent", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"SetFilePointerEx", kFile},
    {"SetKernelObjectSecurity", kDenied},
    {"SetProcessWorkingSetSize", {Form::Zero, {ERROR_PRIVILEGE_NOT_HELD, ERROR_NO_SYSTEM_RESOURCES}}},
    {"SetSecurityDescriptorDacl", {Form::Zero, {ERROR_INVALID_SECURITY_DESCR}}},
    {"SetSecurityDescriptorGroup", {Form::Zero, {ERROR_INVALID_SECURITY_DESCR}}},
    {"SetSecurityDescriptorOwner", {Form::Zero, {ERROR_INVALID_SECURITY_DESCR}}},
    {"SetServiceStatus", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"SetThreadPriority", kDenied},
    {"SetThreadStackGuarantee", kMemory},
    {"StartServiceCtrlDispatcherW",
     {Form::Zero, {ERROR_FAILED_SERVICE_CONTROLLER_CONNECT, ERROR_ACCESS_DENIED}}},
    {"StartServiceW", {Form::Zero, {ERROR_ACCESS_DENIED, ERROR_SERVICE_DISABLED}}},
    {"TraceEvent", {Form::Code, {ERROR_NOT_ENOUGH_MEMORY, ERROR_INVALID_HANDLE}}},
    {"UnregisterTraceGuids", {Form::Code, {ERROR_INVALID_PARAMETER}}},
    {"UnregisterWaitEx", {Form::Zero, {ERROR_INVALID_HANDLE}}},
    {"VirtualQuery", {Form::Zero, {ERROR_INVALID_PARAMETER}}},
    {"WaitForSingleObject", {Form::Value, {WAIT_FAILED}}},
    {"CertGetNameStringW", kMemory},
    {"WTHelperGetProvCertFromChain", kMemory},
    {"WTHelperGetProvSignerFromChain", kMemory},
    {"WTHelperProvDataFromStateData", kMemory},
    {"WideCharToMultiByte", {Form::Zero, {ERROR_INSUFFICIENT_BUFFER}}},
    {"WinVerifyTrust",
     {Form::Code, {static_cast<DWORD>(TRUST_E_NOSIGNATURE), static_cast<DWORD>(E_OUTOFMEMORY)}}},
    {"WriteFile", kFile},
    {"calloc", kMemory},
    {"malloc", kMemory},
    {"realloc", kMemory}};

} // namespace

std::vector<Failure> FailuresOf(const std::string& function)
{
    const auto found = kKinds.find(function);
    std::vector<Failure> failures;
    if (found == kKinds.end())
    {
        return failures;
    }
    for (const DWORD code : found->second.codes)
    {
        switch (found->second.form)
        {
        case Form::Zero:
            failures.push_back({0, code, true});
            break;
        case Form::Invalid:
            failures.push_back({~0ULL, code, true});
            break;
        case Form::Code:
            failures.push_back({code, 0, false});
            break;
        case Form::Value:
            failures.push_back({code, ERROR_INVALID_HANDLE, true});
            break;
        }
    }
    return failures;
}

bool CannotFail(const std::string& function)
{
    // Also those that work on memory of the caller alone, and those of which nothing could come.
    static constexpr std::string_view kNever[] = {
        "CloseThreadpoolWait",
        "CoTaskMemFree",
        "CoUninitialize",
        "CompareStringOrdinal",
        "DeleteCriticalSection",
        "EqualSid",
        "FlsFree",
        "GetCommandLineW",
        "GetCurrentProcess",
        "GetCurrentProcessId",
        "GetCurrentThread",
        "GetCurrentThreadId",
        "GetLengthSid",
        "GetLocalTime",
        "GetStartupInfoW",
        "GetSystemInfo",
        "GetTickCount64",
        "GetTraceEnableFlags",
        "GetTraceEnableLevel",
        "GetSystemTimeAsFileTime",
        "InitializeCriticalSection",
        "InitializeCriticalSectionAndSpinCount",
        "LocalFree",
        "OutputDebugStringW",
        "ReleaseSRWLockShared",
        "SetErrorMode",
        "SetThreadpoolWait",
        "TryAcquireSRWLockShared",
        "Sleep",
        "WaitForThreadpoolWaitCallbacks",
        "WakeAllConditionVariable",
        "SleepConditionVariableSRW",
        "exit",
        "free",
        "abort",
        "SetUnhandledExceptionFilter",
        "RaiseFailFastException"};
    return std::ranges::find(kNever, function) != std::end(kNever);
}
