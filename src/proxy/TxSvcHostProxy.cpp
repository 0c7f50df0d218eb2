#include "proxy/TxSvcHostProxy.h"

#include <windows.h>
#include <objbase.h>

#include <exception>
#include <utility>

#include "TxSvcSubsystem.h"
#include "base/CallGuard.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "base/SystemLibrary.h"
#include "base/Text.h"
#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "contract/WorkingSetEvent.h"
#include "eventlog/EventLog.h"
#include "logging/Log.h"
#include "process/ComApartment.h"
#include "process/ReduceRestart.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcHostProxy";

/// What an exception out of hosted code is turned into.
constexpr DWORD kExceptionCode = ERROR_INVALID_OPERATION;

/// Time for the subsystem's last thread to leave its code before that is unmapped.
constexpr DWORD kUnloadDelayMs = 100;

/// Longer than any thread needs that is not stuck, the unload delay included.
constexpr DWORD kThreadEndMs = 1000;

/// DllGetClassObject, with an exception turned into a status.
HRESULT AskForClassObject(
    LPFNGETCLASSOBJECT getClassObject,
    const CLSID& clsid,
    ITxSvcClassObject** object,
    DWORD& exceptionCode) noexcept
{
    void* found = nullptr;
    const HRESULT result = Basalt::GuardedResult(
        [&] { return getClassObject(clsid, IID_ITxSvcClassObject, &found); }, &exceptionCode);
    *object = static_cast<ITxSvcClassObject*>(found);
    return SUCCEEDED(result) && found == nullptr ? E_POINTER : result;
}

/// CreateObject, with an exception turned into a status. Releases the class object in any case.
HRESULT CreateSubsystem(
    ITxSvcClassObject* classObject, CSubsystemHolder& holder, DWORD& exceptionCode) noexcept
{
    void* created = nullptr;
    const HRESULT result = Basalt::GuardedResult(
        [&] { return classObject->CreateObject(IID_ITxSvcSubsystem, &created); }, &exceptionCode);
    if (SUCCEEDED(result))
    {
        holder.SetInterface(static_cast<ITxSvcSubsystem*>(created));
    }
    if (!Basalt::CallGuarded([classObject] { classObject->Release(); }))
    {
        TX_LOG(
            LogError,
            L"CTxSvcHostProxy::GetSubsystem",
            L"Exception found & suppressed in service, returning 0x%08X",
            kExceptionCode);
    }
    return result;
}

/// Asks the working-set handler of this process, if there is one, for a trim.
void SignalWorkingSetEvent() noexcept
{
    const auto name = Contract::WorkingSetEventName(::GetCurrentProcessId());
    const Basalt::CHandle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.data()));
    if (event)
    {
        ::SetEvent(event.Get());
    }
}

/// Whether the service control manager already has the service as stopped. A second report would replace the
/// exit code of the first.
bool IsReportedStopped(const wchar_t* name) noexcept
{
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const Basalt::CServiceHandle service(::OpenServiceW(manager.Get(), name, SERVICE_QUERY_STATUS));
    SERVICE_STATUS status{};
    return service && ::QueryServiceStatus(service.Get(), &status) &&
           status.dwCurrentState == SERVICE_STOPPED;
}

void WINAPI IgnoreControl(DWORD /*control*/) {}

} // namespace

CTxSvcHostProxy::Slot& CTxSvcHostProxy::slot()
{
    // Never destroyed: a forced stop ends the process through its exit handlers while services still run.
    static Slot* const s_slot = new Slot;
    return *s_slot;
}

CTxSvcHostProxy::CTxSvcHostProxy()
{
    Slot& shared = slot();
    const Basalt::CLockGuard guard(shared.lock);
    if (shared.instance == nullptr)
    {
        shared.instance = std::make_shared<Instance>();
    }
}

CTxSvcHostProxy::~CTxSvcHostProxy()
{
    Slot& shared = slot();
    const Basalt::CLockGuard guard(shared.lock);
    shared.instance.reset();
}

std::shared_ptr<CTxSvcHostProxy::Instance> CTxSvcHostProxy::currentInstance()
{
    Slot& shared = slot();
    const Basalt::CLockGuard guard(shared.lock);
    return shared.instance;
}

void CTxSvcHostProxy::WaitForThreads() noexcept
{
    const std::shared_ptr<Instance> instance = currentInstance();
    for (DWORD waited = 0; instance != nullptr && !instance->starts.IsEmpty() && waited < kThreadEndMs;
         ++waited)
    {
        ::Sleep(1);
    }
}

