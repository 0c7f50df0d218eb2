#include "support/HostLog.h"

#include <algorithm>
#include <utility>

#include "base/ObfuscatedRegKey.h"
#include "control/RegistryLink.h"
#include "logging/settings/LogSettingsReader.h"
#include "support/Errors.h"
#include "support/TestGroup.h"
#include "txsvcctl/log/LogReader.h"

namespace
{

constexpr DWORD kTimeoutMs = 60000;
constexpr DWORD kPollMs = 10;

struct CCollector final : TxCtl::ILogSink
{
    void Add(TxCtl::LogEntry entry) override { lines.push_back(std::move(entry)); }
    bool EndPiece() override { return true; }

    std::vector<HostLogLine> lines;
};

} // namespace

std::wstring LevelName(const HostLogLine& line)
{
    const wchar_t* const name = ETWLogging::LogLevelName(line.level);
    return name != nullptr ? name : L"";
}

CHostLog::CHostLog(const std::wstring& folder) : m_path(folder + L"\\PLATFORM.log")
{
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

CHostLog::~CHostLog()
{
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kLogKey);
}

std::vector<HostLogLine> CHostLog::Lines() const
{
    CCollector collector;
    TxCtl::CLogReader(m_path, 0, collector).ReadOn(false);
    return collector.lines;
}

std::size_t CHostLog::Count(const std::wstring& level, const std::wstring& message) const
{
    return static_cast<std::size_t>(std::ranges::count_if(Lines(), [&](const HostLogLine& line) {
        return LevelName(line) == level && line.message == message;
    }));
}

std::size_t CHostLog::CountContaining(const std::wstring& level, const std::wstring& part) const
{
    return static_cast<std::size_t>(std::ranges::count_if(Lines(), [&](const HostLogLine& line) {
        return LevelName(line) == level && line.message.find(part) != std::wstring::npos;
    }));
}

bool CHostLog::WaitFor(const std::wstring& level, const std::wstring& message) const
{
    const ULONGLONG end = ::GetTickCount64() + kTimeoutMs;
    while (!Has(level, message) && ::GetTickCount64() < end)
    {
        ::Sleep(kPollMs);
    }
    return Has(level, message);
}
