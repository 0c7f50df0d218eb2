#include "base/RegKey.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "support/ImportPatch.h"
#include "support/TestKey.h"

namespace
{

constexpr wchar_t kPath[] = L"SOFTWARE\\TxTest\\RegKey";
constexpr wchar_t kMissing[] = L"missing";

class RegKeyTest : public ::testing::Test
{
protected:
    void Store(const wchar_t* name, DWORD type, const void* data, std::size_t size)
    {
        ASSERT_EQ(m_key.Key().WriteValue(name, type, data, static_cast<DWORD>(size)), DWORD{ERROR_SUCCESS});
    }

    CTestKey m_key{HKEY_LOCAL_MACHINE, kPath};
};

TEST_F(RegKeyTest, ReadsStringsWhateverTheirTerminatorAndSize)
{
    const std::wstring long1MiB(512 * 1024, L'x');
    const struct
    {
        const char* name;
        DWORD type;
        std::vector<wchar_t> stored;
        std::size_t bytes;
        std::wstring expected;
    } rows[] = {
        {"terminated", REG_SZ, {L'a', L'b', 0}, 6, L"ab"},
        {"not terminated", REG_SZ, {L'a', L'b'}, 4, L"ab"},
        {"two terminators", REG_SZ, {L'a', 0, 0}, 6, L"a"},
        {"text behind the terminator", REG_SZ, {L'a', 0, L'b', 0}, 8, L"a"},
        {"odd byte at the end", REG_SZ, {L'a', L'b'}, 3, L"a"},
        {"nothing", REG_SZ, {}, 0, L""},
        {"a terminator alone", REG_SZ, {0}, 2, L""},
        {"exactly the first buffer", REG_SZ, std::vector<wchar_t>(128, L'y'), 256, std::wstring(128, L'y')},
        {"1 MiB", REG_SZ, {long1MiB.begin(), long1MiB.end()}, long1MiB.size() * 2, long1MiB},
        {"variable", REG_EXPAND_SZ, {L'%', L'T', L'X', L'V', L'%', L'!', 0}, 14, L"value!"},
    };
    ::SetEnvironmentVariableW(L"TXV", L"value");
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        Store(L"text", row.type, row.stored.data(), row.bytes);
        std::wstring value = L"untouched";

        EXPECT_EQ(m_key.Key().ReadString(L"text", value), DWORD{ERROR_SUCCESS});
        EXPECT_TRUE(value == row.expected) << value.size() << " characters";
    }
}

TEST_F(RegKeyTest, ReportsEachFailureAndLeavesTheOutParameterUntouched)
{
    const DWORD number = 7;
    const ULONGLONG wide = 7;
    Store(L"number", REG_DWORD, &number, sizeof(number));
    Store(L"wide", REG_QWORD, &wide, sizeof(wide));
    Store(L"short", REG_DWORD, &number, 3);
    Store(L"text", REG_SZ, L"7", 4);
    std::wstring text = L"untouched";
    DWORD value = 99;

    EXPECT_EQ(m_key.Key().ReadString(kMissing, text), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(m_key.Key().ReadString(L"number", text), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.Key().ReadDword(kMissing, value), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(m_key.Key().ReadDword(L"text", value), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.Key().ReadDword(L"wide", value), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.Key().ReadDword(L"short", value), DWORD{ERROR_INVALID_DATA});
    EXPECT_EQ(m_key.Key().DeleteValue(kMissing), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(text, L"untouched");
    EXPECT_EQ(value, 99U);

    Basalt::CRegKey absent;
    EXPECT_EQ(
        absent.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TxTest\\Absent", KEY_READ), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_FALSE(absent);
    EXPECT_EQ(absent.ReadDword(L"number", value), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(RegKeyTest, WritesAndReadsTheDefaultValueByAnEmptyName)
{
    std::wstring value;

    ASSERT_EQ(m_key.Key().WriteString(L"", L"default"), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(m_key.Key().ReadString(nullptr, value), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(value, L"default");
}

int g_queries = 0;

/// A value that another process keeps making longer: twice too long, then it fits.
LSTATUS WINAPI GrowingQuery(HKEY, const wchar_t*, DWORD*, DWORD* type, BYTE* data, DWORD* size)
{
    ++g_queries;
    if (g_queries <= 2)
    {
        *size += 2;
        return ERROR_MORE_DATA;
    }
    *type = REG_SZ;
    data[0] = 'z';
    data[1] = 0;
    *size = 2;
    return ERROR_SUCCESS;
}

TEST_F(RegKeyTest, ReadsAValueThatGrowsBetweenTwoCalls)
{
    g_queries = 0;
    const CImportPatch patch("RegQueryValueExW", &GrowingQuery);
    ASSERT_TRUE(patch.IsActive());
    std::wstring value;

    EXPECT_EQ(m_key.Key().ReadString(L"any", value), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(value, L"z");
    EXPECT_EQ(g_queries, 3);
}

TEST_F(RegKeyTest, CountsSubKeysAndValuesAndMovesItsHandle)
{
    Basalt::CRegKey child;
    ASSERT_EQ(child.Create(m_key.Key().Get(), L"child", KEY_READ), DWORD{ERROR_SUCCESS});
    ASSERT_EQ(m_key.Key().WriteDword(L"one", 1), DWORD{ERROR_SUCCESS});
    DWORD subKeys = 0;
    DWORD values = 0;

    Basalt::CRegKey moved = std::move(m_key.Key());

    EXPECT_FALSE(m_key.Key()); // NOLINT(bugprone-use-after-move): that it is empty is the point.
    EXPECT_EQ(moved.GetInfo(subKeys, values), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(subKeys, 1U);
    EXPECT_EQ(values, 1U);
}

} // namespace
