#pragma once

#include <map>
#include <string>
#include <vector>

#include "txsvcctl/service/ModuleFile.h"

namespace TxCtl
{

[[nodiscard]] bool HoldsName(const std::vector<std::wstring>& names, const std::wstring& name) noexcept;

/// ": did you mean 'X'?" with the most similar of the known names; empty when none is similar.
[[nodiscard]] std::wstring DidYouMean(const std::wstring& name, const std::vector<std::wstring>& known);

/// "CORE/alpha"
[[nodiscard]] std::wstring ServiceSubject(const std::wstring& group, const std::wstring& service);

[[nodiscard]] std::wstring FolderOf(const std::wstring& path);

/// What was found of files. Each is looked at once: the services of a group often share them.
class CFileChecks
{
public:
    [[nodiscard]] const ModuleCheck& Module(const std::wstring& path);

    /// Whether others than administrators, the system and this user may change a file or folder. False also
    /// when it cannot be asked.
    [[nodiscard]] bool CanUsersWrite(const std::wstring& path);

    [[nodiscard]] bool CanUsersWriteOrReplace(const std::wstring& file)
    {
        return CanUsersWrite(file) || CanUsersWrite(FolderOf(file));
    }

private:
    std::map<std::wstring, ModuleCheck> m_modules;
    std::map<std::wstring, bool> m_writable;
};

} // namespace TxCtl
