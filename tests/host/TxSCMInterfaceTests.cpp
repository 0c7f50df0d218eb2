#include "host/TxSCMInterface.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "logging/LoggingIf.h"
#include "support/LogCapture.h"

using namespace ETWLogging;

namespace
{

void WINAPI SomeServiceMain(DWORD, LPWSTR*) {}

/// Stands in for the service control manager: records the table and answers as told.
class CRecordingScmInterface : public CTxSCMInterface
{
public:
    CRecordingScmInterface(BOOL answer, DWORD lastError) : m_answer(answer), m_lastError(lastError) {}

    BOOL StartDispatcher(const SERVICE_TABLE_ENTRYW* table) noexcept override
    {
        for (; table->lpServiceName != nullptr; ++table)
        {
            EXPECT_EQ(table->lpServiceProc, &SomeServiceMain);
            names.emplace_back(table->lpServiceName);
        }
        EXPECT_EQ(table->lpServiceProc, nullptr);
        ::SetLastError(m_lastError);
        return m_answer;
    }

    std::vector<std::wstring> names;

private:
    BOOL m_answer;
    DWORD m_lastError;
};

TEST(TxSCMInterface, RefusesInvalidServicesAndAnEmptyTable)
{
    const CLogCapture log;
    CRecordingScmInterface scm(TRUE, 0);

    EXPECT_FALSE(scm.AddService(L"a", nullptr));
    EXPECT_FALSE(scm.AddService(nullptr, &SomeServiceMain));
    EXPECT_FALSE(scm.AddService(L"", &SomeServiceMain));
    EXPECT_EQ(scm.RegisterServicesToSCM(), DWORD{ERROR_INTERNAL_ERROR});
    EXPECT_TRUE(scm.names.empty()) << "the dispatcher is not asked";
    EXPECT_EQ(
        log.Messages(),
        (std::vector<std::wstring>{
            L"The service main function pointer is null",
            L"The service name is empty",
            L"The service name is empty",
            L"The service process is starting",
            L"There are no services to run - add the services first",
            L"Failed to load the services SERVICE_TABLE_ENTRY array"}));
    EXPECT_EQ(log.Lines().back().level, DWORD{LogNormal});
}

TEST(TxSCMInterface, HandsTheServicesOverInTheirOrderAndReportsTheOutcome)
{
    const struct
    {
        BOOL answer;
        DWORD lastError;
        DWORD expected;
        std::wstring lastLine;
        DWORD lastLevel;
    } rows[] = {
        {TRUE, 0, 0, L"The service process is stopping", LogNormal},
        {TRUE, 5, 0, L"The service process is stopping", LogNormal},
        {FALSE, 1063, 1063, L"StartServiceCtrlDispatcher failed (GLE=0x00000427)", LogError},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.lastError);
        const CLogCapture log;
        CRecordingScmInterface scm(row.answer, row.lastError);
        ASSERT_TRUE(scm.AddService(L"b", &SomeServiceMain));
        ASSERT_TRUE(scm.AddService(L"a", &SomeServiceMain));

        EXPECT_EQ(scm.RegisterServicesToSCM(), row.expected);
        EXPECT_EQ(scm.names, (std::vector<std::wstring>{L"b", L"a"}));
        EXPECT_EQ(log.CountContaining(LogNormal, L"Service control dispatcher returned 0x"), 1U);
        EXPECT_TRUE(log.Has(row.lastLevel, row.lastLine));
    }
}

} // namespace
