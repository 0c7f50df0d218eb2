#include "support/Installation.h"

#include <algorithm>
#include <utility>

#include "base/ObfuscatedRegKey.h"
#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "logging/settings/LogSettingsReader.h"
#include "support/Errors.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/log/LogReader.h"
#include "txsvcctl/service/GroupStore.h"
#include "txsvcctl/service/ServiceManager.h"

namespace
{

constexpr DWORD kTimeoutMs = 60000;
constexpr DWORD kPollMs = 2;
constexpr wchar_t kClasses[] = L"Software\\Classes\\CLSID\\";

void RemoveTree(const std::wstring& path)
{
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
}

void WriteText(const std::wstring& path, const std::wstring& name, const std::wstring& value)
{
    Basalt::CRegKey key;
    ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, path.c_str(), KEY_ALL_ACCESS), path);
    ThrowIfFailed(key.WriteString(name.c_str(), value), path);
}

/// The services that the product's keys name, and their classes: also what a tool or a broken run put there.
void RemoveRegistered()
{
    const TxCtl::CGroupStore store;
    for (const std::wstring& group : store.Groups())
    {
        for (const std::wstring& service : store.Services(group))
        {
            if (const auto clsid = TxCtl::CanonicalClsid(store.Clsid(group, service).value_or(L"")))
            {
                RemoveTree(kClasses + *clsid);
            }
            RemoveService(service);
        }
    }
}

void RemoveLeftovers() noexcept
try
{
    RemoveTree(Contract::kEventSourceKey);
    RemoveRegistered();
}
catch (const TxCtl::CToolError&) // NOLINT(bugprone-empty-catch): a session made the keys unreadable.
{
}

struct CCollector final : TxCtl::ILogSink
{
    void Add(TxCtl::LogEntry entry) override { lines.push_back(std::move(entry)); }
    bool EndPiece() override { return true; }

    std::vector<ETWLogging::LogEntry> lines;
};

SERVICE_STATUS_PROCESS QueryService(const Basalt::CServiceHandle& service)
{
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    ::QueryServiceStatusEx(
        service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status), &needed);
    return status;
}

} // namespace

CInstallation::CInstallation()
{
    RemoveLeftovers();
    Basalt::CRegKey link; // Deleting the tree would follow it.
    if (IsRegistryLink(Contract::kProductKey) &&
        link.Open(HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK) ==
            ERROR_SUCCESS)
    {
        static_cast<void>(DeleteKeyByHandle(link.Get()));
    }
    RemoveTree(Contract::kProductKey);
    RemoveTree(Contract::kProductKey32);
}

CInstallation::~CInstallation()
{
    std::ranges::for_each(m_services, RemoveService);
    RemoveLeftovers();
    RemoveTree(kHostKey);
    RemoveTree(kLogKey);
    std::ranges::for_each(m_keys, RemoveTree);
}

std::wstring CInstallation::AddGroup(
    const std::wstring& name, const std::vector<TestSubsystem>& subsystems, const std::wstring& hostPath)
{
    const std::wstring path = std::wstring(kHostKey) + L"\\" + name;
    std::wstring commandLine = L"\"" + hostPath + L"\" /" + name;
    std::wstring list;
    for (const auto& [service, clsid, modulePath] : subsystems)
    {
        list += (list.empty() ? L"" : L";") + service;
        AddService(service, commandLine);
        if (!clsid.empty())
        {
            WriteText(path, service, clsid);
        }
        if (!modulePath.empty())
        {
            AddClass(clsid, modulePath);
        }
    }
    WriteText(path, L"", list);
    return commandLine;
}

void CInstallation::AddClass(const std::wstring& clsid, const std::wstring& modulePath)
{
    AddKey(kClasses + clsid);
    WriteText(kClasses + clsid + L"\\InprocServer32", L"", modulePath);
    WriteText(kClasses + clsid + L"\\InprocServer32", L"ThreadingModel", L"Both");
}

void CInstallation::AddService(const std::wstring& name, const std::wstring& imagePath)
{
    RemoveService(name); // What a broken run left.
    TxCtl::CServiceManager(SC_MANAGER_CREATE_SERVICE).Create(name, {imagePath, {}, {}});
    m_services.push_back(name);
}

