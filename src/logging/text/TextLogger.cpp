#include "logging/text/TextLogger.h"

#include <cwchar>
#include <exception>
#include <string>

#include "TxLogSecurity.h"
#include "base/Paths.h"
#include "base/Text.h"
#include "contract/LogLine.h"
#include "contract/LogNames.h"

namespace ETWLogging
{

namespace
{

constexpr DWORD kMutexWaitMs = 7000;

/// The threshold of a logger that has switched itself off: no level reaches it.
constexpr DWORD kNoLevel = 10000;

/// Assigns without letting a lack of memory out.
DWORD Assign(std::wstring& target, const wchar_t* text) noexcept
try
{
    target = text == nullptr ? L"" : text;
    return ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

std::wstring CannotBeUsed(const wchar_t* what, const std::wstring& path, DWORD error)
{
    return Basalt::FormatText(L"Log %s '%s' cannot be used: error %u", what, path.c_str(), error);
}

} // namespace

DWORD CLogging::Initialize(
    const wchar_t* group, DWORD /*context2*/, const wchar_t* host, DWORD /*reserved*/) noexcept
try
{
    m_group = group == nullptr ? L"" : group;
    m_host = host == nullptr ? L"" : host;
    if (m_settings.tag.empty())
    {
        m_settings.tag = DefaultLogTag(Basalt::ProgramPath());
    }
    if (m_settings.fileName.empty())
    {
        m_settings.fileName = DefaultLogFileName(m_group);
    }
    if (m_settings.folder.empty())
    {
        m_settings.folder = TxSdk::DefaultLogFolder();
    }
    m_threshold = m_settings.threshold;
    m_options = m_settings.options;
    m_file.SetRotation(m_settings.entriesPerFile, m_settings.oldFiles);
    return ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

void CLogging::Activate() noexcept
try
{
    m_file.SetPath(TxSdk::FullPath(
        Basalt::FormatText(L"%s\\%s", m_settings.folder.c_str(), m_settings.fileName.c_str())));
    if (m_settings.useMutex)
    {
        const DWORD status = m_mutex.Create(m_file.GetPath());
        if (status != ERROR_SUCCESS)
        {
            static_cast<void>(
                Log(L"Logging",
                    L"CLogging::Activate",
                    __LINE__,
                    LogWarning,
                    CannotBeUsed(L"mutex of", m_file.GetPath(), status).c_str()));
        }
    }
}
catch (const std::exception&) // NOLINT(bugprone-empty-catch): every message then fails to open the file.
{
}

DWORD CLogging::Log(
    const wchar_t* file, const wchar_t* function, DWORD line, DWORD level, const wchar_t* message) noexcept
try
{
    const CLogMutex::CHold hold(m_mutex, kMutexWaitMs);
    if (!m_gate.load()(*this) || message == nullptr || *message == L'\0')
    {
        return ERROR_INVALID_PARAMETER;
    }
    return writeLine(hold.IsHeld() || !m_settings.useMutex, file, function, line, level, message);
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

/// The file comes first, so that its error is the one reported when the line cannot be built either.
DWORD CLogging::writeLine(
    bool alone, const wchar_t* file, const wchar_t* function, DWORD line, DWORD level, const wchar_t* message)
{
    CLogFile::COpened opened;
    DWORD status = m_file.Open(alone, opened);
    if (status == ERROR_PATH_NOT_FOUND && TxSdk::TakeLogFolder(m_settings.folder) == ERROR_SUCCESS)
    {
        status = m_file.Open(alone, opened); // Somebody had removed the folder.
    }
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    const wchar_t* const levelName = LogLevelName(level);
    if (levelName == nullptr)
    {
        return ERROR_INVALID_PARAMETER;
    }
    LogLineFields fields{
        m_options, m_settings.tag.c_str(), m_processId, ::GetCurrentThreadId(), {}, file, line, function};
    ::GetLocalTime(&fields.time);
    return m_file.Write(opened, BuildLogLine(fields, levelName, message));
}

bool CLogging::firstUseGate(CLogging& logger)
{
    const DWORD status = TxSdk::TakeLogFolder(logger.m_settings.folder);
    if (status == ERROR_SUCCESS)
    {
        logger.m_gate = &CLogging::openGate;
        return true;
    }
    const bool isFirst = logger.m_fileLogging.exchange(false);
    logger.m_gate = &CLogging::closedGate;
    logger.m_threshold = kNoLevel;
    if (isFirst)
    {
        // To the debugger: the process has no other logger.
        ::OutputDebugStringW(CannotBeUsed(L"folder", logger.m_settings.folder, status).c_str());
    }
    return false;
}

DWORD CLogging::IsLevelEnabled(DWORD level) const noexcept
{
    return level >= m_threshold ? 1 : 0;
}

void CLogging::SetThreshold(DWORD level) noexcept
{
    if (m_fileLogging) // Switched off for good: the threshold stays out of reach.
    {
        m_threshold = level;
        if (!m_fileLogging)
        {
            m_threshold = kNoLevel; // The first message has switched it off meanwhile.
        }
    }
}

DWORD CLogging::SetApplicationTag(const wchar_t* tag) noexcept
{
    return Assign(m_settings.tag, tag);
}

DWORD CLogging::SetFolder(const wchar_t* folder) noexcept
{
    return Assign(m_settings.folder, folder);
}

DWORD CLogging::SetFileName(const wchar_t* name) noexcept
{
    if (name == nullptr || std::wcschr(name, L'.') == nullptr)
    {
        return ERROR_INVALID_PARAMETER;
    }
    return Assign(m_settings.fileName, name);
}

DWORD CLogging::SetRotation(DWORD entriesPerFile, DWORD oldFileCount) noexcept
{
    m_file.SetRotation(entriesPerFile, oldFileCount);
    return ERROR_SUCCESS;
}

DWORD CLogging::SetMutexEnabled(bool enabled) noexcept
{
    m_settings.useMutex = enabled;
    return ERROR_SUCCESS;
}

} // namespace ETWLogging
