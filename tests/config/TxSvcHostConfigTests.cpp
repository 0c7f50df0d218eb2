#include "config/TxSvcHostConfig.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "contract/Keys.h"
#include "logging/logger/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kGroup[] = L"TxTestGroup";

class TxSvcHostConfigTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(m_group.Create(m_root.Key().Get(), kGroup, KEY_ALL_ACCESS), DWORD{0}); }
    void TearDown() override { CTxSvcHostConfig::ReleaseInstance(); }

    void SetRoot(const wchar_t* name, DWORD value)
    {
        ASSERT_EQ(m_root.Key().WriteDword(name, value), DWORD{0});
    }
    WorkingSetRecord InitAndGetRecord()
    {
        WorkingSetRecord record;
        EXPECT_TRUE(Config().Init(kGroup));
        EXPECT_TRUE(Config().GetWorkingSetRecord(record));
        return record;
    }
    static CTxSvcHostConfig& Config() { return CTxSvcHostConfig::GetInstance(); }

    CTestKey m_root{HKEY_LOCAL_MACHINE, Contract::kHostKey};
    Basalt::CRegKey m_group;
    CLogCapture m_log;
};

TEST_F(TxSvcHostConfigTest, AnEmptyRegistryGivesTheDefaultsInTheirOrder)
{
    WorkingSetRecord record = InitAndGetRecord();

    const std::vector<std::wstring> expected = {
        L"Failed to read Bucket range reg value",
        L"Failed to read REG_WSS_OPTIMAL_BUCKET_UPPER_LIMIT_VALUE_NAME reg value",
        L"Enumerating OOBE exclusion list, reg key path "
        L"'SOFTWARE\\Tarvex\\Platform\\TxSvcHost\\TxTestGroup\\OobeExclusionList'",
        L"Failed to open exclusion list reg key",
        L"Failed to load the OOBE exclusion list for the group 'TxTestGroup'",
        L"Service loading will be serial",
        L"Working set configuration values:",
        L" dwEnabled                =1",
        L" dwLoggingEnabled         =0",
        L" dwTimerIntervalBase      =600000",
        L" dwCpuUsageLimit          =5",
        L" dwCpuUsageDuration       =5000",
        L" dwRandomizationRange     =600000",
        L" dwLimitFactor            =30",
        L" stOptimalBucketUpperLimit=0",
        L" dwBucketRange            =5242880",
        L" dwOptimalOccuranceCount  =3",
        L" dwProcessIdleWaitTime    =60000",
    };
    EXPECT_EQ(m_log.Messages(), expected);
    EXPECT_EQ(record.dwBucketRange, 0x500000U);
    EXPECT_TRUE(Config().IsSerialLoad());
}

TEST_F(TxSvcHostConfigTest, EachSettingKeepsItsRange)
{
    const struct
    {
        const wchar_t* name;
        DWORD WorkingSetRecord::* field;
        DWORD minimum;
        DWORD maximum;
        DWORD fallback;
    } rows[] = {
        {L"WSSEnable", &WorkingSetRecord::dwEnabled, 0, 1, 1},
        {L"WSSLoggingEnable", &WorkingSetRecord::dwLoggingEnabled, 0, 1, 0},
        {L"WSSCpuLimit", &WorkingSetRecord::dwCpuUsageLimit, 2, 10, 5},
        {L"WSSCpuInterval", &WorkingSetRecord::dwCpuUsageDuration, 5000, 10000, 5000},
        {L"WSSTimerBase", &WorkingSetRecord::dwTimerIntervalBase, 300000, 1200000, 600000},
        {L"WSSRandomizationRange", &WorkingSetRecord::dwRandomizationRange, 300000, 900000, 600000},
        {L"WSSLimitFactor", &WorkingSetRecord::dwLimitFactor, 0, 200, 30},
        {L"WSSBucketRange", &WorkingSetRecord::dwBucketRange, 0, 0xFFFFFFFF, 0},
        {L"WSSOptimalOccuranceCount", &WorkingSetRecord::dwOptimalOccuranceCount, 3, 10, 3},
        {L"WSSProcessorIdleWaitTime", &WorkingSetRecord::dwProcessIdleWaitTime, 30000, 300000, 60000},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.minimum << ".." << row.maximum << " default " << row.fallback);
        SetRoot(row.name, row.maximum);
        EXPECT_EQ(InitAndGetRecord().*row.field, row.maximum);
        SetRoot(row.name, row.minimum);
        EXPECT_EQ(InitAndGetRecord().*row.field, row.minimum);
        SetRoot(row.name, row.maximum + 1); // Wraps to the smallest number where there is no upper limit.
        EXPECT_EQ(InitAndGetRecord().*row.field, row.fallback);
    }
}

