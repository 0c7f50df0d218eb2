#include "txsvcctl/setup/RunningServices.h"

#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "TxSvcGroupControl.h"
#include "base/Owned.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ImagePath.h"
#include "txsvcctl/service/ServiceManager.h"

namespace TxCtl
{

namespace
{

constexpr DWORD kStopMs = 60000;
constexpr DWORD kStartMs = 60000;
/// The services have stopped by then; the process follows about a second later.
constexpr DWORD kEndMs = 30000;

// For hosts that are just ending.
constexpr int kConnectAttempts = 20;
constexpr DWORD kConnectPauseMs = 100;

struct ComTraits
{
    using Type = IUnknown*;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { value->Release(); }
};
using CComReference = Basalt::COwned<ComTraits>;

struct RunningService
{
    std::wstring name;
    DWORD processId = 0;
};

std::vector<RunningService> FindRunning(const CServiceManager& manager)
{
    std::vector<RunningService> running;
    const CGroupStore store;
    for (const std::wstring& group : store.Groups())
    {
        for (const std::wstring& name : store.Services(group))
        {
            const std::optional<ServiceConfig> config = manager.FindConfig(name);
            const std::optional<ServiceState> state = manager.FindState(name);
            if (config && state && state->state != SERVICE_STOPPED &&
                RunsGroup(ParseImagePath(config->imagePath), group))
            {
                running.push_back({name, state->processId});
            }
        }
    }
    return running;
}

/// Those that have ended meanwhile are left out.
std::vector<Basalt::CHandle> ProcessesOf(const std::vector<RunningService>& services)
{
    std::vector<Basalt::CHandle> processes;
    for (const RunningService& service : services)
    {
        Basalt::CHandle process(
            service.processId == 0 ? nullptr : ::OpenProcess(SYNCHRONIZE, FALSE, service.processId));
        if (process)
        {
            processes.push_back(std::move(process));
        }
    }
    return processes;
}

/// What a host answers that is just ending, or COM in its place.
bool IsEnding(HRESULT result)
{
    return result == CO_E_SERVER_STOPPING || result == HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE) ||
           result == RPC_E_DISCONNECTED || result == RPC_E_SERVER_DIED || result == RPC_E_SERVER_DIED_DNE;
}

/// Which of the running hosts is COM's choice.
HRESULT StopOneGroup(DWORD& processId)
{
    ITxSvcClassObject* classObject = nullptr;
    HRESULT result = ::CoGetClassObject(
        CLSID_TxSvcSubsystemControlManager,
        CLSCTX_LOCAL_SERVER,
        nullptr,
        IID_ITxSvcClassObject,
        reinterpret_cast<void**>(&classObject));
    if (FAILED(result))
    {
        return result;
    }
    const CComReference classReference(classObject);
    ITxSvcSubsystemControlManager* control = nullptr;
    result = classObject->CreateObject(IID_ITxSvcSubsystemControlManager, reinterpret_cast<void**>(&control));
    if (FAILED(result))
    {
        return result;
    }
    const CComReference controlReference(control);
    // A failure is the normal answer: it says that the process ends. S_OK is that of a group without
    // services, to which COM would go on to lead.
    return control->TxStopSvcSubsystem(0, &processId) == S_OK ? S_FALSE : S_OK;
}

void WaitForEnd(const Basalt::CHandle& process)
{
    if (::WaitForSingleObject(process.Get(), kEndMs) != WAIT_OBJECT_0)
    {
        ThrowFailed(L"a host's process does not end although its services have stopped");
    }
}

/// One host after the other, as the updater does; ends when no further one can be reached.
void StopByGroupControl(IConsole& console)
{
    bool hasStopped = false;
    for (int attempts = kConnectAttempts; attempts > 0;)
    {
        DWORD processId = 0;
        const HRESULT result = StopOneGroup(processId);
        if (IsEnding(result))
        {
            --attempts;
            ::Sleep(kConnectPauseMs);
            continue;
        }
        if (result != S_OK)
        {
            // "File not found" is Wine's word for a registered class without a server that runs.
            const bool isNoneLeft =
                result == REGDB_E_CLASSNOTREG || result == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
            if (!hasStopped || !isNoneLeft)
            {
                console.Out(
                    L"Group control: " + DescribeError(static_cast<DWORD>(result)) +
                    L" The service manager stops what runs.");
            }
            return;
        }
        hasStopped = true;
        console.Out(L"Group control has stopped process " + std::to_wstring(processId) + L".");
        const Basalt::CHandle process(
            processId == 0 ? nullptr : ::OpenProcess(SYNCHRONIZE, FALSE, processId));
        process ? WaitForEnd(process) : void();
    }
}

} // namespace

void CRunningServices::Stop(IConsole& console)
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    const std::vector<RunningService> running = FindRunning(manager);
    if (running.empty())
    {
        return;
    }
    for (const RunningService& service : running)
    {
        if (std::ranges::find(m_names, service.name) == m_names.end())
        {
            m_names.push_back(service.name);
        }
    }
    const std::vector<Basalt::CHandle> processes = ProcessesOf(running);
    StopByGroupControl(console);
    for (auto service = running.rbegin(); service != running.rend(); ++service)
    {
        static_cast<void>(manager.Stop(service->name, kStopMs));
    }
    for (const Basalt::CHandle& process : processes)
    {
        WaitForEnd(process);
    }
}

void CRunningServices::Start(IConsole& console) const
{
    const CServiceManager manager(SC_MANAGER_CONNECT);
    std::wstring failures;
    for (const std::wstring& name : m_names)
    {
        try
        {
            console.Out(name + L": " + DescribeState(manager.Start(name, kStartMs)));
        }
        catch (const CToolError& error)
        {
            failures += (failures.empty() ? L"" : L"\n") + error.Text();
        }
    }
    if (!failures.empty())
    {
        ThrowFailed(failures);
    }
}

} // namespace TxCtl
