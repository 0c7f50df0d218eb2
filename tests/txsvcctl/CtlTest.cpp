#include "CtlTest.h"

#include <algorithm>

#include "contract/Keys.h"
#include "control/RegistryLink.h"
#include "support/TestFolder.h"
#include "txsvcctl/ServiceManager.h"
#include "txsvcctl/Tool.h"

namespace
{

class CRecordingConsole final : public TxCtl::IConsole
{
public:
    explicit CRecordingConsole(CtlResult& result) : m_result(result) {}
    void Out(const std::wstring& text) override { m_result.out += text + L"\n"; }
    void Error(const std::wstring& text) override { m_result.error += text + L"\n"; }

private:
    CtlResult& m_result;
};

} // namespace

CtlResult CtlTest::Run(const std::vector<std::wstring>& arguments)
{
    CtlResult result;
    CRecordingConsole console(result);
    result.exitCode = static_cast<int>(TxCtl::RunTool(arguments, console));
    return result;
}

CtlResult CtlTest::Install(
    const std::wstring& service,
    const std::vector<std::wstring>& more,
    const std::wstring& group,
    const std::wstring& clsid)
{
    std::vector<std::wstring> arguments = {L"install", group, service, L"--clsid", clsid, L"--host", Host()};
    if (std::find(more.begin(), more.end(), L"--module") == more.end())
    {
        arguments.insert(arguments.end(), {L"--module", Module()});
    }
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(arguments);
}

std::wstring CtlTest::Module()
{
    return L"C:\\windows\\system32\\oleaut32.dll";
}

std::wstring CtlTest::Host()
{
    return BesideTest(L"txsvcctl.exe");
}

std::optional<std::wstring> CtlTest::Text(const std::wstring& path, const std::wstring& name)
{
    Basalt::CRegKey key;
    std::wstring value;
    const bool isRead = key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) == ERROR_SUCCESS &&
                        key.ReadString(name.c_str(), value) == ERROR_SUCCESS;
    return isRead ? std::optional(value) : std::nullopt;
}

void CtlTest::Write(const std::wstring& path, const std::wstring& name, const std::wstring& value)
{
    Basalt::CRegKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, path.c_str(), KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(key.WriteString(name.c_str(), value), DWORD{0});
}

bool CtlTest::HasKey(const std::wstring& path)
{
    Basalt::CRegKey key;
    return key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ) == ERROR_SUCCESS;
}

std::wstring CtlTest::GroupKey(const std::wstring& group)
{
    return std::wstring(Contract::kProductKey32) + L"\\Platform\\TxSvcHost\\" + group;
}

std::wstring CtlTest::ClassKey(const std::wstring& clsid)
{
    return L"Software\\Classes\\CLSID\\" + clsid;
}

void CtlTest::Clean()
{
    // Deleting the tree would follow the link: the link key itself goes first.
    Basalt::CRegKey link;
    if (IsRegistryLink(Contract::kProductKey) &&
        link.Open(HKEY_LOCAL_MACHINE, Contract::kProductKey, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK) ==
            ERROR_SUCCESS)
    {
        static_cast<void>(DeleteKeyByHandle(link.Get()));
    }
    link.Close();
    for (const std::wstring& path :
         {std::wstring(Contract::kProductKey),
          std::wstring(Contract::kProductKey32),
          ClassKey(kTestClsid),
          ClassKey(kOtherClsid)})
    {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
    }
    const TxCtl::CServiceManager manager(SC_MANAGER_CONNECT);
    for (const wchar_t* const service : {L"txctl-a", L"txctl-b", L"txctl \u00e4"})
    {
        if (manager.FindConfig(service))
        {
            manager.Delete(service);
        }
    }
}