TEST_F(TxSvcHostConfigTest, TheMisspeltOccurrenceCountMovesToItsRightName)
{
    DWORD value = 0;
    SetRoot(L"WSSOptiamlOccuranceCount", 7);
    SetRoot(L"WSSOptimalOccuranceCount", 4);

    EXPECT_EQ(InitAndGetRecord().dwOptimalOccuranceCount, 7U);
    EXPECT_TRUE(m_log.Has(LogNormal, L"Replaced WSSOptiamlOccuranceCount with WSSOptimalOccuranceCount"));
    EXPECT_EQ(m_root.Key().ReadDword(L"WSSOptiamlOccuranceCount", value), DWORD{ERROR_FILE_NOT_FOUND});

    SetRoot(L"WSSOptiamlOccuranceCount", 11);
    EXPECT_EQ(InitAndGetRecord().dwOptimalOccuranceCount, 3U);
    EXPECT_EQ(m_root.Key().ReadDword(L"WSSOptimalOccuranceCount", value), DWORD{0});
    EXPECT_EQ(value, 11U) << "moved unchecked";

    SetRoot(L"WSSOptiamlOccuranceCount", 8);
    const CImportPatch patch(
        "RegSetValueExW",
        +[](HKEY, const wchar_t*, DWORD, DWORD, const BYTE*, DWORD) -> LSTATUS { return ERROR_DISK_FULL; });
    ASSERT_TRUE(patch.IsActive());
    EXPECT_EQ(InitAndGetRecord().dwOptimalOccuranceCount, 3U);
    EXPECT_EQ(m_root.Key().ReadDword(L"WSSOptiamlOccuranceCount", value), DWORD{ERROR_FILE_NOT_FOUND});
}

TEST_F(TxSvcHostConfigTest, SerialLoadingIsWhatIsNotClearlySwitchedOff)
{
    EXPECT_FALSE(Config().IsSerialLoad()) << "not initialised";
    for (const DWORD stored : {0U, 1U, 2U})
    {
        SetRoot(L"ForceSerialLoads", stored);
        ASSERT_TRUE(Config().Init(kGroup));
        EXPECT_EQ(Config().IsSerialLoad(), stored != 0) << stored;
    }
    EXPECT_EQ(m_log.Count(LogNormal, L"Service loading will be parallel"), 1U);
}

TEST_F(TxSvcHostConfigTest, ServiceListsAreSplitAtEverySeparator)
{
    constexpr std::size_t kLongestMessage = 2079;
    const std::wstring long1MiB(512 * 1024, L'n');
    const struct
    {
        std::wstring stored;
        std::vector<std::wstring> expected;
    } rows[] = {
        {L";a b:c,,d", {L"a b", L"c", L"d"}},
        {L";:,;", {}},
        {L"", {}},
        {long1MiB, {long1MiB}},
    };
    ASSERT_TRUE(Config().Init(kGroup));
    for (const auto& row : rows)
    {
        ASSERT_EQ(m_group.WriteString(L"", row.stored), DWORD{0});
        std::vector<std::wstring> services = {L"old"};

        EXPECT_TRUE(Config().GetServices(services));
        EXPECT_EQ(services, row.expected);
        const std::wstring line = L"The supported services are: " + row.stored;
        EXPECT_TRUE(m_log.Has(LogNormal, line.substr(0, kLongestMessage)));
    }
}

