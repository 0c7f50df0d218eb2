#include "privileges/NvidiaDriverFix.h"

#include <windows.h>

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "logging/logger/LoggingIf.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"

namespace
{

/// The process's privileges, as the system gives them.
std::vector<BYTE> Privileges()
{
    Basalt::CHandle token;
    ::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.Put());
    std::vector<BYTE> block(4096);
    DWORD size = 0;
    ::GetTokenInformation(token.Get(), TokenPrivileges, block.data(), 4096, &size);
    return block;
}

int g_callsLeft;               ///< Until one fails.
constexpr int kSucceeds = -10; ///< The first one does, whatever it was asked.

/// Windows reads as many as the number says, Wine takes it from the size where there is one.
void Look(HANDLE, BOOL, TOKEN_PRIVILEGES* block, DWORD size, TOKEN_PRIVILEGES*, DWORD*)
{
    EXPECT_TRUE(size == 0 || block->PrivilegeCount == 1) << "the block has room for one";
}
template <typename... Arguments>
void Look(Arguments...)
{
}

/// Fails at one of its calls.
template <typename Function>
struct Failing;
template <typename... Arguments>
struct Failing<BOOL WINAPI(Arguments...)>
{
    static inline BOOL(WINAPI* s_real)(Arguments...);
    static BOOL WINAPI Call(Arguments... arguments)
    {
        Look(arguments...);
        ::SetLastError(ERROR_NO_SUCH_PRIVILEGE);
        const int left = --g_callsLeft;
        return left == 0 || left == kSucceeds - 1 ? left != 0 : s_real(arguments...);
    }
};

template <typename Function>
void* Fake(const char* name, Function* /*type*/)
{
    Failing<Function>::s_real = RealFunction<Function>(name, L"advapi32.dll");
    return reinterpret_cast<void*>(&Failing<Function>::Call);
}

TEST(NvidiaDriverFix, TheFourAreEnabledForTheScopeAndAFailureAtAnyStepLeavesTheOthers)
{
    void* const lookUp = Fake("LookupPrivilegeValueW", &::LookupPrivilegeValueW);
    void* const adjust = Fake("AdjustTokenPrivileges", &::AdjustTokenPrivileges);
    void* const get = Fake("GetTokenInformation", &::GetTokenInformation);
    const struct
    {
        const char* import;
        void* fake;
        int failingCall;
        int enabled;
        int left; ///< Behind the scope.
        const wchar_t* error;
    } rows[] = {
        {"OpenProcessToken",
         Fake("OpenProcessToken", &::OpenProcessToken),
         1,
         0,
         0,
         L"OpenProcessToken failed (0x00000521)"},
        {"GetTokenInformation", get, 1, 0, 0, L"GetTokenInformation(1) failed (0x00000521)"},
        {"GetTokenInformation", get, 2, 0, 0, L"GetTokenInformation(2) failed (0x00000521)"},
        {"GetTokenInformation", get, kSucceeds, 0, 0, L"should have failed"},
        {"LookupPrivilegeValueW", lookUp, 1, 3, 0, L"LookupPrivilegeValue failed (0x00000521)"},
        {"AdjustTokenPrivileges", adjust, 1, 3, 0, L"AdjustTokenPrivileges failed with error: 1313"},
        {"AdjustTokenPrivileges", adjust, 0, 4, 0, L""},
        // Last, since nothing puts them back.
        {"AdjustTokenPrivileges",
         adjust,
         5,
         4,
         4,
         L"RestoreSavedPrivileges: AdjustTokenPrivileges failed (0x00000521)"},
    };
    const std::vector<BYTE> before = Privileges();
    const auto enabled = [&before] {
        const std::vector<BYTE> now = Privileges();
        return std::inner_product(
            now.begin(), now.end(), before.begin(), 0, std::plus<>(), std::not_equal_to<>());
    };
    for (const auto& row : rows)
    {
        const CFakeTrace log;
        g_callsLeft = row.failingCall;
        std::optional<CImportPatch> patch(std::in_place, row.import, row.fake);
        std::optional<CNvidiaDriverFix> fix(true);
        const int callsLeft = g_callsLeft;
        patch.reset();
        EXPECT_EQ(enabled(), row.enabled) << row.import;
        const CImportPatch again(row.import, row.fake);
        g_callsLeft = callsLeft;
        fix.reset();
        g_callsLeft = 0;
        EXPECT_EQ(enabled(), row.left) << row.import;
        std::wstring errors;
        for (const LogLine& line : log.Lines())
        {
            errors += line.level == ETWLogging::LogError ? line.function + L": " + line.message + L";" : L"";
        }
        EXPECT_TRUE(row.failingCall == 0 ? errors.empty() : errors.ends_with(row.error + std::wstring(L";")))
            << errors;
        EXPECT_LE(std::ranges::count(errors, L';'), 1) << errors;
    }
}

} // namespace
