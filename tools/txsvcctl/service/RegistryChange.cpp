#include "txsvcctl/service/RegistryChange.h"

#include <exception>

#include "base/RegKey.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/service/RegistryNames.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kWriteKey[] = L"write registry key";
constexpr wchar_t kDeleteKey[] = L"delete registry key";

/// @return false when the key does not exist.
bool OpenExisting(Basalt::CRegKey& key, const std::wstring& path, REGSAM access, const wchar_t* operation)
{
    const DWORD status = key.Open(HKEY_LOCAL_MACHINE, path.c_str(), access);
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return false;
    }
    CheckStatus(status, operation, path);
    return true;
}

} // namespace

CRegistryChange::~CRegistryChange()
{
    try
    {
        static_cast<void>(Rollback());
    }
    catch (const std::exception&) // NOLINT(bugprone-empty-catch): who wants to know calls Rollback.
    {
    }
}

void CRegistryChange::createKeys(const std::wstring& path)
{
    for (std::size_t end = 0; end != std::wstring::npos;)
    {
        end = path.find(L'\\', end + 1);
        const std::wstring part = path.substr(0, end);
        Basalt::CRegKey key;
        if (OpenExisting(key, part, KEY_READ, kWriteKey))
        {
            continue;
        }
        m_undo.push_back({Undo::DeleteKey, part, {}, REG_NONE, {}});
        const DWORD status = key.Create(HKEY_LOCAL_MACHINE, part.c_str(), KEY_READ);
        if (status != ERROR_SUCCESS)
        {
            m_undo.pop_back();
            ThrowFailure(L"create registry key", part, status);
        }
    }
}

template <typename WriteValue>
void CRegistryChange::setValue(const std::wstring& path, const std::wstring& name, WriteValue write)
{
    createKeys(path);
    Basalt::CRegKey key;
    CheckStatus(key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ | KEY_WRITE), kWriteKey, path);

    Step step{Undo::WriteValue, path, name, REG_NONE, {}};
    const DWORD status = key.ReadValue(name.c_str(), step.type, step.data);
    if (status == ERROR_FILE_NOT_FOUND)
    {
        step.undo = Undo::DeleteValue;
    }
    else
    {
        CheckStatus(status, kWriteKey, path);
    }
    // Recorded first: putting back a value that was not changed does no harm, the other order could lose one.
    m_undo.push_back(std::move(step));
    CheckStatus(write(key), L"write registry value", path + L"\\" + name);
}

void CRegistryChange::SetString(const std::wstring& path, const std::wstring& name, const std::wstring& value)
{
    setValue(path, name, [&](Basalt::CRegKey& key) { return key.WriteString(name.c_str(), value); });
}

void CRegistryChange::SetDword(const std::wstring& path, const std::wstring& name, DWORD value)
{
    setValue(path, name, [&](Basalt::CRegKey& key) { return key.WriteDword(name.c_str(), value); });
}

void CRegistryChange::DeleteValue(const std::wstring& path, const std::wstring& name)
{
    Basalt::CRegKey key;
    if (!OpenExisting(key, path, KEY_READ | KEY_WRITE, kWriteKey))
    {
        return;
    }
    Step step{Undo::WriteValue, path, name, REG_NONE, {}};
    const DWORD status = key.ReadValue(name.c_str(), step.type, step.data);
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return;
    }
    CheckStatus(status, kWriteKey, path);
    m_undo.push_back(std::move(step));
    CheckStatus(key.DeleteValue(name.c_str()), L"delete registry value", path + L"\\" + name);
}

void CRegistryChange::DeleteKey(const std::wstring& path)
{
    Basalt::CRegKey key;
    if (!OpenExisting(key, path, KEY_READ, kDeleteKey))
    {
        return;
    }
    for (const std::wstring& name : SubKeyNames(key, path))
    {
        std::wstring subKey = path;
        DeleteKey(subKey.append(L"\\").append(name));
    }
    for (const std::wstring& name : ValueNames(key, path))
    {
        DeleteValue(path, name);
    }
    key.Close();
    DeleteKeyIfEmpty(path);
}

void CRegistryChange::DeleteKeyIfEmpty(const std::wstring& path)
{
    Basalt::CRegKey key;
    if (!OpenExisting(key, path, KEY_READ, kDeleteKey))
    {
        return;
    }
    DWORD subKeyCount = 0;
    DWORD valueCount = 0;
    CheckStatus(key.GetInfo(subKeyCount, valueCount), kDeleteKey, path);
    if (subKeyCount != 0 || valueCount != 0)
    {
        return;
    }
    m_undo.push_back({Undo::CreateKey, path, {}, REG_NONE, {}});
    key.Close();
    CheckStatus(static_cast<DWORD>(::RegDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str())), kDeleteKey, path);
}

std::vector<std::wstring> CRegistryChange::Rollback()
{
    std::vector<std::wstring> failures;
    while (!m_undo.empty())
    {
        const Step step = std::move(m_undo.back());
        m_undo.pop_back();
        const DWORD error = undoStep(step);
        const bool isDeletion = step.undo == Undo::DeleteKey || step.undo == Undo::DeleteValue;
        const bool isGoneAlready = isDeletion && error == ERROR_FILE_NOT_FOUND;
        if (error != ERROR_SUCCESS && !isGoneAlready)
        {
            const std::wstring object = step.name.empty() ? step.path : step.path + L"\\" + step.name;
            failures.push_back(DescribeFailure(L"put back", object, error));
        }
    }
    return failures;
}

DWORD CRegistryChange::undoStep(const Step& step) noexcept
{
    if (step.undo == Undo::DeleteKey)
    {
        return static_cast<DWORD>(::RegDeleteKeyW(HKEY_LOCAL_MACHINE, step.path.c_str()));
    }
    Basalt::CRegKey key;
    if (step.undo == Undo::CreateKey)
    {
        return key.Create(HKEY_LOCAL_MACHINE, step.path.c_str(), KEY_READ);
    }
    const DWORD status = key.Open(HKEY_LOCAL_MACHINE, step.path.c_str(), KEY_READ | KEY_WRITE);
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    if (step.undo == Undo::DeleteValue)
    {
        return key.DeleteValue(step.name.c_str());
    }
    return key.WriteValue(
        step.name.c_str(), step.type, step.data.data(), static_cast<DWORD>(step.data.size()));
}

} // namespace TxCtl