TEST_F(TxSvcHostConfigTest, EachFailureHasItsLine)
{
    const std::wstring root = Contract::kHostKey;
    const std::wstring path = root + L"\\" + kGroup;
    std::wstring clsid = L"untouched";
    const auto failAll = [&] {
        std::vector<std::wstring> services;
        DWORD value = 0;
        m_log.Clear();
        EXPECT_FALSE(Config().GetServices(services));
        EXPECT_FALSE(Config().GetSvcCLSID(L"svc", clsid));
        EXPECT_FALSE(Config().GetIsOobeCheckRequired(value));
    };

    EXPECT_FALSE(Config().Init(L""));
    failAll();
    EXPECT_FALSE(Config().SetGroupOptimalBucketUpperLimit(1));
    EXPECT_EQ(m_log.Messages(), std::vector<std::wstring>{L"Cant read registry key IsOobeCheckRequired"});

    ASSERT_TRUE(Config().Init(kGroup));
    failAll();
    EXPECT_TRUE(m_log.Has(LogCritical, L"Unable to read list of services from " + path));
    EXPECT_TRUE(m_log.Has(LogNormal, L"Mapping svc =>  (0x00000002)"));
    EXPECT_TRUE(m_log.Has(LogError, L"Cant read registry key IsOobeCheckRequired"));

    m_root.Remove();
    failAll();
    EXPECT_FALSE(Config().SetIsOobeCheckRequired(0));
    EXPECT_FALSE(Config().SetGroupOptimalBucketUpperLimit(1));
    EXPECT_EQ(
        m_log.Messages(),
        (std::vector<std::wstring>{
            L"Failed to open registry key to look up service list " + path,
            L"Failed to open registry key to look up service CLSID",
            L"Failed to open registry key IsOobeCheckRequired",
            L"Failed to open registry key " + root,
            L"Failed to set the optimal bucket upper limit"}));
    EXPECT_EQ(m_log.Lines().back().level, DWORD{LogWarning});
    EXPECT_EQ(clsid, L"untouched");
    EXPECT_FALSE(Config().Init(kGroup)) << "no root key";
}

TEST_F(TxSvcHostConfigTest, StoresWhatTheRunningHostLearns)
{
    DWORD value = 0;
    ASSERT_TRUE(Config().Init(kGroup));

    EXPECT_TRUE(Config().SetGroupOptimalBucketUpperLimit(15728640));
    EXPECT_TRUE(Config().SetIsOobeCheckRequired(0));
    EXPECT_EQ(m_group.ReadDword(L"WSSOptimalBucketUpperLimit", value), DWORD{0});
    EXPECT_EQ(value, 15728640U);
    EXPECT_TRUE(Config().GetIsOobeCheckRequired(value));
    EXPECT_EQ(value, 0U);
    WorkingSetRecord record;
    EXPECT_TRUE(Config().GetWorkingSetRecord(record));
    EXPECT_EQ(record.stOptimalBucketUpperLimit, 0U) << "the record in memory stays";

    std::wstring group;
    EXPECT_TRUE(Config().DeInit());
    EXPECT_FALSE(Config().GetGroupName(group));
    EXPECT_FALSE(Config().GetWorkingSetRecord(record));
    EXPECT_FALSE(Config().IsSerialLoad());
}

TEST_F(TxSvcHostConfigTest, TheExclusionListIsLowerCasedAndAMissingGroupKeyIsSilentAboutTheBand)
{
    Basalt::CRegKey list;
    ASSERT_EQ(list.Create(m_group.Get(), L"OobeExclusionList", KEY_ALL_ACCESS), DWORD{0});
    ASSERT_EQ(list.WriteDword(L"TxSvcA", 1), DWORD{0});

    ASSERT_TRUE(Config().Init(kGroup));
    EXPECT_EQ(Config().GetOobeExclusionList(), std::vector<std::wstring>{L"txsvca"});
    EXPECT_TRUE(m_log.Has(LogNormal, L"Successfully enumerated OOBE exclusion list"));

    m_log.Clear();
    CTxSvcHostConfig::ReleaseInstance();
    EXPECT_TRUE(Config().Init(L"NoSuchGroup"));
    EXPECT_EQ(m_log.CountContaining(LogWarning, L"OPTIMAL_BUCKET"), 0U);
}

} // namespace
