#include "host/TxSCMInterface.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "logging/logger/LoggingIf.h"
#include "support/LogCapture.h"

using namespace ETWLogging;

namespace
{

void WINAPI SomeServiceMain(DWORD, LPWSTR*) {}

/// Stands in for the service control manager: records the table and answers as told.
class CRecordingScmInterface : public CTxSCMInterface
{
public:
    BOOL StartDispatcher(const SERVICE_TABLE_ENTRYW* table) noexcept override
    {
        for (; table->lpServiceName != nullptr; ++table)
        {
            EXPECT_EQ(table->lpServiceProc, &SomeServiceMain);
            names.emplace_back(table->lpServiceName);
        }
        EXPECT_EQ(table->lpServiceProc, nullptr);
        ::SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
        return answer;
    }

    BOOL answer = TRUE;
    std::vector<std::wstring> names;
};

TEST(TxSCMInterface, RefusesInvalidServicesAndAnEmptyTable)
{
    const CLogCapture log;
    CRecordingScmInterface scm;

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
    for (const BOOL answer : {TRUE, FALSE}) // The last error decides nothing.
    {
        SCOPED_TRACE(answer);
        const CLogCapture log;
        CRecordingScmInterface scm;
        scm.answer = answer;
        ASSERT_TRUE(scm.AddService(L"b", &SomeServiceMain));
        ASSERT_TRUE(scm.AddService(L"a", &SomeServiceMain));

        EXPECT_EQ(scm.RegisterServicesToSCM(), answer ? 0U : 1063U);
        EXPECT_EQ(scm.names, (std::vector<std::wstring>{L"b", L"a"}));
        EXPECT_EQ(
            log.Messages(),
            (std::vector<std::wstring>{
                L"The service process is starting",
                L"Starting the service control dispatcher",
                L"Service control dispatcher returned 0x00000427",
                answer ? L"The service process is stopping"
                       : L"StartServiceCtrlDispatcher failed (GLE=0x00000427)"}));
        EXPECT_EQ(log.Lines().back().level, answer ? LogNormal : LogError);
    }
}

} // namespace