void WINAPI CTxSvcHostProxy::GenericServiceMain(DWORD argc, LPWSTR* argv) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::GenericServiceMain";
    if (argc < 1)
    {
        TX_LOG(LogError, kFunction, L"Insufficient arguments to ServiceMain");
        return;
    }
    if (argv == nullptr)
    {
        TX_LOG(LogError, kFunction, L"NULL passed as argv ");
        return;
    }
    const wchar_t* const name = argv[0] != nullptr ? argv[0] : L"";
    if (IsReduceRestartStopping())
    {
        TX_LOG(LogError, kFunction, L"GenericServiceMain is called when shutdown, argv[0] = %s", name);
        return;
    }
    ::SetThreadPriority(::GetCurrentThread(), THREAD_PRIORITY_ABOVE_NORMAL);

    // A reference of our own: the dispatcher returns, and the host goes on to destroy its proxy, as soon as
    // the last service has reported that it is stopped, while this thread may still be inside the load lock.
    const std::shared_ptr<Instance> instance = currentInstance();
    if (instance == nullptr)
    {
        TX_LOG(LogError, kFunction, L"No instance for CTxSvcHostProxy");
        return;
    }
    try
    {
        ProxyServiceMain(*instance, name, argc, argv);
    }
    catch (const std::exception&)
    {
        // Out of memory in our own code. The other services of the group may still have enough.
        TX_LOG(LogError, kFunction, L"Out of memory, stopping service '%s'", name);
        SetServiceStoppedStatus(name);
        EventLog::ServiceFailed(name, {ERROR_OUTOFMEMORY});
    }
}

void CTxSvcHostProxy::ProxyServiceMain(Instance& instance, const std::wstring& name, DWORD argc, LPWSTR* argv)
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::ProxyServiceMain";
    const CServiceStart start(instance.starts, name);
    TX_LOG(LogNormal, kFunction, L"Entering ServiceMain for '%s'", name);
    const Basalt::CStopwatch sinceStart;

    const CComApartment com;
    if (FAILED(com.Result()))
    {
        // Without COM nothing of the service exists yet; no status is reported.
        TX_LOG(LogError, kFunction, L"Failed to initialize COM (0x%08X)", com.Result());
        EventLog::ServiceFailed(start.Name(), {static_cast<DWORD>(com.Result())});
        return;
    }
    TX_LOG(LogNormal, kFunction, L"ServiceMain for '%s' starting (%0.04fs)", name, sinceStart.Seconds());

    CSubsystemHolder holder;
    if (admitAndLoad(instance, name, sinceStart, holder))
    {
        static_cast<void>(RunSubsystem(start, sinceStart, holder, argc, argv));
    }
}

CTxSvcHostProxy::RunResult CTxSvcHostProxy::RunSubsystem(
    const CServiceStart& start,
    const Basalt::CStopwatch& sinceStart,
    CSubsystemHolder& holder,
    DWORD argc,
    LPWSTR* argv) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::ProxyServiceMain";
    EventLog::GroupRuns(CTxSvcHostConfig::GetInstance().GroupName());
    const RunResult result = SafeExecuteServiceMain(holder, argc, argv);
    TX_LOG(
        LogNormal,
        kFunction,
        L"The ITxSvcSubsystem(%s)->TxServiceMain returned 0x%08X",
        start.Name(),
        result.code);
    if (result.failed)
    {
        reportFailed(start);
        EventLog::ServiceFailed(start.Name(), result.failure);
    }

    const bool unload = result.code == kTxSvcUnloadModule;
    if (const DWORD exceptionCode = holder.ReleaseInterface())
    {
        EventLog::ServiceFailed(start.Name(), {.exceptionCode = exceptionCode});
    }
    if (unload)
    {
        ::Sleep(kUnloadDelayMs);
        holder.UnloadModule();
    }
    TX_LOG(
        LogNormal,
        kFunction,
        L"ServiceMain for %s completed after %0.02fs",
        start.Name(),
        sinceStart.Seconds());
    if (unload)
    {
        SignalWorkingSetEvent();
    }
    return result;
}

