#pragma once

#include <string>
#include <vector>

namespace TxCtl
{

/// How a logging setting is stored. Unless it is Set, the default applies.
enum class LogValueState
{
    Set,
    Missing,
    Plain,   ///< Written by somebody without scrambling.
    Damaged, ///< Scrambled, but cut, changed, copied from another value or of another type.
    Invalid, ///< Readable, but no value that the logger knows.
};

struct LogSettingReport
{
    std::wstring name;  ///< as the command line has it
    std::wstring value; ///< what applies, in the form that Set takes, but for a default folder
    LogValueState state = LogValueState::Missing;
};

/// "set", "missing" and so on.
[[nodiscard]] std::wstring StateName(LogValueState state);

/// The logging settings of all groups, which the logger reads when a group's process starts. They are stored
/// scrambled below the 32-bit key and shown in clear.
/// All operations throw CToolError, with ExitCode::Usage for names and values that are wrong in themselves.
class CLogStore
{
public:
    /// mechanism, level, fields, folder
    [[nodiscard]] static std::vector<std::wstring> Names();

    [[nodiscard]] LogSettingReport Get(const std::wstring& name) const;
    void Set(const std::wstring& name, const std::wstring& value) const;

    /// What Set would refuse, without storing anything.
    void Check(const std::wstring& name, const std::wstring& value) const;
};

} // namespace TxCtl
