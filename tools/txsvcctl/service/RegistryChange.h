#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace TxCtl
{

/// Several changes below HKEY_LOCAL_MACHINE that are made together or not at all.
///
/// Each operation works at once and remembers how to undo it. What is not committed is undone, the last
/// change first, by Rollback or at the latest by the destructor. The permissions of a deleted key are not
/// brought back: it gets those of the key above it.
///
/// A missing thing to delete is no failure. All operations throw CToolError.
class CRegistryChange
{
public:
    CRegistryChange() = default;
    ~CRegistryChange();
    CRegistryChange(const CRegistryChange&) = delete;
    CRegistryChange& operator=(const CRegistryChange&) = delete;

    /// Writes a REG_SZ, creating the missing keys of the path.
    /// @param name empty for the key's default value.
    void SetString(const std::wstring& path, const std::wstring& name, const std::wstring& value);
    void SetDword(const std::wstring& path, const std::wstring& name, DWORD value);
    void DeleteValue(const std::wstring& path, const std::wstring& name);
    /// With everything below it.
    void DeleteKey(const std::wstring& path);
    void DeleteKeyIfEmpty(const std::wstring& path);

    void Commit() noexcept { m_undo.clear(); }

    /// @return what could not be put back, one text for each change; empty when all is as before.
    [[nodiscard]] std::vector<std::wstring> Rollback();

private:
    enum class Undo
    {
        WriteValue,
        DeleteValue,
        CreateKey,
        DeleteKey,
    };
    struct Step
    {
        Undo undo;
        std::wstring path;
        std::wstring name;
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
    };

    void createKeys(const std::wstring& path);
    template <typename WriteValue>
    void setValue(const std::wstring& path, const std::wstring& name, WriteValue write);
    [[nodiscard]] static DWORD undoStep(const Step& step) noexcept;

    std::vector<Step> m_undo;
};

} // namespace TxCtl