/// It will not report anything any more: without this the group's process would never end. Before the
/// subsystem is released: that may wait for ever for what the crashed code still holds, and the manager must
/// no longer reach a handler that works with the object.
///
/// A start that the manager has begun but whose thread has not arrived yet is in the same state as one that
/// failed before its first report. It would be reported stopped here; its own reports then follow.
void CTxSvcHostProxy::reportFailed(const CServiceStart& start) noexcept
{
    start.IfLast([&start] {
        if (!IsReportedStopped(start.Name()))
        {
            SetServiceStoppedStatus(start.Name());
        }
    });
}

bool CTxSvcHostProxy::admitAndLoad(
    Instance& instance,
    const std::wstring& name,
    const Basalt::CStopwatch& sinceStart,
    CSubsystemHolder& holder)
{
    const Basalt::CStopwatch sinceAdmission;
    if (!instance.firstRunGate.shouldExecuteService(name))
    {
        TX_LOG(
            LogWarning,
            L"CTxSvcHostProxy::ProxyServiceMain",
            L"The service should not be executed, stopping service");
        SetServiceStoppedStatus(name.c_str());
        return false;
    }
    if (!CTxSvcHostConfig::GetInstance().IsSerialLoad())
    {
        return loadOrReportStopped(name, sinceStart, sinceAdmission, holder);
    }
    // Hosted code runs under this lock: loading one subsystem at a time is what it is for.
    const Basalt::CLockGuard guard(instance.loadLock);
    return loadOrReportStopped(name, sinceStart, sinceAdmission, holder);
}

bool CTxSvcHostProxy::loadOrReportStopped(
    const std::wstring& name,
    const Basalt::CStopwatch& sinceStart,
    const Basalt::CStopwatch& sinceAdmission,
    CSubsystemHolder& holder)
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::ProxyServiceMain";
    EventLog::Failure failure;
    if (!GetSubsystem(name, holder, failure) || holder.Interface() == nullptr)
    {
        TX_LOG(LogError, kFunction, L"Failed to get the subsystem interface for '%s'", name);
        SetServiceStoppedStatus(name.c_str());
        EventLog::ServiceFailed(name.c_str(), failure);
        holder.ReleaseInterface();
        return false;
    }
    TX_LOG(
        LogNormal,
        kFunction,
        L"Loading of %s subsystem took %0.04fs (%0.04fs from start)",
        name,
        sinceAdmission.Seconds(),
        sinceStart.Seconds());
    return true;
}

bool CTxSvcHostProxy::GetSubsystem(
    const std::wstring& name, CSubsystemHolder& holder, EventLog::Failure& failure)
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::GetSubsystem";
    holder.ReleaseInterface();
    failure.code = static_cast<DWORD>(REGDB_E_CLASSNOTREG); // Until it is known where to load from.

    std::wstring clsidText;
    if (!CTxSvcHostConfig::GetInstance().GetSvcCLSID(name, clsidText))
    {
        TX_LOG(LogError, kFunction, L"Failed to get the subsystem clsid");
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"Subsystem ClsID = '%s'", clsidText);
    CLSID clsid{};
    std::wstring path;
    if (!ConvertStringToCLSID(clsidText, clsid) || !LookupPathnameFromCLSID(clsidText, path))
    {
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"Subsystem DLL path: '%s'", path);
    return SUCCEEDED(LoadSubsystem(name, path, clsid, holder, failure));
}

