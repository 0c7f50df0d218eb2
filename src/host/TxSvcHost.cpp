#include "host/TxSvcHost.h"

#include <windows.h>
#include <objbase.h>

#include <new>
#include <vector>

#include "base/Stopwatch.h"
#include "contract/CommandLine.h"
#include "control/ProcessEnd.h"
#include "control/TxSvcSubsystemControlManagerClassFactory.h"
#include "host/ProcessSecurity.h"
#include "logging/Log.h"
#include "process/ComApartment.h"
#include "process/ReduceRestart.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcHost";

DWORD LowWord(HRESULT result) noexcept
{
    return static_cast<DWORD>(result) & 0xFFFFU;
}

/// @param security must outlive COM on this thread.
HRESULT OpenComToEveryone(CProcessSecurity& security) noexcept
{
    security.Build();
    return ::CoInitializeSecurity(
        security.Descriptor(),
        -1,
        nullptr,
        nullptr,
        RPC_C_AUTHN_LEVEL_DEFAULT,
        RPC_C_IMP_LEVEL_IMPERSONATE,
        nullptr,
        EOAC_NONE,
        nullptr);
}

/// The control manager's class object, registered for its scope at most. The object itself is never freed: a
/// caller's thread may be inside of it for as long as the process lives.
class CControlClass
{
public:
    CControlClass() = default;
    ~CControlClass() { m_object.Revoke(); }
    CControlClass(const CControlClass&) = delete;
    CControlClass& operator=(const CControlClass&) = delete;

    CoTxSvcSubsystemControlManagerClassFactory* operator->() const noexcept { return &m_object; }

private:
    CoTxSvcSubsystemControlManagerClassFactory& m_object = *new CoTxSvcSubsystemControlManagerClassFactory;
};

} // namespace

CTxSvcHost::CTxSvcHost() : m_groupDelimiter(Contract::kGroupDelimiter), m_groupIndex(1) {}

CTxSvcHost::~CTxSvcHost()
{
    // Only does something when the dispatcher could not be started; the learnt band is stored all the same.
    DeInitializeWSS();
}

DWORD CTxSvcHost::Start(int argc, wchar_t** argv)
{
    constexpr wchar_t kFunction[] = L"CTxSvcHost::Start";
    const Basalt::CStopwatch sinceStart;
    const CControlClass controlClass; // First, so that it is revoked last.
    TX_LOG(LogNormal, kFunction, L"---");

    // Declared in the order in which they must outlive one another: COM is uninitialised first, then the
    // table goes, then the descriptor.
    CProcessSecurity security;
    CTxSCMInterface scmInterface;
    DWORD result = prepareGroup(argc, argv, scmInterface);
    if (result != ERROR_SUCCESS)
    {
        return result;
    }

    const CComApartment com;
    if (FAILED(com.Result()))
    {
        TX_LOG(LogError, kFunction, L"CoInitialize failed (hr=0x%08X)", com.Result());
        return LowWord(com.Result());
    }
    const HRESULT secured = OpenComToEveryone(security);
    if (FAILED(secured))
    {
        TX_LOG(LogError, kFunction, L"CoInitializeSecurity failed (hr=0x%08X)", secured);
        return LowWord(secured);
    }

    TX_LOG(LogNormal, kFunction, L"Initializing working set reduction");
    InitializeWSS();

    TX_LOG(LogNormal, kFunction, L"Starting SCM after %0.04fs", sinceStart.Seconds());
    controlClass->RegisterClassObject(); // A group that cannot be stopped for an update can still run.
    result = scmInterface.RegisterServicesToSCM();
    if (result != ERROR_SUCCESS)
    {
        TX_LOG(LogError, kFunction, L"SCM interface failed to start (Err=0x%08X)", result);
        CloseCalls();
        return ERROR_INTERNAL_ERROR;
    }
    TX_LOG(LogNormal, kFunction, L"SCM stopped after %0.04fs", sinceStart.Seconds());
    CloseCalls(); // They use the configuration.
    CTxSvcHostProxy::WaitForThreads();

    TX_LOG(LogNormal, kFunction, L"De-initializing working set reduction");
    DeInitializeWSS();
    if (!CTxSvcHostConfig::GetInstance().DeInit())
    {
        TX_LOG(LogWarning, kFunction, L"Failed to deinitialize CTxSvcHostConfig");
    }
    CTxSvcHostConfig::ReleaseInstance();

    if (IsReduceRestartStopping())
    {
        // The updater's answer is on its way, and without COM it would be lost. Newcomers are turned away.
        controlClass->Revoke();
        LetAnswerLeave();
    }
    return ERROR_SUCCESS;
}

bool CTxSvcHost::InitializeWSS()
{
    constexpr wchar_t kFunction[] = L"CTxSvcHost::InitializeWSS";
    WorkingSetRecord record;
    if (!CTxSvcHostConfig::GetInstance().GetWorkingSetRecord(record))
    {
        TX_LOG(LogError, kFunction, L"Failed to get the WSS configurations");
        return false;
    }
    if (record.dwEnabled == 0)
    {
        TX_LOG(LogWarning, kFunction, L"Working set adjustment is disabled");
        return true;
    }
    try
    {
        m_workingSetHandler = std::make_unique<CTxSvcHostWorkingSetHandler>();
    }
    catch (const std::bad_alloc&)
    {
        TX_LOG(LogError, kFunction, L"Failed to create working set handler");
        return false;
    }
    if (!m_workingSetHandler->Initialize(record))
    {
        TX_LOG(LogError, kFunction, L"Failed to initialize working set handler");
        m_workingSetHandler.reset();
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"Working set handler initialized");
    return true;
}

