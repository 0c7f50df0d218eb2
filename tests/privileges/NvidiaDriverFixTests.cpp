#include "privileges/NvidiaDriverFix.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/Owned.h"
#include "base/SystemLibrary.h"
#include "logging/logger/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/Narrow.h"

using namespace ETWLogging;

namespace
{

constexpr const wchar_t* kFour[] = {
    L"SeIncreaseBasePriorityPrivilege",
    L"SeIncreaseQuotaPrivilege",
    L"SeProfileSingleProcessPrivilege",
    L"SeUndockPrivilege",
};
constexpr wchar_t kBystander[] = L"SeShutdownPrivilege";

/// Enabled or not, for each privilege that the token holds.
using States = std::map<std::wstring, bool>;

Basalt::CHandle OpenToken()
{
    Basalt::CHandle token;
    EXPECT_TRUE(CNvidiaDriverFix::OpenCurrentProcessToken(*token.Put()));
    return token;
}

States ReadStates()
{
    const Basalt::CHandle token = OpenToken();
    DWORD size = 0;
    ::GetTokenInformation(token.Get(), TokenPrivileges, nullptr, 0, &size);
    std::vector<BYTE> block(size);
    EXPECT_NE(::GetTokenInformation(token.Get(), TokenPrivileges, block.data(), size, &size), FALSE);
    const auto* privileges = reinterpret_cast<const TOKEN_PRIVILEGES*>(block.data());
    States states;
    for (DWORD i = 0; i < privileges->PrivilegeCount; ++i)
    {
        LUID_AND_ATTRIBUTES entry = privileges->Privileges[i];
        wchar_t name[64] = {};
        DWORD length = 64;
        EXPECT_NE(::LookupPrivilegeNameW(nullptr, &entry.Luid, name, &length), FALSE);
        states[name] = (entry.Attributes & SE_PRIVILEGE_ENABLED) != 0;
    }
    return states;
}

void SetState(const wchar_t* name, bool enabled)
{
    const Basalt::CHandle token = OpenToken();
    TOKEN_PRIVILEGES block{};
    block.PrivilegeCount = 1;
    block.Privileges[0].Attributes = enabled ? SE_PRIVILEGE_ENABLED : 0;
    ASSERT_NE(::LookupPrivilegeValueW(nullptr, name, &block.Privileges[0].Luid), FALSE);
    ASSERT_NE(::AdjustTokenPrivileges(token.Get(), FALSE, &block, 0, nullptr, nullptr), FALSE);
}

class NvidiaDriverFixTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const wchar_t* name : kFour)
        {
            SetState(name, false);
        }
        SetState(kFour[1], true); // One that was on already has to stay on.
        SetState(kBystander, false);
        m_before = ReadStates();
        m_whileEnabled = m_before;
        for (const wchar_t* name : kFour)
        {
            if (m_whileEnabled.contains(name))
            {
                m_whileEnabled[name] = true;
            }
        }
        ASSERT_NE(m_before, m_whileEnabled);
        m_log.Clear();
    }

    States m_before;
    States m_whileEnabled;
    CLogCapture m_log;
};

TEST_F(NvidiaDriverFixTest, TheFourAreEnabledForTheScopeAndEverythingIsPutBack)
{
    {
        const CNvidiaDriverFix fix(true);
        EXPECT_EQ(ReadStates(), m_whileEnabled);
        SetState(kBystander, true); // Whoever changed another one in between is undone too.
    }
    EXPECT_EQ(ReadStates(), m_before);

    const std::vector<std::wstring> messages = m_log.Messages();
    ASSERT_EQ(messages.size(), 5U);
    EXPECT_EQ(messages[0], L"Setting 4 privileges");
    for (std::size_t i = 0; i < 4; ++i)
    {
        EXPECT_EQ(messages[i + 1], std::wstring(L"Setting privilege: ") + kFour[i]);
    }
    EXPECT_EQ(m_log.Lines()[1].source, L"NvidiaDriverFix");
    EXPECT_EQ(m_log.Lines()[1].function, L"CNvidiaDriverFix::SetPrivilegeByName");
}

TEST_F(NvidiaDriverFixTest, AnExceptionOutOfTheScopePutsThemBackToo)
{
    try
    {
        const CNvidiaDriverFix fix(true);
        EXPECT_EQ(ReadStates(), m_whileEnabled);
        throw 5;
    }
    catch (int)
    {
    }
    EXPECT_EQ(ReadStates(), m_before);
}

TEST_F(NvidiaDriverFixTest, WithoutApplyNothingChanges)
{
    {
        const CNvidiaDriverFix fix(false);
        EXPECT_EQ(ReadStates(), m_before);
    }
    EXPECT_EQ(ReadStates(), m_before);
    EXPECT_TRUE(m_log.Lines().empty());
}

// Fakes: each fails as the real call would. Cleared by the test.
int g_calls;
int g_failingCall; ///< Which call in a row fails, from 1.
decltype(&::GetTokenInformation) g_getTokenInformation;
decltype(&::LookupPrivilegeValueW) g_lookup;
decltype(&::AdjustTokenPrivileges) g_adjust;
void* (*g_malloc)(std::size_t);

bool Fails()
{
    ::SetLastError(ERROR_NO_SUCH_PRIVILEGE);
    return ++g_calls == g_failingCall;
}

