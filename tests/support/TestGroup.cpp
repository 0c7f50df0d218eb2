#include "support/TestGroup.h"

#include "support/Errors.h"

CTestGroup::CTestGroup(
    const std::wstring& name, const std::vector<TestSubsystem>& subsystems, const std::wstring& hostPath)
    : m_path(std::wstring(kHostKey) + L"\\" + name), m_commandLine(L"\"" + hostPath + L"\" /" + name)
{
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, m_path.c_str()); // What a broken run left.
    ThrowIfFailed(m_key.Create(HKEY_LOCAL_MACHINE, m_path.c_str(), KEY_ALL_ACCESS), L"creating " + m_path);
    std::wstring list;
    for (const TestSubsystem& subsystem : subsystems)
    {
        list += (list.empty() ? L"" : L";") + subsystem.service;
        registerSubsystem(subsystem);
    }
    ThrowIfFailed(m_key.WriteString(L"", list), L"writing the service list of " + name);
}

CTestGroup::~CTestGroup()
{
    m_services.clear();
    for (const std::wstring& classKey : m_classKeys)
    {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, classKey.c_str());
    }
    m_key.Close();
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, m_path.c_str());
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kHostKey); // Unless there is another group.
}

void CTestGroup::SetRootValue(const std::wstring& name, DWORD value)
{
    Basalt::CRegKey root;
    ThrowIfFailed(root.Open(HKEY_LOCAL_MACHINE, kHostKey, KEY_WRITE), L"opening the host's key");
    ThrowIfFailed(root.WriteDword(name.c_str(), value), L"writing " + name);
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
        m_classKeys.push_back(L"Software\\Classes\\CLSID\\" + subsystem.clsid);
        const std::wstring path = m_classKeys.back() + L"\\InprocServer32";
        Basalt::CRegKey server;
        ThrowIfFailed(server.Create(HKEY_LOCAL_MACHINE, path.c_str(), KEY_ALL_ACCESS), L"creating " + path);
        ThrowIfFailed(server.WriteString(L"", subsystem.modulePath), L"writing " + path);
    }
}
