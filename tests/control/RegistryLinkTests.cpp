#include "control/RegistryLink.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/Text.h"
#include "support/ImportPatch.h"
#include "support/TestKey.h"

namespace
{

constexpr wchar_t kLink[] = L"Software\\TxTest\\Links\\Link";
constexpr wchar_t kTarget[] = L"Software\\TxTest\\Links\\Target";

struct RegistryLinkTest : ::testing::Test
{
    /// Deleting the tree would follow the link: the link key itself goes first.
    void TearDown() override
    {
        Basalt::CRegKey link;
        static_cast<void>(link.Open(HKEY_LOCAL_MACHINE, kLink, KEY_ALL_ACCESS, REG_OPTION_OPEN_LINK));
        static_cast<void>(DeleteKeyByHandle(link.Get()));
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kLink);
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTarget);
    }

    /// Makes an ordinary key where the link shall be.
    static void MakeKey(int values, const wchar_t* subKey)
    {
        Basalt::CRegKey key;
        Basalt::CRegKey below;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, kLink, KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(below.Create(key.Get(), subKey, KEY_ALL_ACCESS), 0U); // The key itself for no name.
        while (values-- != 0)
        {
            ASSERT_EQ(key.WriteDword(std::to_wstring(values).c_str(), 1), 0U);
        }
    }

    static std::wstring LinkData()
    {
        Basalt::CRegKey link;
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
        EXPECT_EQ(link.Open(HKEY_LOCAL_MACHINE, kLink, KEY_READ, REG_OPTION_OPEN_LINK), 0U);
        static_cast<void>(link.ReadValue(L"SymbolicLinkValue", type, data));
        return type != REG_LINK
                   ? L"no link"
                   : std::wstring(
                         reinterpret_cast<const wchar_t*>(data.data()), data.size() / sizeof(wchar_t));
    }

    CTestKey m_parent{HKEY_LOCAL_MACHINE, L"Software\\TxTest\\Links"};
};

TEST_F(RegistryLinkTest, ReplacesWhateverStandsAtTheLinkPathByForceAlone)
{
    const std::wstring prefix = L"\\Registry\\MACHINE\\";
    const std::wstring tooLong(495, L't');
    const std::wstring longest(494, L't');
    const struct
    {
        const char* name;
        int values; ///< -1: there is no key; -2: there is a link to somewhere else.
        const wchar_t* subKey = L"";
        bool force = true;
        bool isMade = true;
        const wchar_t* target = kTarget;
        std::wstring data = L"\\Registry\\MACHINE\\Software\\TxTest\\Links\\Target"; // No terminator.
    } rows[] = {
        {"absent", -1},
        {"empty", 0},
        {"one value", 1},
        {"several values", 2},
        {"deep sub-keys", 2, L"a\\b\\c\\d\\e"},
        {"one sub-key", 0, L"a"},
        {"a link to somewhere else", -2},
        {"without force", 0, L"", false, false, kTarget, L"no link"},
        {"a link, without force", -2, L"", false, false, kTarget, prefix + L"Nowhere"},
        {"as long as it may be", -1, L"", true, true, longest.c_str(), prefix + longest},
        {"too long", -1, L"", true, false, tooLong.c_str(), L"\\"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        row.values < 0 ? void() : MakeKey(row.values, row.subKey);
        ASSERT_TRUE(row.values != -2 || CreateRegistryLink(kLink, L"Nowhere", true, false));

        EXPECT_EQ(IsRegistryLink(kLink), row.values == -2);
        const bool ensure = row.target == kTarget;
        EXPECT_EQ(CreateRegistryLink(kLink, row.target, row.force, ensure), row.isMade);
        EXPECT_EQ(LinkData(), row.data);
        Basalt::CRegKey target;
        EXPECT_EQ(target.Open(HKEY_LOCAL_MACHINE, kTarget, KEY_READ) == 0, ensure);
        EXPECT_EQ(IsRegistryLink(kLink), row.data != L"no link");
        TearDown();
    }
}

TEST_F(RegistryLinkTest, OpensKeysForWhatItDoesWithThem)
{
    static std::wstring s_opened;
    const CImportPatch refuse(
        "RegCreateKeyExW",
        +[](HKEY,
            const wchar_t*,
            DWORD,
            wchar_t*,
            DWORD options,
            REGSAM access,
            SECURITY_ATTRIBUTES*,
            HKEY*,
            DWORD*) -> LSTATUS {
            Basalt::AppendFormat(s_opened, L"%lu %lX, ", options, access);
            return ERROR_ACCESS_DENIED;
        });
    EXPECT_FALSE(IsRegistryLink(kLink));
    EXPECT_FALSE(CreateRegistryLink(kLink, kTarget, true, true));
    EXPECT_FALSE(CreateRegistryLink(kLink, kTarget, true, false));
    EXPECT_EQ(s_opened, L"8 F003F, 0 2001F, 2 F003F, ");
}

TEST_F(RegistryLinkTest, GivesUpOnAKeyThatNeverGetsEmpty)
{
    static int s_passes = 0;
    MakeKey(0, L"sub");
    const CImportPatch pretend(
        "RegQueryInfoKeyW",
        +[](HKEY, wchar_t*, DWORD*, DWORD*, DWORD* subKeys, DWORD*, DWORD*, DWORD* values) {
            *subKeys = 1;
            return *values = 0, ++s_passes, LSTATUS{0};
        });
    EXPECT_FALSE(CreateRegistryLink(kLink, kTarget, true, false));
    EXPECT_EQ(s_passes, 6);
}

} // namespace
