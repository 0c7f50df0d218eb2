#include "txsvcctl/LogShow.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "TxLogSecurity.h"
#include "base/Owned.h"
#include "base/Text.h"
#include "logging/settings/LogSettingsReader.h"
#include "logging/settings/LogSettingsWatch.h"
#include "txsvcctl/LogStore.h"
#include "txsvcctl/Names.h"
#include "txsvcctl/ToolError.h"
#include "txsvcctl/Utf8.h"

using nlohmann::ordered_json;

namespace TxCtl
{

namespace
{

struct Arguments
{
    std::optional<std::string> file; ///< UTF-8, from the command-line library, as the other texts
    std::optional<std::string> ini;
    std::optional<std::string> service;
    std::optional<std::string> since;
    DWORD level = 0;
    bool follow = false;
    bool json = false;
};

struct Log
{
    std::wstring path;
    DWORD oldFiles = 0;
};

Log ConfiguredLog(const std::optional<std::string>& ini, IConsole& console)
{
    const CLogStore store = ini ? CLogStore(AbsolutePath(FromUtf8(*ini))) : CLogStore();
    if (store.Get(L"mechanism").value != L"file")
    {
        console.Error(L"Hosts log to event tracing; 'txsvcctl log set mechanism file' changes that.");
    }
    const LogSettingReport folder = store.Get(L"folder");
    const bool isDefault = folder.origin == ETWLogging::LogSettingOrigin::Default;
    // The services' environment is expected to have the same folder there as that of this program.
    return {
        AbsolutePath(
            (isDefault ? TxSdk::DefaultLogFolder() : folder.value) + L"\\" + store.Get(L"file").value),
        static_cast<DWORD>(std::stoul(store.Get(L"old-files").value))};
}

std::optional<ULONGLONG> Ticks(const SYSTEMTIME& time) noexcept
{
    FILETIME fileTime{};
    if (!::SystemTimeToFileTime(&time, &fileTime))
    {
        return std::nullopt;
    }
    return ULONGLONG{fileTime.dwHighDateTime} << 32 | fileTime.dwLowDateTime;
}

std::optional<ULONGLONG> ParseDate(const std::wstring& text)
{
    constexpr std::wstring_view kShape = L"0000-00-00 00:00:00";
    constexpr std::size_t kLengths[] = {10, 16, kShape.size()};
    std::wstring shape = text;
    for (wchar_t& character : shape)
    {
        const bool isDigit = character >= L'0' && character <= L'9';
        character = isDigit ? L'0' : character == L'T' ? L' ' : character;
    }
    if (!kShape.starts_with(shape) ||
        std::find(std::begin(kLengths), std::end(kLengths), shape.size()) == std::end(kLengths))
    {
        return std::nullopt;
    }
    const std::wstring full = text + std::wstring(kShape.substr(text.size()));
    const auto number = [&full](std::size_t at, std::size_t digits) {
        return static_cast<WORD>(std::stoul(full.substr(at, digits)));
    };
    return Ticks(
        {number(0, 4), number(5, 2), 0, number(8, 2), number(11, 2), number(14, 2), number(17, 2), 0});
}

/// Counted on the clock that does not jump with daylight saving time.
std::optional<ULONGLONG> ParseAge(const std::wstring& text)
{
    constexpr ULONGLONG kTicksPerMinute = 600'000'000;
    constexpr std::size_t kMostDigits = 5;
    const std::size_t digits = text.empty() ? 0 : text.size() - 1;
    if (digits == 0 || digits > kMostDigits || text.find_first_not_of(L"0123456789") != digits)
    {
        return std::nullopt;
    }
    const wchar_t unit = text.back();
    const ULONGLONG minutes = unit == L'm' ? 1 : unit == L'h' ? 60 : unit == L'd' ? 1440 : 0;
    if (minutes == 0)
    {
        return std::nullopt;
    }
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    const ULONGLONG moment = (ULONGLONG{now.dwHighDateTime} << 32 | now.dwLowDateTime) -
                             std::stoul(text) * minutes * kTicksPerMinute;
    const FILETIME universal = {static_cast<DWORD>(moment), static_cast<DWORD>(moment >> 32)};
    SYSTEMTIME time{};
    SYSTEMTIME local{};
    ::FileTimeToSystemTime(&universal, &time);
    ::SystemTimeToTzSpecificLocalTime(nullptr, &time, &local);
    local.wMilliseconds = 0; // The log has whole seconds.
    return Ticks(local);
}

bool IsWordCharacter(wchar_t character) noexcept
{
    return ::IsCharAlphaNumericW(character) || character == L'_' || character == L'-';
}

bool HasWord(const std::wstring& text, const std::wstring& word)
{
    for (std::size_t begin = 0; begin < text.size(); ++begin)
    {
        const int at = ::FindStringOrdinal(
            FIND_FROMSTART,
            text.data() + begin,
            static_cast<int>(text.size() - begin),
            word.data(),
            static_cast<int>(word.size()),
            TRUE);
        if (at < 0)
        {
            return false;
        }
        begin += static_cast<std::size_t>(at);
        const std::size_t end = begin + word.size();
        if ((begin == 0 || !IsWordCharacter(text[begin - 1])) &&
            (end == text.size() || !IsWordCharacter(text[end])))
        {
            return true;
        }
    }
    return false;
}

std::wstring IsoTime(const SYSTEMTIME& time)
{
    return Basalt::FormatText(
        L"%04hu-%02hu-%02huT%02hu:%02hu:%02hu",
        time.wYear,
        time.wMonth,
        time.wDay,
        time.wHour,
        time.wMinute,
        time.wSecond);
}

std::wstring FormatJson(const LogEntry& entry)
{
    ordered_json json;
    if (entry.time)
    {
        json["time"] = ToUtf8(IsoTime(*entry.time));
        json["level"] = entry.level;
        json["levelName"] = ToUtf8(entry.levelName);
    }
    if (entry.tag)
    {
        json["tag"] = ToUtf8(*entry.tag);
    }
    if (entry.process)
    {
        json["process"] = *entry.process;
        json["thread"] = entry.thread;
    }
    if (entry.source)
    {
        json["source"] = ToUtf8(*entry.source);
        json["line"] = entry.line;
    }
    if (entry.function)
    {
        json["function"] = ToUtf8(*entry.function);
    }
    json["message"] = ToUtf8(entry.message);
    return FromUtf8(json.dump());
}

void AppendColumn(std::wstring& text, const std::wstring& value, std::size_t width)
{
    text += value;
    text.append(value.size() < width ? width - value.size() : 0, L' ');
    text += L"  ";
}

/// Further lines of a message are indented, so that entries can be told apart.
std::wstring FormatColumns(const LogEntry& entry)
{
    constexpr std::size_t kLevelColumns = 11;
    constexpr std::size_t kProcessColumns = 11;
    constexpr std::size_t kSourceColumns = 26;
    constexpr std::size_t kFunctionColumns = 40;
    std::wstring text;
    if (entry.time)
    {
        AppendColumn(text, IsoTime(*entry.time), 0);
        AppendColumn(text, entry.levelName, kLevelColumns);
    }
    if (entry.process)
    {
        AppendColumn(text, Basalt::FormatText(L"%u/%u", *entry.process, entry.thread), kProcessColumns);
    }
    if (entry.source)
    {
        AppendColumn(text, Basalt::FormatText(L"%s:%u", entry.source->c_str(), entry.line), kSourceColumns);
    }
    if (entry.function)
    {
        AppendColumn(text, *entry.function, kFunctionColumns);
    }
    for (const wchar_t character : entry.message)
    {
        text += character;
        text += character == L'\n' ? L"    " : L"";
    }
    return text;
}

/// Signalled by Ctrl+C and Ctrl+Break; never closed, since the system may call at any time.
HANDLE StopEvent() noexcept
{
    static const HANDLE s_stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return s_stop;
}

BOOL WINAPI OnControl(DWORD type) noexcept
{
    return (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT) && ::SetEvent(StopEvent());
}

void ShowLog(const Arguments& arguments, IConsole& console)
{
    if ((arguments.file && arguments.file->empty()) || (arguments.service && arguments.service->empty()))
    {
        ThrowUsage(L"an empty name of a file or service");
    }
    LogShowOptions options;
    // A line has one name for both information levels, and the second travels as the first in events too.
    options.level =
        arguments.level == ETWLogging::LogInformation2 ? ETWLogging::LogInformation : arguments.level;
    options.service = OptionalFromUtf8(arguments.service);
    options.json = arguments.json;
    if (arguments.since)
    {
        options.since = ParseMoment(FromUtf8(*arguments.since));
    }
    const Log log =
        arguments.file ? Log{AbsolutePath(FromUtf8(*arguments.file))} : ConfiguredLog(arguments.ini, console);
    if (!arguments.follow)
    {
        CLogShow(log.path, log.oldFiles, options, nullptr, console).Show();
        return;
    }
    ::SetConsoleCtrlHandler(&OnControl, TRUE);
    CLogShow(log.path, log.oldFiles, options, StopEvent(), console).Follow();
}

} // namespace

ULONGLONG ParseMoment(const std::wstring& text)
{
    const std::optional<ULONGLONG> date = ParseDate(text);
    const std::optional<ULONGLONG> moment = date ? date : ParseAge(text);
    if (!moment)
    {
        ThrowUsage(
            L"'" + text +
            L"' is no time: give 2026-11-24, \"2026-11-24 13:05:09\", or 15m, 2h or 3d back from now");
    }
    return *moment;
}

CLogShow::CLogShow(
    const std::wstring& path, DWORD oldFiles, LogShowOptions options, HANDLE stop, IConsole& console)
    : m_path(path), m_options(std::move(options)), m_stop(stop), m_console(console),
      m_reader(path, oldFiles, *this)
{
}

void CLogShow::Show()
{
    m_reader.ReadOn(true);
    if (!m_reader.HasFile())
    {
        ThrowFailure(L"read log", m_path, ERROR_FILE_NOT_FOUND);
    }
}

void CLogShow::Follow()
{
    const std::wstring folder = m_path.substr(0, m_path.rfind(L'\\') + 1);
    // Before anything is read: what is written meanwhile is then noticed.
    const Basalt::COwned<ETWLogging::ChangeNotificationTraits> change(::FindFirstChangeNotificationW(
        folder.c_str(),
        FALSE,
        FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_SIZE));
    if (!change)
    {
        ThrowFailure(L"watch folder", folder, ::GetLastError());
    }
    const HANDLE handles[] = {m_stop, change.Get()};
    while (m_reader.ReadOn(false) || !(isStopped() || m_console.HasFailed()))
    {
        const DWORD signalled = ::WaitForMultipleObjects(2, handles, FALSE, INFINITE);
        if (signalled == WAIT_OBJECT_0)
        {
            return;
        }
        if (signalled != WAIT_OBJECT_0 + 1 || !::FindNextChangeNotification(change.Get()))
        {
            ThrowFailure(L"watch folder", folder, ::GetLastError());
        }
    }
}

void CLogShow::Add(LogEntry entry)
{
    if (isWanted(entry))
    {
        m_lines +=
            (m_lines.empty() ? L"" : L"\n") + (m_options.json ? FormatJson(entry) : FormatColumns(entry));
    }
}

bool CLogShow::EndPiece()
{
    if (!m_lines.empty())
    {
        m_console.Out(std::exchange(m_lines, {}));
    }
    return !isStopped() && !m_console.HasFailed();
}

/// Text that belongs to no entry has neither level nor time: it is shown when nobody asks for them.
bool CLogShow::isWanted(const LogEntry& entry) const
{
    return entry.level >= m_options.level &&
           (!m_options.since || (entry.time && Ticks(*entry.time) >= m_options.since)) &&
           (!m_options.service || HasWord(entry.message, *m_options.service));
}

bool CLogShow::isStopped() const noexcept
{
    return m_stop != nullptr && ::WaitForSingleObject(m_stop, 0) != WAIT_TIMEOUT;
}

void AddShowCommand(CLI::App& log, IConsole& console)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* const show = log.add_subcommand("show", "Show the text log");
    show->add_option("file", arguments->file, "This file alone [the configured log with its older files]");
    show->add_option("--ini", arguments->ini, "The hosts' log.ini [beside this program]");
    show->add_flag("--follow", arguments->follow, "Go on with what is appended, until Ctrl+C");
    show->add_option("--level", arguments->level, "This level, 1 to 5, and above (6 counts as 3)")
        ->check(CLI::Range(
            static_cast<int>(ETWLogging::LogNormal), static_cast<int>(ETWLogging::LogInformation2)));
    show->add_option(
        "--service",
        arguments->service,
        "Entries with this name as a whole word in the message, in any case");
    show->add_option(
        "--since", arguments->since, "From 2026-11-24, \"2026-11-24 13:05:09\", or 15m, 2h, 3d ago");
    show->add_flag("--json", arguments->json, "Write one JSON object per entry");
    show->callback([arguments, &console] { ShowLog(*arguments, console); });
}

} // namespace TxCtl
