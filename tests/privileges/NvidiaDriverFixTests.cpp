#include "privileges/NvidiaDriverFix.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "logging/LoggingIf.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/NoMemory.h"

namespace
{

/// The four, and one that somebody else changes.
constexpr const wchar_t* kNames[] = {
    L"SeIncreaseBasePriorityPrivilege",
    L"SeIncreaseQuotaPrivilege",
    L"SeProfileSingleProcessPrivilege",
    L"SeUndockPrivilege",
    L"SeShutdownPrivilege"};

Basalt::CHandle OpenToken()
{
    Basalt::CHandle token;
    ::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES, token.Put());
    return token;
}

/// 1 or 0 for each, enabled or not.
std::string States()
{
    std::string states;
    for (const wchar_t* name : kNames)
    {
        PRIVILEGE_SET set{1, PRIVILEGE_SET_ALL_NECESSARY, {}};
        BOOL isEnabled = FALSE;
        EXPECT_TRUE(::LookupPrivilegeValueW(nullptr, name, &set.Privilege[0].Luid));
        EXPECT_TRUE(::PrivilegeCheck(OpenToken().Get(), &set, &isEnabled));
        states += isEnabled ? "1" : "0";
    }
    return states;
}

void SetState(std::size_t index, bool isEnabled)
{
    TOKEN_PRIVILEGES block{1, {{{}, isEnabled ? DWORD{SE_PRIVILEGE_ENABLED} : 0}}};
    EXPECT_TRUE(::LookupPrivilegeValueW(nullptr, kNames[index], &block.Privileges[0].Luid));
    EXPECT_TRUE(::AdjustTokenPrivileges(OpenToken().Get(), FALSE, &block, 0, nullptr, nullptr));
}

int g_calls;
int g_failingCall; ///< From 1.

/// Fails at one of its calls.
template <typename Function>
struct Counted;
template <typename... Arguments>
struct Counted<BOOL WINAPI(Arguments...)>
{
    static inline BOOL(WINAPI* s_real)(Arguments...);
    static BOOL WINAPI Call(Arguments... arguments)
    {
        ::SetLastError(ERROR_NO_SUCH_PRIVILEGE);
        return ++g_calls == g_failingCall ? FALSE : s_real(arguments...);
    }
};

template <typename Function>
void* Fake(const char* name, Function* /*type*/)
{
    Counted<Function>::s_real = RealFunction<Function>(name, L"advapi32.dll");
    return reinterpret_cast<void*>(&Counted<Function>::Call);
}

/// All errors.
std::string Errors(const CFakeTrace& log)
{
    std::string errors;
    for (const LogLine& line : log.Lines())
    {
        errors +=
            line.level == ETWLogging::LogError ? Narrow(line.function + L": " + line.message + L"\n") : "";
    }
    return errors;
}

TEST(NvidiaDriverFix, TheFourAreEnabledForTheScopeAndAFailureAtAnyStepLeavesTheOthers)
{
#define FAKE(name) #name, Fake(#name, &::name)
    const struct
    {
        const char* import;
        void* fake;
        int failingCall;
        int calls;
        const char* during;
        const char* after;
        const char* error;
    } rows[] = {
        {FAKE(OpenProcessToken), 0, 2, "11110", "01000", ""},
        {FAKE(OpenProcessToken), 1, 1, "01000", "01001", "OpenProcessToken failed (0x00000521)\n"},
        {FAKE(OpenProcessToken), 2, 2, "11110", "11111", "OpenProcessToken failed (0x00000521)\n"},
        {FAKE(GetTokenInformation), 1, 1, "01000", "01001", "Information(1) failed (0x00000521)\n"},
        {FAKE(GetTokenInformation), 2, 2, "01000", "01001", "Information(2) failed (0x00000521)\n"},
        {FAKE(LookupPrivilegeValueW), 1, 4, "01110", "01000", "PrivilegeValue failed (0x00000521)\n"},
        {FAKE(AdjustTokenPrivileges), 1, 5, "01110", "01000", "Privileges failed with error: 1313\n"},
        {FAKE(AdjustTokenPrivileges),
         5,
         5,
         "11110",
         "11111",
         "CNvidiaDriverFix::RestoreSavedPrivileges: AdjustTokenPrivileges failed (0x00000521)\n"},
    };
#undef FAKE
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.import << " " << row.failingCall);
        for (std::size_t i = 0; i < std::size(kNames); ++i)
        {
            SetState(i, i == 1); // One that was on already has to stay on.
        }
        const CFakeTrace log;
        g_calls = 0;
        g_failingCall = row.failingCall;

        std::optional<CImportPatch> patch(std::in_place, row.import, row.fake);
        std::optional<CNvidiaDriverFix> fix(true);
        patch.reset();
        EXPECT_EQ(States(), row.during);
        SetState(4, true);
        patch.emplace(row.import, row.fake);
        fix.reset();
        patch.reset();

        EXPECT_EQ(States(), row.after);
        EXPECT_EQ(g_calls, row.calls);
        EXPECT_TRUE(Errors(log).ends_with(row.error));
        EXPECT_EQ(log.CountContaining(ETWLogging::LogError, L""), std::string(row.error).empty() ? 0U : 1U);
    }
}

TEST(NvidiaDriverFix, NothingChangesUnlessItIsToAndCould)
{
    static int s_closed;
    const CFakeTrace log;
    const std::string before = States();
    {
        const CImportPatch patch("CloseHandle", +[](HANDLE) { return ++s_closed; });
        const CNvidiaDriverFix fix(false);
        EXPECT_EQ(log.Lines().size(), 0U);
    }
    EXPECT_EQ(s_closed, 2);
    {
        const CImportPatch patch("GetTokenInformation", +[] { return TRUE; });
        const CNvidiaDriverFix fix(true);
    }
    {
        const CNoMemory noMemory;
        const CNvidiaDriverFix fix(true);
    }
    EXPECT_FALSE(CNvidiaDriverFix::SetPrivilegeByName(nullptr, kNames[0]));
    EXPECT_FALSE(CNvidiaDriverFix::SetPrivilegeByName(INVALID_HANDLE_VALUE, kNames[0]));
    EXPECT_FALSE(CNvidiaDriverFix::SetPrivilegeByName(OpenToken().Get(), L""));
    EXPECT_EQ(States(), before);
    for (const wchar_t* error :
         {L"OpenProcessToken error - should have failed",
          L"Memory alloc failure (",
          L"Invalid token value",
          L"No privileges set"})
    {
        EXPECT_NE(log.CountContaining(ETWLogging::LogError, error), 0U) << Narrow(error);
    }
    EXPECT_EQ(log.CountContaining(ETWLogging::LogError, L""), 5U);
}

} // namespace