bool CTxSvcHost::DeInitializeWSS() noexcept
{
    if (m_workingSetHandler == nullptr)
    {
        return false;
    }
    const ULONGLONG upperLimit = m_workingSetHandler->GetOptimalBucketUpperLimit();
    if (!m_workingSetHandler->DeInitialize())
    {
        TX_LOG(LogError, L"CTxSvcHost::DeInitializeWSS", L"Working set handler de-initialization failed");
        return false;
    }
    // The registry keeps 32 bits, also of a band beyond 4 GiB.
    CTxSvcHostConfig::GetInstance().SetGroupOptimalBucketUpperLimit(static_cast<DWORD>(upperLimit));
    m_workingSetHandler.reset();
    return true;
}

DWORD CTxSvcHost::prepareGroup(int argc, wchar_t** argv, CTxSCMInterface& scmInterface)
{
    constexpr wchar_t kFunction[] = L"CTxSvcHost::Start";
    std::wstring groupName;
    if (!ParseCommandLine(argc, argv, groupName))
    {
        TX_LOG(LogError, kFunction, L"Failed to parse the command line");
        TX_LOG(LogError, kFunction, L"Command Line: %s", ::GetCommandLineW());
        return ERROR_INVALID_PARAMETER;
    }
    if (groupName.empty())
    {
        TX_LOG(LogError, kFunction, L"The group name is empty");
        return ERROR_INVALID_PARAMETER;
    }
    CTxSvcHostConfig& config = CTxSvcHostConfig::GetInstance();
    if (!config.Init(groupName))
    {
        TX_LOG(LogError, kFunction, L"Failed to initialize CTxSvcHostConfig");
        return ERROR_INTERNAL_ERROR;
    }
    if (m_proxy == nullptr)
    {
        m_proxy = std::make_unique<CTxSvcHostProxy>();
    }
    if (!AddServicesToScmInterface(config, scmInterface))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, kFunction, L"Failed to add services to SCM interface (GLE=0x%08X)", error);
        return ERROR_INVALID_PARAMETER;
    }
    return ERROR_SUCCESS;
}

bool CTxSvcHost::ParseCommandLine(int argc, wchar_t** argv, std::wstring& groupName) const
{
    constexpr wchar_t kFunction[] = L"CTxSvcHost::ParseCommandLine";
    if (argc <= m_groupIndex)
    {
        TX_LOG(
            LogError,
            kFunction,
            L"The group index is greater, mostly insufficient arguments, group index %d, number of arguments "
            L"%d",
            m_groupIndex,
            argc);
        return false;
    }
    if (argv == nullptr)
    {
        TX_LOG(LogError, kFunction, L"The argv is NULL");
        return false;
    }
    const std::wstring entry = argv[m_groupIndex];
    const std::size_t delimiter = entry.find(m_groupDelimiter);
    if (delimiter == std::wstring::npos)
    {
        TX_LOG(LogError, kFunction, L"The group delimiter is not found. Group Entry '%s'", entry);
        return false;
    }
    std::wstring name = entry.substr(delimiter + m_groupDelimiter.size());
    if (name.empty())
    {
        TX_LOG(LogError, kFunction, L"The group name is empty. Group Entry '%s'", entry);
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"The group name selected to run is '%s'", name);
    groupName = std::move(name);
    return true;
}

bool CTxSvcHost::AddServicesToScmInterface(const CTxSvcHostConfig& config, CTxSCMInterface& scmInterface)
{
    constexpr wchar_t kFunction[] = L"CTxSvcHost::AddServicesToScmInterface";
    std::wstring groupName;
    if (!config.GetGroupName(groupName))
    {
        TX_LOG(LogError, kFunction, L"Failed to get the group name %s", groupName);
        return false;
    }
    std::vector<std::wstring> services;
    if (!config.GetServices(services))
    {
        TX_LOG(LogError, kFunction, L"Failed to get group services %s", groupName);
        return false;
    }
    if (services.empty())
    {
        TX_LOG(LogError, kFunction, L"There are no services in the group %s", groupName);
        return false;
    }

    TX_LOG(LogNormal, kFunction, L"Adding services to the SCM interface");
    int added = 0;
    for (const std::wstring& name : services)
    {
        if (name.empty())
        {
            TX_LOG(LogWarning, kFunction, L"Some service name in the group is empty");
        }
        else if (scmInterface.AddService(name.c_str(), &CTxSvcHostProxy::GenericServiceMain))
        {
            TX_LOG(LogNormal, kFunction, L"Service added to SCM interface successfully '%s'", name);
            ++added;
        }
        else
        {
            TX_LOG(LogError, kFunction, L"Failed to add the service to SCM Interface '%s'", name);
        }
    }
    if (added == 0)
    {
        TX_LOG(LogError, kFunction, L"There are no valid services in the group");
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"%d services added to SCM interface", added);
    return true;
}