BOOL WINAPI FakeOpen(HANDLE, DWORD access, HANDLE*)
{
    EXPECT_EQ(access, 0x28U);
    ::SetLastError(ERROR_NO_SUCH_PRIVILEGE);
    return FALSE;
}
BOOL WINAPI FakeGet(HANDLE token, TOKEN_INFORMATION_CLASS what, void* data, DWORD size, DWORD* needed)
{
    return Fails() ? FALSE : g_getTokenInformation(token, what, data, size, needed);
}
BOOL WINAPI FakeGetAll(HANDLE, TOKEN_INFORMATION_CLASS, void*, DWORD, DWORD*)
{
    return TRUE;
}
BOOL WINAPI FakeLookup(const wchar_t* system, const wchar_t* name, LUID* luid)
{
    return Fails() ? FALSE : g_lookup(system, name, luid);
}
BOOL WINAPI
FakeAdjust(HANDLE token, BOOL all, TOKEN_PRIVILEGES* block, DWORD size, TOKEN_PRIVILEGES* old, DWORD* need)
{
    return Fails() ? FALSE : g_adjust(token, all, block, size, old, need);
}
void* FakeMalloc(std::size_t size)
{
    return Fails() ? nullptr : g_malloc(size);
}

TEST_F(NvidiaDriverFixTest, AFailureAtAnyStepIsLoggedOnceAndTheOtherPrivilegesAreSet)
{
    // Not by their names: an optimiser would look those up in the patched table again.
    const HMODULE advapi = ::GetModuleHandleW(L"advapi32.dll");
    g_getTokenInformation =
        Basalt::FindExport<decltype(::GetTokenInformation)>(advapi, "GetTokenInformation");
    g_lookup = Basalt::FindExport<decltype(::LookupPrivilegeValueW)>(advapi, "LookupPrivilegeValueW");
    g_adjust = Basalt::FindExport<decltype(::AdjustTokenPrivileges)>(advapi, "AdjustTokenPrivileges");
    // Its address here would be the patched thunk's.
    g_malloc = Basalt::FindExport<void*(std::size_t)>(::GetModuleHandleW(L"msvcrt.dll"), "malloc");
    const auto pointer = [](auto* function) { return reinterpret_cast<void*>(function); };
    const struct
    {
        const char* import;
        void* fake;
        int failingCall;
        const wchar_t* error;
        bool areOthersEnabled;
        bool isRestored;
    } rows[] = {
        {"OpenProcessToken", pointer(&FakeOpen), 0, L"OpenProcessToken failed (0x00000521)", false, true},
        {"GetTokenInformation",
         pointer(&FakeGetAll),
         0,
         L"OpenProcessToken error - should have failed",
         false,
         true},
        {"GetTokenInformation",
         pointer(&FakeGet),
         1,
         L"GetTokenInformation(1) failed (0x00000521)",
         false,
         true},
        {"malloc", pointer(&FakeMalloc), 1, L"Memory alloc failure (", false, true},
        {"GetTokenInformation",
         pointer(&FakeGet),
         2,
         L"GetTokenInformation(2) failed (0x00000521)",
         false,
         true},
        {"LookupPrivilegeValueW",
         pointer(&FakeLookup),
         1,
         L"LookupPrivilegeValue failed (0x00000521)",
         true,
         true},
        {"AdjustTokenPrivileges",
         pointer(&FakeAdjust),
         1,
         L"SetPrivilegeByName: AdjustTokenPrivileges failed with error: 1313",
         true,
         true},
        {"AdjustTokenPrivileges",
         pointer(&FakeAdjust),
         5,
         L"AdjustTokenPrivileges failed (0x00000521)",
         true,
         false},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.error));
        SetUp();
        States expected = row.areOthersEnabled ? m_whileEnabled : m_before;
        if (row.failingCall == 1)
        {
            expected[kFour[0]] = false;
        }
        g_calls = 0;
        g_failingCall = row.failingCall;

        std::optional<CNvidiaDriverFix> fix;
        std::optional<CImportPatch> patch(std::in_place, row.import, row.fake);
        ASSERT_TRUE(patch->IsActive());
        fix.emplace(true);
        patch.reset();
        const States during = ReadStates();
        patch.emplace(row.import, row.fake);
        fix.reset();
        patch.reset();

        EXPECT_EQ(during, expected);
        EXPECT_EQ(ReadStates(), row.isRestored ? m_before : during);
        EXPECT_EQ(m_log.CountContaining(LogError, row.error), 1U);
        EXPECT_EQ(m_log.CountContaining(LogError, L""), 1U);
    }
}

TEST_F(NvidiaDriverFixTest, SinglePrivilegesSayWhatIsWrongWithThem)
{
    const Basalt::CHandle token = OpenToken();
    const struct
    {
        HANDLE token;
        const wchar_t* name;
        const wchar_t* error;
    } rows[] = {
        {nullptr, kFour[0], L"Invalid token value"},
        {INVALID_HANDLE_VALUE, kFour[0], L"Invalid token value"},
        {token.Get(), L"", L"No privileges set"},
        {token.Get(), L"SeNoSuchPrivilege", L"LookupPrivilegeValue failed (0x00000521)"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.error));
        m_log.Clear();
        EXPECT_FALSE(CNvidiaDriverFix::SetPrivilegeByName(row.token, row.name));
        EXPECT_TRUE(m_log.Has(LogError, row.error));
    }
    EXPECT_EQ(ReadStates(), m_before);
    // One that the token does not hold is a success.
    EXPECT_FALSE(m_before.contains(L"SeMachineAccountPrivilege"));
    EXPECT_TRUE(CNvidiaDriverFix::SetPrivilegeByName(token.Get(), L"SeMachineAccountPrivilege"));
}

} // namespace
