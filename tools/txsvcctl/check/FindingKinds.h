#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace TxCtl
{

/// The number in a finding's id, which never changes its meaning.
enum class FindingId : std::uint16_t
{
    Unreadable = 1,
    LinkMissing = 101,
    LinkBlocked = 102,
    LinkElsewhere = 103,
    SettingUnusable = 201,
    UnknownValue = 202,
    NoServices = 301,
    NoClsid = 302,
    BadClsid = 303,
    ClassUnknown = 304,
    ModuleUnreadable = 305,
    ModuleUnusable = 306,
    ModuleWritable = 307,
    InOtherGroup = 308,
    NotInList = 309,
    NoEntry = 401,
    NotShared = 402,
    OtherGroupsEntry = 403,
    ProgramMissing = 404,
    PathUnquoted = 405,
    AccountsDiffer = 406,
    SidTypesDiffer = 407,
    Disabled = 408,
    ProgramWritable = 409,
    StrayEntry = 410,
    WaitsForFirstRun = 501,
    ExclusionUnknown = 502,
    UpdateRunning = 601,
    UpdateClientSilent = 602,
    LogSettingUnusable = 701,
    LogFolderUnusable = 702,
    LogFolderWritable = 703,
    LogDiskFull = 704,
    LogControllerNotTrusted = 705,
    ProxyUnregistered = 801,
    ProxyUnreadable = 802,
    ProxyNotTrusted = 803,
    EventSourceUnusable = 901,
};

enum class Severity : std::uint8_t
{
    Note,    ///< Nothing is wrong; it explains what will be seen.
    Warning, ///< Works, but not as it should.
    Error,   ///< A service will not run, or not the one that is meant.
};

/// What is known of all findings with one id.
struct FindingKind
{
    FindingId id;
    Severity severity;
    const wchar_t* title;
    const wchar_t* meaning;
    const wchar_t* remedy;
};

/// By their numbers.
[[nodiscard]] std::span<const FindingKind> FindingKinds() noexcept;
[[nodiscard]] const FindingKind& KindOf(FindingId id);

/// "TX0101"
[[nodiscard]] std::wstring FindingName(FindingId id);
/// "error"
[[nodiscard]] const wchar_t* SeverityName(Severity severity) noexcept;

/// Title, meaning and remedy of one kind; of all of them as the page docs/findings.md.
/// @throws CToolError with ExitCode::Usage for a name that no finding has.
[[nodiscard]] std::wstring ExplainFinding(const std::wstring& name);
[[nodiscard]] std::wstring FindingsPage();

} // namespace TxCtl
