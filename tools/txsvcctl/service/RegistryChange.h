#pragma once

#include <windows.h>

#include <functional>
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
    /// The same for a REG_DWORD.
    void SetNumber(const std::wstring& path, const std::wstring& name, DWORD value);
    /// For a value that somebody else is about to write: creates the missing keys of the path, and puts back
    /// what the value is now.
    void Remember(const std::wstring& path, const std::wstring& name);
    void DeleteValue(const std::wstring& path, const std::wstring& name);
    /// With everything below it.
    void DeleteKey(const std::wstring& path);
    void DeleteKeyIfEmpty(const std::wstring& path);

    /// For a change elsewhere that belongs to these, as in the service manager.
    /// @param undo puts back what was there; throws CToolError.
    void AddUndo(std::function<void()> undo);

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
        Call,
    };
    struct Step
    {
        Undo undo;
        std::wstring path;
        std::wstring name;
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
        std::function<void()> call = {};
    };

    void createKeys(const std::wstring& path);
    /// @param write into the open key.
    template <typename Write>
    void set(const std::wstring& path, const std::wstring& name, Write write);
    [[nodiscard]] static DWORD undoStep(const Step& step) noexcept;

    std::vector<Step> m_undo;
};

} // namespace TxCtl