void RemoveService(const std::wstring& name)
{
    Basalt::CServiceHandle service = OpenServiceByName(name, SERVICE_ALL_ACCESS);
    const Basalt::CHandle process(::OpenProcess(SYNCHRONIZE, FALSE, QueryService(name).dwProcessId));
    SERVICE_STATUS answer{};
    if (::ControlService(service.Get(), SERVICE_CONTROL_STOP, &answer) && process)
    {
        ::WaitForSingleObject(process.Get(), kTimeoutMs);
    }
    ::DeleteService(service.Get());
    service.Reset();
    // The manager keeps a deleted entry until the last handle to it is closed, those of ended processes too.
    const ULONGLONG end = ::GetTickCount64() + kTimeoutMs;
    while (OpenServiceByName(name, SERVICE_QUERY_STATUS) && ::GetTickCount64() < end)
    {
        ::Sleep(kPollMs);
    }
}

Basalt::CServiceHandle OpenServiceByName(const std::wstring& name, DWORD access)
{
    // Kept: to connect takes longer than to ask.
    static const Basalt::CServiceHandle s_manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    return Basalt::CServiceHandle(::OpenServiceW(s_manager.Get(), name.c_str(), access));
}

SERVICE_STATUS_PROCESS QueryService(const std::wstring& name)
{
    return QueryService(OpenServiceByName(name, SERVICE_QUERY_STATUS));
}

bool WaitForServiceState(const std::wstring& name, DWORD state, DWORD timeoutMs, HANDLE process)
{
    return WaitForServiceState(OpenServiceByName(name, SERVICE_QUERY_STATUS), state, timeoutMs, process);
}

bool WaitForServiceState(const Basalt::CServiceHandle& service, DWORD state, DWORD timeoutMs, HANDLE process)
{
    const ULONGLONG end = ::GetTickCount64() + timeoutMs;
    bool isOver = false;
    while (QueryService(service).dwCurrentState != state)
    {
        if (isOver)
        {
            return false;
        }
        ::Sleep(kPollMs);
        // Both are looked at before the state: what was reached at the last moment counts.
        isOver = ::GetTickCount64() >= end ||
                 (process != nullptr && ::WaitForSingleObject(process, 0) == WAIT_OBJECT_0);
    }
    return true;
}

std::wstring LevelName(const ETWLogging::LogEntry& line)
{
    const wchar_t* const name = ETWLogging::LogLevelName(line.level);
    return name != nullptr ? name : L"";
}

CHostLog::CHostLog(const std::wstring& folder) : m_path(folder + L"\\PLATFORM.log")
{
    // The host looks at these settings before it makes the link.
    if (!IsRegistryLink(Contract::kProductKey) &&
        !CreateRegistryLink(Contract::kProductKey, Contract::kProductKey32, true, true))
    {
        ThrowError(L"cannot make the registry link, without which the host does not find the log's settings");
    }
    Basalt::CObfuscatedRegKey key;
    ThrowIfFailed(key.Create(HKEY_LOCAL_MACHINE, kLogKey, KEY_READ | KEY_WRITE), L"creating the log's key");
    ThrowIfFailed(key.WriteString(ETWLogging::kFolderSetting.name, folder), L"writing the log's folder");
    for (const auto& [name, value] :
         {std::pair{ETWLogging::kOptionsSetting.name, ETWLogging::kAllOptions},
          {ETWLogging::kLevelSetting.name, ETWLogging::LogNormal},
          {ETWLogging::kMechanismSetting.name, ETWLogging::kFileMechanism}})
    {
        ThrowIfFailed(key.WriteDword(name, value), std::wstring(L"writing the log's ") + name);
    }
}

std::vector<ETWLogging::LogEntry> CHostLog::Lines() const
{
    CCollector collector;
    TxCtl::CLogReader(m_path, 0, collector).ReadOn(false);
    return collector.lines;
}

std::size_t CHostLog::Count(const std::wstring& level, const std::wstring& part) const
{
    return static_cast<std::size_t>(std::ranges::count_if(Lines(), [&](const ETWLogging::LogEntry& line) {
        return LevelName(line) == level && line.message.find(part) != std::wstring::npos;
    }));
}
