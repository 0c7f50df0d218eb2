#include "support/TestGroup.h"

#include <utility>

#include "support/Errors.h"

CTestGroup::CTestGroup(
    std::wstring name, const std::vector<TestSubsystem>& subsystems, const std::wstring& hostPath)
    : m_name(std::move(name)), m_commandLine(L"\"" + hostPath + L"\" /" + m_name)
{
    const std::wstring path = std::wstring(kHostKey) + L"\\" + m_name;
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str()); // What a broken run left.
    m_isRootNew = m_root.Open(HKEY_LOCAL_MACHINE, kHostKey, KEY_READ) != ERROR_SUCCESS;
    try
    {
        ThrowIfFailed(
            m_root.Create(HKEY_LOCAL_MACHINE, kHostKey, KEY_READ | KEY_WRITE), L"creating the host's key");
        ThrowIfFailed(
            m_key.Create(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ | KEY_WRITE), L"creating " + path);
        std::wstring list;
        for (const TestSubsystem& subsystem : subsystems)
        {
            list += (list.empty() ? L"" : L";") + subsystem.service;
            registerSubsystem(subsystem);
        }
        ThrowIfFailed(m_key.WriteString(L"", list), L"writing the service list of " + m_name);
    }
    catch (...)
    {
        remove();
        throw;
    }
}

CTestGroup::~CTestGroup()
{
    remove();
}

void CTestGroup::SetRootValue(const std::wstring& name, DWORD value)
{
    SavedValue saved{name, false, REG_NONE, {}};
    saved.existed = m_root.ReadValue(name.c_str(), saved.type, saved.data) == ERROR_SUCCESS;
    m_savedValues.push_back(std::move(saved));
    ThrowIfFailed(m_root.WriteDword(name.c_str(), value), L"writing " + name);
}

void CTestGroup::registerSubsystem(const TestSubsystem& subsystem)
{
    if (subsystem.service.empty())
    {
        return;
    }
    m_services.emplace_back(subsystem.service, m_commandLine);
    if (!subsystem.clsid.empty())
    {
        ThrowIfFailed(
            m_key.WriteString(subsystem.service.c_str(), subsystem.clsid),
            L"writing the CLSID of " + subsystem.service);
    }
    if (!subsystem.modulePath.empty())
    {
        const std::wstring classKey = L"Software\\Classes\\CLSID\\" + subsystem.clsid;
        m_classKeys.push_back(classKey);
        Basalt::CRegKey server;
        ThrowIfFailed(
            server.Create(HKEY_LOCAL_MACHINE, (classKey + L"\\InprocServer32").c_str(), KEY_READ | KEY_WRITE),
            L"creating " + classKey);
        ThrowIfFailed(server.WriteString(L"", subsystem.modulePath), L"writing the module of " + classKey);
    }
}

void CTestGroup::remove() noexcept
{
    m_services.clear();
    for (const std::wstring& classKey : m_classKeys)
    {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, classKey.c_str());
    }
    m_key.Close();
    if (m_isRootNew)
    {
        m_root.Close();
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kHostKey);
        return;
    }
    ::RegDeleteTreeW(m_root.Get(), m_name.c_str());
    for (auto saved = m_savedValues.rbegin(); saved != m_savedValues.rend(); ++saved)
    {
        static_cast<void>(m_root.DeleteValue(saved->name.c_str()));
        if (saved->existed)
        {
            const auto size = static_cast<DWORD>(saved->data.size());
            static_cast<void>(m_root.WriteValue(saved->name.c_str(), saved->type, saved->data.data(), size));
        }
    }
}
