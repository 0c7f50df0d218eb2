#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "config/TxSvcHostConfig.h"
#include "contract/Keys.h"
#include "logging/logger/LoggingIf.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/TestKey.h"

namespace
{

const auto g_realOpen = RealFunction<decltype(::RegOpenKeyExW)>("RegOpenKeyExW", L"advapi32.dll");
LSTATUS g_status;   ///< What a call gives in the end.
std::string g_seen; ///< Rights asked for, results and all lines above level 1.

LSTATUS WINAPI FakeOpen(HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key)
{
    g_seen += access == KEY_ALL_ACCESS ? 'a' : access == (KEY_READ | KEY_WRITE) ? 'w' : '?';
    const LSTATUS status = g_realOpen(root, path, options, access, key);
    return status != ERROR_SUCCESS ? status : g_status;
}
LSTATUS Fail()
{
    return g_status;
}

/// Makes each call once.
void CallAll()
{
    const CFakeTrace log;
    CTxSvcHostConfig& config = CTxSvcHostConfig::GetInstance();
    std::vector<std::wstring> services;
    std::wstring clsid;
    DWORD required = 0;
    g_seen += config.Init(L"g") ? "1" : "0";
    g_seen += config.GetServices(services) ? "1" : "0";
    g_seen += config.GetSvcCLSID(L"svc", clsid) ? "1" : "0";
    g_seen += config.GetIsOobeCheckRequired(required) ? "1" : "0";
    g_seen += config.SetIsOobeCheckRequired(0) ? "1" : "0";
    g_seen += config.SetGroupOptimalBucketUpperLimit(7) ? "1" : "0";
    for (const LogLine& line : log.Lines())
    {
        g_seen += line.level > ETWLogging::LogNormal
                      ? "\n" + std::to_string(line.level) + " " + Narrow(line.message)
                      : "";
    }
}

TEST(TxSvcHostConfig, EachFailingCallHasItsResultAndItsLines)
{
    const auto pointer = [](auto* function) { return reinterpret_cast<void*>(function); };
    const std::string path = "SOFTWARE\\Tarvex\\Platform\\TxSvcHost";
    const std::string tooLong = "\n4 Error 0x000000EA on key 'TxLong'\n4 Error retrieving value for 'TxLong'";
    const std::string noKeys = "\n4 Failed to open registry key to look up service list " + path +
                               "\\g\n4 Failed to open registry key to look up service CLSID"
                               "\n4 Failed to open registry key IsOobeCheckRequired"
                               "\n4 Failed to open registry key " +
                               path;
    const std::string denied = "\n4 Error 0x00000005 on key '" + path + "'";
    const std::string kept = "\nthe misspelt name";
    const std::string notSet = "\n2 Failed to set the optimal bucket upper limit";
    const struct
    {
        const char* import;
        void* fake;
        LSTATUS status;
        std::string expected;
    } rows[] = {
        {"RegOpenKeyExW", pointer(&FakeOpen), 0, "aaa1w1w1w1w1a1" + tooLong},
        {"RegOpenKeyExW", pointer(&FakeOpen), 5, "a0w0w0w0w0a0" + denied + noKeys + denied + notSet + kept},
        {"RegOpenKeyExW", pointer(&Fail), ERROR_FILE_NOT_FOUND, "000000" + noKeys + notSet + kept},
        {"RegCreateKeyExW",
         pointer(&Fail),
         5,
         "111110" + tooLong + "\n4 Error 0x00000005 on key 'g'" + notSet},
        {"RegSetValueExW",
         pointer(&Fail),
         ERROR_DISK_FULL,
         "111100\n4 Error 0x00000070 on key 'WSSOptimalOccuranceCount'" + tooLong +
             "\n4 Cant set registry key to IsOobeCheckRequired"
             "\n4 Error 0x00000070 on key 'WSSOptimalBucketUpperLimit'" +
             notSet},
        {"RegQueryInfoKeyW",
         pointer(&Fail),
         5,
         "111111\n4 Error 0x00000005\n4 _enumValues: failed in _RegQueryInfoKey"
         "\n2 Failed to enum exclusion list values"},
        {"RegEnumValueW",
         pointer(&Fail),
         5,
         "111111\n4 Error 0x00000005\n2 Failed to enum exclusion list values"},
        {"RegEnumValueW", pointer(&Fail), ERROR_NO_MORE_ITEMS, "111111"},
    };
    for (const auto& row : rows)
    {
        CTestKey root(HKEY_LOCAL_MACHINE, Contract::kHostKey);
        Basalt::CRegKey list;
        Basalt::CRegKey group;
        ASSERT_EQ(list.Create(root.Key().Get(), L"g\\OobeExclusionList", KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(list.WriteString(L"TxLong", std::wstring(511, L'x')), 0U);
        ASSERT_EQ(list.WriteString(std::wstring(255, L'y').c_str(), std::wstring(510, L'x')), 0U);
        ASSERT_EQ(group.Open(root.Key().Get(), L"g", KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(group.WriteDword(L"WSSOptimalBucketUpperLimit", 8), 0U);
        ASSERT_EQ(group.WriteString(L"svc", L"{}"), 0U);
        ASSERT_EQ(group.WriteString(L"", L"svc"), 0U);
        ASSERT_TRUE(CTxSvcHostConfig::GetInstance().Init(L"g"));
        for (const wchar_t* name : {L"IsOobeCheckRequired", L"WSSBucketRange", L"WSSOptiamlOccuranceCount"})
        {
            ASSERT_EQ(root.Key().WriteDword(name, 8), 0U);
        }
        g_status = row.status;
        g_seen.clear();
        {
            const CImportPatch patch(row.import, row.fake);
            ASSERT_TRUE(patch.IsActive());
            CallAll();
        }
        DWORD value = 0;
        g_seen += root.Key().ReadDword(L"WSSOptiamlOccuranceCount", value) == 0 ? kept : "";
        EXPECT_EQ(g_seen, row.expected) << row.import << " " << row.status;
        CTxSvcHostConfig::ReleaseInstance();
    }
}

} // namespace
