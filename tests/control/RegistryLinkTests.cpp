#include "control/RegistryLink.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/ImportPatch.h"
#include "support/TestKey.h"

namespace
{

constexpr wchar_t kParent[] = L"Software\\TxTest\\Links";
constexpr wchar_t kLink[] = L"Software\\TxTest\\Links\\Link";
constexpr wchar_t kTarget[] = L"Software\\TxTest\\Links\\Target";

class RegistryLinkTest : public ::testing::Test
{
protected:
    /// Deleting the tree would follow the link: the link key itself goes first.
    void TearDown() override
    {
        Basalt::CRegKey link;
        if (link.Open(HKEY_LOCAL_MACHINE, kLink, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK) == ERROR_SUCCESS)
        {
            static_cast<void>(DeleteKeyByHandle(link.Get()));
        }
    }

    static bool MakeLink(bool force = true) { return CreateRegistryLink(kLink, kTarget, force, true); }

    /// What a reader of the link's path finds is what was written to the target.
    static bool LeadsToTarget()
    {
        Basalt::CRegKey target;
        Basalt::CRegKey throughLink;
        DWORD value = 0;
        const DWORD mark = ::GetTickCount();
        return target.Open(HKEY_LOCAL_MACHINE, kTarget, KEY_ALL_ACCESS) == ERROR_SUCCESS &&
               target.WriteDword(L"mark", mark) == ERROR_SUCCESS &&
               throughLink.Open(HKEY_LOCAL_MACHINE, kLink, KEY_READ) == ERROR_SUCCESS &&
               throughLink.ReadDword(L"mark", value) == ERROR_SUCCESS && value == mark;
    }

    static std::wstring LinkData()
    {
        Basalt::CRegKey link;
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
        EXPECT_EQ(link.Open(HKEY_LOCAL_MACHINE, kLink, KEY_READ, REG_OPTION_OPEN_LINK), DWORD{0});
        EXPECT_EQ(link.ReadValue(L"SymbolicLinkValue", type, data), DWORD{0});
        EXPECT_EQ(type, DWORD{REG_LINK});
        return {reinterpret_cast<const wchar_t*>(data.data()), data.size() / sizeof(wchar_t)};
    }

    CTestKey m_parent{HKEY_LOCAL_MACHINE, kParent};
};

void PlainKey(const std::vector<std::wstring>& subKeys, int values)
{
    Basalt::CRegKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, kLink, KEY_ALL_ACCESS), DWORD{0});
    for (int i = 0; i < values; ++i)
    {
        ASSERT_EQ(key.WriteDword(std::to_wstring(i).c_str(), 1), DWORD{0});
    }
    for (const std::wstring& path : subKeys)
    {
        Basalt::CRegKey subKey;
        ASSERT_EQ(subKey.Create(key.Get(), path.c_str(), KEY_ALL_ACCESS), DWORD{0});
        ASSERT_EQ(subKey.WriteDword(L"value", 1), DWORD{0});
    }
}

TEST_F(RegistryLinkTest, ReplacesWhateverStandsAtTheLinkPath)
{
    const struct
    {
        const char* name;
        std::vector<std::wstring> subKeys;
        int values;
        bool exists = true;
    } rows[] = {
        {"absent", {}, 0, false},
        {"plain and empty", {}, 0},
        {"one value", {}, 1},
        {"several values", {}, 3},
        {"deep sub-keys", {L"a\\b\\c\\d\\e", L"a\\x", L"z"}, 2},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        if (row.exists)
        {
            PlainKey(row.subKeys, row.values);
        }

        EXPECT_FALSE(IsRegistryLink(kLink));
        EXPECT_TRUE(MakeLink());
        EXPECT_TRUE(IsRegistryLink(kLink));
        EXPECT_TRUE(LeadsToTarget());
        EXPECT_EQ(LinkData(), std::wstring(L"\\Registry\\MACHINE\\") + kTarget) << "no terminator";
        TearDown();
    }
}

TEST_F(RegistryLinkTest, ALinkToSomewhereElseIsALinkAndIsReplacedOnlyByForce)
{
    ASSERT_TRUE(CreateRegistryLink(kLink, L"Software\\TxTest\\Links\\Elsewhere", true, false));

    EXPECT_TRUE(IsRegistryLink(kLink)) << "also when it leads nowhere";
    EXPECT_FALSE(MakeLink(false));
    EXPECT_TRUE(MakeLink(true));
    EXPECT_TRUE(LeadsToTarget());
}

TEST_F(RegistryLinkTest, ChecksItsArgumentsAndMakesAnAbsentKeyPlain)
{
    Basalt::CRegKey key;

    EXPECT_FALSE(IsRegistryLink(nullptr));
    EXPECT_FALSE(IsRegistryLink(L""));
    EXPECT_FALSE(CreateRegistryLink(L"", kTarget, true, true));
    EXPECT_FALSE(CreateRegistryLink(kLink, nullptr, true, true));
    EXPECT_FALSE(IsRegistryLink(kLink));
    EXPECT_EQ(key.Open(HKEY_LOCAL_MACHINE, kLink, KEY_READ), DWORD{ERROR_SUCCESS});
}

TEST_F(RegistryLinkTest, ATargetThatDoesNotFitLeavesThePlaceholder)
{
    // 18 characters of the kernel's prefix and 494 of the target fill the 512.
    EXPECT_FALSE(CreateRegistryLink(kLink, std::wstring(495, L't').c_str(), true, false));
    EXPECT_EQ(LinkData(), L"\\");

    EXPECT_TRUE(CreateRegistryLink(kLink, std::wstring(494, L't').c_str(), true, false));
    EXPECT_EQ(LinkData().size(), 512U);
}

int g_removals = 0;

LSTATUS WINAPI PretendToEmpty(HKEY, const wchar_t*)
{
    ++g_removals;
    return ERROR_SUCCESS;
}
LSTATUS WINAPI RefuseToEmpty(HKEY, const wchar_t*)
{
    ++g_removals;
    return ERROR_ACCESS_DENIED;
}
HMODULE WINAPI NoModule(const wchar_t*)
{
    return nullptr;
}

TEST_F(RegistryLinkTest, GivesUpOnAKeyThatCannotBeRemoved)
{
    const struct
    {
        const char* name;
        LSTATUS(WINAPI* empty)(HKEY, const wchar_t*);
        int attempts;
    } rows[] = {{"refuses at once", &RefuseToEmpty, 1}, {"never gets empty", &PretendToEmpty, 6}};
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        PlainKey({L"sub"}, 2);
        g_removals = 0;
        const CImportPatch patch("SHDeleteKeyW", row.empty);
        ASSERT_TRUE(patch.IsActive());

        EXPECT_FALSE(MakeLink());
        EXPECT_EQ(g_removals, row.attempts);
        EXPECT_FALSE(IsRegistryLink(kLink));
    }
}

TEST_F(RegistryLinkTest, GivesUpWithoutTheKernelsDelete)
{
    PlainKey({}, 0);
    const CImportPatch patch("GetModuleHandleW", &NoModule);
    ASSERT_TRUE(patch.IsActive());

    EXPECT_FALSE(MakeLink());
}

} // namespace
