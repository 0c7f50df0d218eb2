#include <windows.h>

#include <nlohmann/json.hpp>

#include "CtlTest.h"
#include "base/Owned.h"
#include "support/Narrow.h"

using nlohmann::json;

namespace
{

class ListTest : public CtlTest
{
protected:
    static json ListAsJson(const std::vector<std::wstring>& more = {})
    {
        std::vector<std::wstring> arguments = {L"list", L"--json"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const CtlResult result = Run(arguments);
        EXPECT_EQ(result.exitCode, 0) << Narrow(result.error);
        return json::parse(Narrow(result.out))["groups"];
    }
};

TEST_F(ListTest, AHealthyServiceIsShownInFull)
{
    ASSERT_EQ(Install(L"txctl \u00e4", {L"--display-name", L"Shown"}).exitCode, 0);

    const json groups = ListAsJson({L"txctl"});
    const std::wstring text = Run({L"list"}).out;

    ASSERT_EQ(groups.size(), 1U);
    EXPECT_EQ(groups[0]["name"], Narrow(kTestGroup));
    json service = groups[0]["services"][0];
    EXPECT_TRUE(service["moduleVersion"].is_string());
    service.erase("moduleVersion"); // The system's own.
    EXPECT_EQ(
        service,
        json(
            {{"name", Narrow(L"txctl \u00e4")},
             {"clsid", Narrow(kTestClsid)},
             {"module", Narrow(Module())},
             {"displayName", "Shown"},
             {"imagePath", Narrow(L"\"" + Host() + L"\" /TXCTL")},
             {"start", "manual"},
             {"state", "stopped"},
             {"processId", 0},
             {"problems", json::array()}}));
    for (const std::wstring& part :
         {std::wstring(L"Group TXCTL\n  txctl \u00e4\n    state    stopped\n"), Module()})
    {
        EXPECT_NE(text.find(part), std::wstring::npos) << Narrow(text);
    }
}

TEST_F(ListTest, EveryProblemIsShownAtItsService)
{
    const std::wstring otherServer = ClassKey(kOtherClsid) + L"\\InprocServer32";
    Write(GroupKey(), {}, L"no-clsid;bad-clsid:no-class,,no-module;MSIServer;txctl-a");
    Write(GroupKey(), L"bad-clsid", L"{}");
    Write(GroupKey(), L"no-class", kTestClsid);
    Write(GroupKey(), L"no-module", kOtherClsid);
    Write(GroupKey(), L"MSIServer", kOtherClsid);
    Write(otherServer, {}, L"C:\\gone.dll");
    Write(GroupKey(L"OTHER"), {}, L"no-class");

    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    const Basalt::CServiceHandle own(::CreateServiceW(
        manager.Get(),
        L"txctl-a",
        L"txctl-a",
        DELETE,
        SERVICE_WIN32_OWN_PROCESS,
        SERVICE_DEMAND_START,
        0,
        L"C:\\gone.exe /TXCTL",
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr));

    const json services = ListAsJson({kTestGroup})[0]["services"];

    const struct
    {
        const char* name;
        std::vector<std::string> problems; ///< parts of them, in their order
    } table[] = {
        {"no-clsid", {"no CLSID", "no entry"}},
        {"bad-clsid", {"'{}' is not a CLSID", "no entry"}},
        {"no-class", {"not registered", "no entry", "'OTHER'"}},
        {"no-module", {"'C:\\gone.dll' cannot be read: error 2", "no entry"}},
        {"MSIServer", {"gone.dll", "does not run this group"}},
        {"txctl-a", {"no CLSID", "share-process", "missing: C:\\gone.exe"}},
    };
    ASSERT_EQ(services.size(), std::size(table));
    for (std::size_t i = 0; i < std::size(table); ++i)
    {
        SCOPED_TRACE(table[i].name);
        EXPECT_EQ(services[i]["name"], table[i].name);
        const json& problems = services[i]["problems"];
        ASSERT_EQ(problems.size(), table[i].problems.size()) << problems;
        for (std::size_t at = 0; at < problems.size(); ++at)
        {
            EXPECT_NE(problems[at].get<std::string>().find(table[i].problems[at]), std::string::npos)
                << problems;
        }
    }
}

TEST_F(ListTest, AListOfAnotherTypeIsTheGroupsProblemAlone)
{
    Basalt::CRegKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, GroupKey(L"BAD").c_str(), KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(key.WriteDword(nullptr, 1), DWORD{0});
    Write(GroupKey(L"GOOD"), {}, L"x");

    const json groups = ListAsJson();

    ASSERT_EQ(groups.size(), 2U);
    EXPECT_EQ(groups[0]["problems"].size(), 1U);
    EXPECT_EQ(groups[1]["services"].size(), 1U);
}

} // namespace
