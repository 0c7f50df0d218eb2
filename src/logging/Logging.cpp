#include "logging/Logging.h"

#include <algorithm>
#include <cwchar>
#include <exception>
#include <string>
#include <utility>

#include "base/Text.h"
#include "logging/DefaultLoggingHandler.h"
#include "logging/LogLine.h"

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

/// The group's name, made fit for a file.
std::wstring DefaultFileName(const wchar_t* group)
{
    std::wstring name = Basalt::FormatText(L"%s.log", group);
    for (wchar_t& character : name)
    {
        if (character < L' ' || std::wcschr(L"<>:\"/\\|?*", character) != nullptr)
        {
            character = L'_';
        }
    }
    return name;
}

/// File name of the running program without its extension.
std::wstring ProgramName()
{
    std::wstring name = ProgramPath();
    name.erase(0, name.rfind(L'\\') + 1);
    name.resize(std::min(name.size(), name.rfind(L'.')));
    return name;
}

std::wstring FullPath(const std::wstring& path)
{
    std::wstring full(path.size() + MAX_PATH, L'\0');
    const DWORD length =
        ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length == 0 || length >= full.size())
    {
        return path;
    }
    full.resize(length);
    return full;
}

} // namespace

DWORD CLogging::Initialize(
    const wchar_t* group, DWORD /*context2*/, const wchar_t* host, DWORD /*reserved*/) noexcept
try
{
    m_group = group == nullptr ? L"" : group;
    m_host = host == nullptr ? L"" : host;
    m_settings = ReadLogSettings();
    m_tag = m_settings.tag.empty() ? ProgramName() : m_settings.tag;
    m_fileName = m_settings.fileName.empty() ? DefaultFileName(m_group.c_str()) : m_settings.fileName;
    m_folder = m_settings.folder.empty() ? TxSdk::DefaultLogFolder() : m_settings.folder;
    m_threshold = m_settings.threshold;
    m_options = m_settings.options;
    m_useMutex = m_settings.useMutex;
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
    m_file.SetPath(FullPath(Basalt::FormatText(L"%s\\%s", m_folder.c_str(), m_fileName.c_str())));
    if (m_useMutex)
    {
        const DWORD status = m_mutex.Create(m_file.GetPath());
        if (status != ERROR_SUCCESS)
        {
            static_cast<void>(
                Log(L"Logging",
                    L"CLogging::Activate",
                    __LINE__,
                    LogWarning,
                    Basalt::FormatText(L"Log mutex cannot be used: error %u, the file is not rotated", status)
                        .c_str()));
        }
    }
    m_watch.Start(*this, m_settings);
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
    return writeLine(hold.IsHeld() || !m_useMutex, file, function, line, level, message);
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
    if (status == ERROR_PATH_NOT_FOUND && m_heldFolder.Take(m_folder) == ERROR_SUCCESS)
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
        m_options, m_tag.c_str(), m_processId, ::GetCurrentThreadId(), {}, file, line, function};
    ::GetLocalTime(&fields.time);
    return m_file.Write(opened, BuildLogLine(fields, levelName, message));
}

bool CLogging::firstUseGate(CLogging& logger)
{
    const DWORD status = logger.m_heldFolder.Take(logger.m_folder);
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
        Basalt::DefaultLoggingHandler().Handle(
            LogWarning,
            L"Logging",
            L"CLogging::firstUseGate",
            __LINE__,
            Basalt::FormatText(L"Log folder '%s' cannot be used: error %u", logger.m_folder.c_str(), status)
                .c_str());
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
    return Assign(m_tag, tag);
}

DWORD CLogging::SetFolder(const wchar_t* folder) noexcept
{
    return Assign(m_folder, folder);
}

DWORD CLogging::SetFileName(const wchar_t* name) noexcept
{
    if (name == nullptr || std::wcschr(name, L'.') == nullptr)
    {
        return ERROR_INVALID_PARAMETER;
    }
    return Assign(m_fileName, name);
}

DWORD CLogging::SetRotation(DWORD entriesPerFile, DWORD oldFileCount) noexcept
{
    m_file.SetRotation(entriesPerFile, oldFileCount);
    return ERROR_SUCCESS;
}

DWORD CLogging::SetMutexEnabled(bool enabled) noexcept
{
    m_useMutex = enabled;
    return ERROR_SUCCESS;
}

} // namespace ETWLogging
