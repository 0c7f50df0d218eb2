#include "base/RegKey.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "base/ObfuscatedRegKey.h"
#include "support/ImportPatch.h"
#include "support/TestKey.h"

using namespace Basalt;

namespace
{

class RegKeyTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(m_scrambled.Open(m_key.Get(), L"", KEY_ALL_ACCESS), 0U); }

    void Store(const wchar_t* name, const std::string& bytes, DWORD type = REG_BINARY)
    {
        ASSERT_EQ(m_key.WriteValue(name, type, bytes.data(), static_cast<DWORD>(bytes.size())), 0U);
    }
    [[nodiscard]] std::string Stored(const wchar_t* name) const
    {
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
        EXPECT_TRUE(m_key.ReadValue(name, type, data) == 0 && type == REG_BINARY);
        return {data.begin(), data.end()};
    }

    CTestKey m_scope{HKEY_LOCAL_MACHINE, L"SOFTWARE\\TxTest\\RegKey"};
    CRegKey& m_key = m_scope.Key();
    CObfuscatedRegKey m_scrambled;
};

/// The bytes of a text.
std::string Wide(std::wstring_view text)
{
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

TEST_F(RegKeyTest, ReadsWhatIsStoredOrSaysWhyNot)
{
    constexpr DWORD kOther = ERROR_DATATYPE_MISMATCH;
    const std::wstring no = L"untouched";
    const std::wstring full(128, L'y'); // The first buffer.
    const std::wstring large(524288, L'x');
    const std::wstring variable(600, L'v');
    ::SetEnvironmentVariableW(L"TXV", variable.c_str());
    const struct
    {
        const char* name;
        DWORD type;
        std::string stored;
        DWORD asText;
        std::wstring text;
        DWORD asNumber = kOther;
        DWORD number = 99;
    } rows[] = {
        {"missing", REG_NONE, "", ERROR_FILE_NOT_FOUND, no, ERROR_FILE_NOT_FOUND},
        {"terminated", REG_SZ, Wide({L"ab", 3}), 0, L"ab"},
        {"not terminated", REG_SZ, Wide(L"ab"), 0, L"ab"},
        {"text behind the terminator", REG_SZ, Wide({L"a\0b", 4}), 0, L"a"},
        {"odd byte at the end", REG_SZ, Wide(L"a") + "b", 0, L"a"},
        {"nothing", REG_SZ, "", 0, L""},
        {"exactly the first buffer", REG_SZ, Wide(full), 0, full},
        {"1 MiB", REG_SZ, Wide(large), 0, large},
        {"variable", REG_EXPAND_SZ, Wide(L"%TXV%!"), 0, variable + L"!"},
        {"a number", REG_DWORD, {"\x07\0\0", 4}, kOther, no, 0, 7},
        {"short", REG_DWORD, "\x07\x07\x07", kOther, no, ERROR_INVALID_DATA},
        {"long", REG_DWORD, "\x07\x07\x07\x07\x07", kOther, no, ERROR_INVALID_DATA},
        {"wide", REG_QWORD, "8 bytes.", kOther, no},
        {"as long as a number", REG_BINARY, "four", kOther, no},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        row.type == REG_NONE ? void() : Store(L"value", row.stored, row.type);
        std::wstring text = no;
        DWORD number = 99;

        EXPECT_EQ(m_key.ReadString(L"value", text), row.asText);
        EXPECT_EQ(m_key.ReadDword(L"value", number), row.asNumber);
        EXPECT_TRUE(text == row.text) << text.size() << " characters";
        EXPECT_EQ(number, row.number);
    }
    DWORD number = 0;
    EXPECT_EQ(
        m_key.Open(HKEY_LOCAL_MACHINE, L"SOFTWARE\\TxTest\\Absent", KEY_READ), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(m_key.ReadDword(L"value", number), DWORD{ERROR_INVALID_HANDLE}) << "the former key is closed";
}

TEST_F(RegKeyTest, ReadsAValueThatGrowsBetweenTwoCalls)
{
    static int s_queries = 0;
    const CImportPatch patch(
        "RegQueryValueExW", +[](HKEY, const wchar_t*, DWORD*, DWORD* type, BYTE* data, DWORD* size) {
            *type = REG_SZ;
            *data = 'z';
            ++s_queries; // The second time the size given does not even say that it has grown.
            *size = s_queries == 1 ? *size + 2 : s_queries == 2 ? *size : 2;
            return static_cast<LSTATUS>(s_queries < 3 ? ERROR_MORE_DATA : ERROR_SUCCESS);
        });
    std::wstring value;

    EXPECT_EQ(m_key.ReadString(L"any", value), 0U);
    EXPECT_EQ(value, L"z");
    EXPECT_EQ(s_queries, 3);
}

TEST_F(RegKeyTest, ScrambledValuesAreReadBackUnderTheirNameAlone)
{
    const std::wstring written = L"C:\\Logs\\\x00E4\x4E2D, some folder";
    std::wstring text = L"untouched";
    DWORD number = 99;
    ASSERT_EQ(m_scrambled.WriteDword(L"Number", 0xFFFFFFFF), 0U);
    ASSERT_EQ(m_scrambled.WriteString(L"Folder", written), 0U);
    ASSERT_EQ(m_key.WriteDword(L"Plain", 1), 0U);
    Store(L"Copied", Stored(L"Number"));

    EXPECT_EQ(m_scrambled.ReadDword(L"Plain", number), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_scrambled.ReadDword(L"Folder", number), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_scrambled.ReadString(L"Number", text), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_scrambled.ReadDword(L"Copied", number), DWORD{ERROR_INVALID_DATA});
    EXPECT_EQ(m_scrambled.ReadDword(L"Missing", number), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_TRUE(number == 99 && text == L"untouched");

    EXPECT_EQ(m_scrambled.ReadDword(L"NUMBER", number), 0U);
    EXPECT_EQ(number, 0xFFFFFFFF);
    EXPECT_EQ(m_scrambled.ReadString(L"folder", text), 0U);
    EXPECT_EQ(text, written);
    const std::string stored = Stored(L"Folder");
    EXPECT_EQ(stored.find(std::string("L\0o\0g", 5)), std::string::npos);
    ASSERT_EQ(m_scrambled.WriteString(L"Folder", written), 0U);
    EXPECT_NE(Stored(L"Folder"), stored) << "the same text looks different each time";
}

TEST_F(RegKeyTest, ScrambledValuesOfEarlierVersionsAreReadAndDamagedOnesReported)
{
    const std::string good =
        "TXO1" + std::string("\170\126\064\022\310\116\063\035\034\156\002\242\377\260\340\220", 16);
    const std::string shortNumber =
        "TXO1" + std::string("\360\336\274\232\142\252\313\206\211\306\175\010\357\156\102", 15);
    DWORD number = 0;
    Store(L"Level", good);
    EXPECT_EQ(m_scrambled.ReadDword(L"Level", number), 0U);
    EXPECT_EQ(number, 3U);
    Store(L"Level", shortNumber);
    EXPECT_EQ(m_scrambled.ReadDword(L"Level", number), DWORD{ERROR_INVALID_DATA});
    for (std::size_t i = 0; i < good.size(); ++i)
    {
        std::string damaged = good;
        damaged[i] ^= 0x10;
        Store(L"Level", damaged);
        EXPECT_EQ(m_scrambled.ReadDword(L"Level", number), DWORD{ERROR_INVALID_DATA}) << i;
        Store(L"Level", good.substr(0, i));
        EXPECT_EQ(m_scrambled.ReadDword(L"Level", number), DWORD{ERROR_INVALID_DATA}) << i;
    }
    EXPECT_EQ(number, 3U);
}

} // namespace
