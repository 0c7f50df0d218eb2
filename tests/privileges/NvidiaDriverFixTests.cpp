#include "privileges/NvidiaDriverFix.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <utility>

#include "base/Owned.h"
#include "logging/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"

using namespace ETWLogging;

namespace
{

using Text = const wchar_t*;

// The second is on already, and has to stay on; the last is none of the four.
constexpr Text kNames[] = {
    L"IncreaseBasePriority", L"IncreaseQuota", L"ProfileSingleProcess", L"Undock", L"Shutdown"};

struct NvidiaDriverFixTest : ::testing::Test
{
    NvidiaDriverFixTest()
    {
        EXPECT_TRUE(CNvidiaDriverFix::OpenCurrentProcessToken(*m_token.Put()));
        for (int i = 0; i < 5; ++i)
        {
            Set(kNames[i], i == 1);
        }
        m_log.Clear();
    }
    static LUID IdOf(Text name)
    {
        LUID id{};
        ::LookupPrivilegeValueW(nullptr, (L"Se" + std::wstring(name) + L"Privilege").c_str(), &id);
        return id;
    }
    void Set(Text name, bool enabled)
    {
        TOKEN_PRIVILEGES block{1, {{IdOf(name), enabled ? DWORD{SE_PRIVILEGE_ENABLED} : 0}}};
        EXPECT_TRUE(::AdjustTokenPrivileges(m_token.Get(), FALSE, &block, 0, nullptr, nullptr));
    }
    /// Which of kNames are enabled.
    std::string Enabled()
    {
        std::string states;
        for (Text const name : kNames)
        {
            PRIVILEGE_SET set{1, 0, {{IdOf(name), 0}}};
            BOOL enabled = FALSE;
            states += ::PrivilegeCheck(m_token.Get(), &set, &enabled) && enabled ? '1' : '0';
        }
        return states;
    }

    Basalt::CHandle m_token;
    CLogCapture m_log;
};

TEST_F(NvidiaDriverFixTest, TheFourAreEnabledForTheScopeAndEverythingIsPutBack)
{
    for (const bool apply : {false, true})
    {
        {
            const CNvidiaDriverFix fix(apply);
            EXPECT_EQ(Enabled(), apply ? "11110" : "01000");
            Set(L"Shutdown", apply); // Whoever changed another one in between is undone too.
        }
        EXPECT_EQ(Enabled(), "01000");
        EXPECT_EQ(m_log.Lines().size(), apply ? 5U : 0U);
    }
    EXPECT_EQ(m_log.Count(LogNormal, L"Setting 4 privileges"), 1U);
    EXPECT_EQ(m_log.CountContaining(LogNormal, L"Setting privilege: Se"), 4U);
}

std::pair<std::string, int> s_failing; ///< The import, and which of its next calls fails.

template <typename Result, typename... Arguments>
CImportPatch FailingAtCall(const char* import, Result (*real)(Arguments...))
{
    static const char* const s_import = import;
    static auto* const s_real = real;
    return {import, +[](Arguments... values) {
                ::SetLastError(ERROR_NO_SUCH_PRIVILEGE); // As the real one would.
                return s_failing.first != s_import || --s_failing.second != 0 ? s_real(values...) : Result{};
            }};
}

TEST_F(NvidiaDriverFixTest, AFailureAtAnyStepIsLoggedOnceAndTheOtherPrivilegesAreSet)
{
    const CImportPatch patches[] = {
        FailingAtCall("OpenProcessToken", &::OpenProcessToken),
        FailingAtCall("GetTokenInformation", &::GetTokenInformation),
        FailingAtCall("LookupPrivilegeValueW", &::LookupPrivilegeValueW),
        FailingAtCall("AdjustTokenPrivileges", &::AdjustTokenPrivileges),
        FailingAtCall("malloc", +[](std::size_t size) { return std::calloc(1, size); })};
    // The import and its failing call, the text; what is enabled in the scope and after it.
    const std::tuple<const char*, int, Text, const char*, const char*> rows[] = {
        {"OpenProcessToken", 1, L"OpenProcessToken failed (0x00000521)", "01000", "01000"},
        {"GetTokenInformation", 1, L"GetTokenInformation(1) failed (0x00000521)", "01000", "01000"},
        {"malloc", 1, L"Memory alloc failure (", "01000", "01000"},
        {"GetTokenInformation", 2, L"GetTokenInformation(2) failed (0x00000521)", "01000", "01000"},
        {"LookupPrivilegeValueW", 1, L"LookupPrivilegeValue failed (0x00000521)", "01110", "01000"},
        {"AdjustTokenPrivileges", 1, L"AdjustTokenPrivileges failed with error: 1313", "01110", "01000"},
        {"AdjustTokenPrivileges", 5, L"AdjustTokenPrivileges failed (0x00000521)", "11110", "11110"}};
    for (const auto& [import, failingCall, error, during, after] : rows)
    {
        SCOPED_TRACE(error);
        m_log.Clear();
        s_failing = {import, failingCall};
        {
            const CNvidiaDriverFix fix(true);
            EXPECT_EQ(Enabled(), during);
        }
        EXPECT_EQ(Enabled(), after);
        EXPECT_EQ(m_log.CountContaining(LogError, error), 1U);
        EXPECT_EQ(m_log.CountContaining(LogError, L""), 1U);
    }
    EXPECT_FALSE(CNvidiaDriverFix::SetPrivilegeByName(INVALID_HANDLE_VALUE, L"SeUndockPrivilege"));
    EXPECT_TRUE(m_log.Has(LogError, L"Invalid token value"));
    EXPECT_FALSE(CNvidiaDriverFix::SetPrivilegeByName(m_token.Get(), L""));
    EXPECT_TRUE(m_log.Has(LogError, L"No privileges set"));
    EXPECT_TRUE(CNvidiaDriverFix::SetPrivilegeByName(m_token.Get(), L"SeCreateTokenPrivilege")); // Not held.
}

} // namespace