HRESULT CTxSvcHostProxy::LoadSubsystem(
    const std::wstring& name,
    const std::wstring& path,
    REFCLSID clsid,
    CSubsystemHolder& holder,
    EventLog::Failure& failure)
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::GetSubsystem";
    const Basalt::CStopwatch sinceLoad;
    const HMODULE module = ::LoadLibraryW(path.c_str());
    const DWORD error = ::GetLastError();
    holder.SetModule(module);
    if (module == nullptr)
    {
        failure.code = error;
        TX_LOG(LogError, kFunction, L"Unable to load module '%s'", path);
        return error == ERROR_SUCCESS ? E_FAIL : HRESULT_FROM_WIN32(error);
    }
    const auto getClassObject = reinterpret_cast<LPFNGETCLASSOBJECT>(
        Basalt::FindExport<std::remove_pointer_t<LPFNGETCLASSOBJECT>>(holder.Module(), "DllGetClassObject"));
    if (getClassObject == nullptr)
    {
        failure.code = ERROR_PROC_NOT_FOUND;
        TX_LOG(LogError, kFunction, L"Module '%s' does not contain correct entry point", path);
        holder.UnloadModule();
        return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
    }
    TX_LOG(LogNormal, kFunction, L"Module '%s' loaded in %0.04fs", name, sinceLoad.Seconds());

    // From here on the module stays loaded, also on failure: it has run code of its own.
    const Basalt::CStopwatch sinceCreate;
    ITxSvcClassObject* classObject = nullptr;
    HRESULT result = AskForClassObject(getClassObject, clsid, &classObject, failure.exceptionCode);
    failure.code = static_cast<DWORD>(result);
    if (FAILED(result))
    {
        TX_LOG(LogError, kFunction, L"DllGetClassObject failed (0x%08X)", result);
        return result;
    }
    result = CreateSubsystem(classObject, holder, failure.exceptionCode);
    failure.code = static_cast<DWORD>(FAILED(result) ? result : E_NOINTERFACE); // It may have made none.
    if (FAILED(result))
    {
        TX_LOG(LogError, kFunction, L"CreateObject failed (0x%08X)", result);
        return result;
    }
    TX_LOG(LogNormal, kFunction, L"Object '%s' created in %0.04fs", name, sinceCreate.Seconds());
    return S_OK;
}

bool CTxSvcHostProxy::ConvertStringToCLSID(const std::wstring& text, CLSID& clsid) noexcept
{
    if (text.empty() || text == L"{}")
    {
        return false;
    }
    const HRESULT result = ::CLSIDFromString(text.c_str(), &clsid);
    if (FAILED(result))
    {
        TX_LOG(
            LogError,
            L"CTxSvcHostProxy::ConvertStringToCLSID",
            L"Failed to convert the string clsid to clsid '%s' (0x%08X)",
            text,
            result);
        return false;
    }
    return true;
}

bool CTxSvcHostProxy::LookupPathnameFromCLSID(const std::wstring& clsidText, std::wstring& path)
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::LookupPathnameFromCLSID";
    const std::wstring keyPath = Contract::ServerKey(clsidText);
    Basalt::CRegKey key;
    // Write access is asked for on purpose although only reading follows: a registration that the host's
    // account may not write is not one of ours.
    const DWORD status = key.Open(HKEY_CLASSES_ROOT, keyPath.c_str(), KEY_READ | KEY_WRITE);
    if (status != ERROR_SUCCESS)
    {
        TX_LOG(
            LogError,
            kFunction,
            L"Unable to open registry path HKEY_CLASSES_ROOT\\%s (0x%08X)",
            keyPath,
            status);
        return false;
    }
    if (key.ReadString(L"", path) != ERROR_SUCCESS)
    {
        TX_LOG(LogError, kFunction, L"Unable to load pathname, no default key");
        return false;
    }
    return true;
}

CTxSvcHostProxy::RunResult CTxSvcHostProxy::SafeExecuteServiceMain(
    const CSubsystemHolder& holder, DWORD argc, LPWSTR* argv) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::SafeExecuteServiceMain";
    HRESULT status = S_OK;
    DWORD result = 0;
    EventLog::Failure failure;
    if (!Basalt::CallGuarded(
            [&] { status = holder.Interface()->TxServiceMain(argc, argv, &result); }, &failure.exceptionCode))
    {
        TX_LOG(
            LogError,
            kFunction,
            L"Exception found & suppressed in service, returning 0x%08X",
            kExceptionCode);
        return {kExceptionCode, true, failure};
    }
    if (FAILED(status))
    {
        TX_LOG(LogError, kFunction, L"Failed to start sub-service (hr=0x%08X)", status);
        failure.code = static_cast<DWORD>(status);
        return {ERROR_FUNCTION_FAILED, true, failure};
    }
    return {result, false, failure};
}

bool CTxSvcHostProxy::SetServiceStoppedStatus(const wchar_t* name) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostProxy::SetServiceStoppedStatus";
    const SERVICE_STATUS_HANDLE handle = ::RegisterServiceCtrlHandlerW(name, &IgnoreControl);
    if (handle == nullptr)
    {
        TX_LOG(LogError, kFunction, L"RegisterServiceCtrlHandler failed");
        return false;
    }
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_SHARE_PROCESS;
    status.dwCurrentState = SERVICE_STOPPED;
    if (!::SetServiceStatus(handle, &status))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, kFunction, L"Failed to set the service status, error %d", error);
        return false;
    }
    return true;
}
