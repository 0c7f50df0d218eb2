#include "base/RegKey.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/ImportPatch.h"
#include "support/TestKey.h"

namespace
{

class RegKeyTest : public ::testing::Test
{
protected:
    void Store(const wchar_t* name, DWORD type, const void* data, std::size_t size)
    {
        ASSERT_EQ(m_key.WriteValue(name, type, data, static_cast<DWORD>(size)), DWORD{ERROR_SUCCESS});
    }

    CTestKey m_scope{HKEY_LOCAL_MACHINE, L"SOFTWARE\\TxTest\\RegKey"};
    Basalt::CRegKey& m_key = m_scope.Key();
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
        {"text behind the terminator", REG_SZ, {L'a', 0, L'b', 0}, 8, L"a"},
        {"odd byte at the end", REG_SZ, {L'a', L'b'}, 3, L"a"},
        {"nothing", REG_SZ, {}, 0, L""},
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

        EXPECT_EQ(m_key.ReadString(L"text", value), DWORD{ERROR_SUCCESS});
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

    EXPECT_EQ(m_key.ReadString(L"missing", text), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(m_key.ReadString(L"number", text), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.ReadDword(L"missing", value), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(m_key.ReadDword(L"text", value), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.ReadDword(L"wide", value), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.ReadDword(L"short", value), DWORD{ERROR_INVALID_DATA});
    EXPECT_EQ(m_key.DeleteValue(L"missing"), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(text, L"untouched");
    EXPECT_EQ(value, 99U);

    Basalt::CRegKey absent;
    EXPECT_EQ(absent.Open(m_key.Get(), L"absent", KEY_READ), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_FALSE(absent);
    EXPECT_EQ(absent.ReadDword(L"number", value), DWORD{ERROR_INVALID_HANDLE});
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

    EXPECT_EQ(m_key.ReadString(L"any", value), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(value, L"z");
    EXPECT_EQ(g_queries, 3);
}

} // namespace
