#include "privileges/NvidiaDriverFix.h"

#include <windows.h>

#include <functional>
#include <gtest/gtest.h>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"
#include "support/NoMemory.h"

namespace
{

Basalt::CHandle OpenToken()
{
    Basalt::CHandle token;
    ::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES, token.Put());
    return token;
}

/// The process's privileges, as the system gives them.
std::vector<BYTE> Privileges()
{
    std::vector<BYTE> block(4096);
    DWORD size = 0;
    ::GetTokenInformation(OpenToken().Get(), TokenPrivileges, block.data(), 4096, &size);
    return block;
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

TEST(NvidiaDriverFix, TheFourAreEnabledForTheScopeAndAFailureAtAnyStepLeavesTheOthers)
{
    const std::string open = "4 CNvidiaDriverFix::OpenCurrentProcessToken: OpenProcessToken";
    const std::string save = "4 CNvidiaDriverFix::SaveCurrentPrivilegesFromToken: GetTokenInformation";
    const std::string set = "4 CNvidiaDriverFix::SetPrivilegeByName: ";
    const std::string adjust = set + "SetPrivilegeByName: AdjustTokenPrivileges";
    const std::string restore = "4 CNvidiaDriverFix::RestoreSavedPrivileges: AdjustTokenPrivileges";
#define FAKE(name) #name, Fake(#name, &::name)
    const struct
    {
        const char* import;
        void* fake;
        int failingCall;
        int calls;
        int enabled;
        bool isPutBack;
        std::string error;
    } rows[] = {
        {FAKE(OpenProcessToken), 0, 2, 4, true, ""},
        {FAKE(OpenProcessToken), 1, 1, 0, true, open + " failed (0x00000521)\n"},
        {FAKE(OpenProcessToken), 2, 2, 4, false, open + " failed (0x00000521)\n"},
        {FAKE(GetTokenInformation), 1, 1, 0, true, save + "(1) failed (0x00000521)\n"},
        {FAKE(GetTokenInformation), 2, 2, 0, true, save + "(2) failed (0x00000521)\n"},
        {FAKE(LookupPrivilegeValueW), 1, 4, 3, true, set + "LookupPrivilegeValue failed (0x00000521)\n"},
        {FAKE(AdjustTokenPrivileges), 1, 5, 3, true, adjust + " failed with error: 1313\n"},
        {FAKE(AdjustTokenPrivileges), 5, 5, 4, false, restore + " failed (0x00000521)\n"},
    };
#undef FAKE
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.import << " " << row.failingCall);
        CFakeTrace log;
        std::vector<BYTE> before = Privileges();
        g_calls = 0;
        g_failingCall = row.failingCall;

        std::optional<CImportPatch> patch(std::in_place, row.import, row.fake);
        std::optional<CNvidiaDriverFix> fix(true);
        patch.reset();
        const std::vector<BYTE> during = Privileges();
        std::optional<CNvidiaDriverFix>(true).reset();
        EXPECT_EQ(Privileges(), during) << "what was on stays on";
        const std::string begin = log.Take();
        patch.emplace(row.import, row.fake);
        fix.reset();
        patch.reset();

        const auto enabled = std::inner_product(
            during.begin(), during.end(), before.begin(), 0, std::plus<>(), std::not_equal_to<>());
        EXPECT_EQ(enabled, row.enabled);
        EXPECT_EQ(Privileges() == before, row.isPutBack);
        EXPECT_EQ(g_calls, row.calls);
        EXPECT_NE((begin + log.Take()).find(row.error), std::string::npos);
        auto* const block = reinterpret_cast<TOKEN_PRIVILEGES*>(before.data());
        ::AdjustTokenPrivileges(OpenToken().Get(), FALSE, block, 0, nullptr, nullptr);
    }
}

TEST(NvidiaDriverFix, NothingChangesUnlessItIsToAndCould)
{
    static int s_closed;
    CFakeTrace log;
    const std::vector<BYTE> before = Privileges();
    {
        const CImportPatch patch("CloseHandle", +[](HANDLE) { return ++s_closed; });
        const CNvidiaDriverFix fix(false);
        EXPECT_EQ(Privileges(), before);
    }
    EXPECT_EQ(s_closed, 3) << "the token that this test opened among them";
    {
        const CImportPatch patch("GetTokenInformation", +[] { return TRUE; });
        const CNvidiaDriverFix fix(true);
    }
    {
        const CNoMemory noMemory;
        const CNvidiaDriverFix fix(true);
    }
    EXPECT_EQ(Privileges(), before);
    const std::string save = "4 CNvidiaDriverFix::SaveCurrentPrivilegesFromToken: ";
    EXPECT_TRUE(log.Take().starts_with(
        save + "OpenProcessToken error - should have failed\n" + save + "Memory alloc failure ("));
}

} // namespace
