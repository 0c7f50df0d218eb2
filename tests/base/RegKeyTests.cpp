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

constexpr DWORD kOther = ERROR_DATATYPE_MISMATCH;
constexpr DWORD kDamaged = ERROR_INVALID_DATA;
const std::wstring kNo = L"untouched";

struct RegKeyTest : ::testing::Test
{
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
};

/// The bytes of a text.
std::string Wide(std::wstring_view text)
{
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

TEST_F(RegKeyTest, ReadsWhatIsStoredOrSaysWhyNot)
{
    const std::wstring full(128, L'y'); // The first buffer.
    const std::wstring large(524288, L'x');
    const std::wstring variable(600, L'v');
    ::SetEnvironmentVariableW(L"TXV", variable.c_str());
    const struct
    {
        DWORD type;
        std::string stored;
        DWORD asText;
        std::wstring text;
        DWORD asNumber = kOther;
        DWORD number = 99;
    } rows[] = {
        {REG_NONE, "", ERROR_FILE_NOT_FOUND, kNo, ERROR_FILE_NOT_FOUND},
        {REG_SZ, Wide({L"ab", 3}), 0, L"ab"},
        {REG_SZ, Wide(L"ab"), 0, L"ab"},
        {REG_SZ, Wide({L"a\0b", 4}), 0, L"a"},
        {REG_SZ, Wide(L"a") + "b", 0, L"a"},
        {REG_SZ, "", 0, L""},
        {REG_SZ, Wide(full), 0, full},
        {REG_SZ, Wide(large), 0, large},
        {REG_EXPAND_SZ, Wide(L"%TXV%!"), 0, variable + L"!"},
        {REG_DWORD, {"\x07\0\0", 4}, kOther, kNo, 0, 7},
        {REG_DWORD, "\x07\x07\x07", kOther, kNo, kDamaged},
        {REG_BINARY, "four", kOther, kNo},
    };
    DWORD number = 0;
    for (const auto& row : rows)
    {
        SCOPED_TRACE(&row - rows);
        row.type == REG_NONE ? void() : Store(L"value", row.stored, row.type);
        std::wstring text = kNo;
        number = 99;
        EXPECT_EQ(m_key.ReadString(L"value", text), row.asText);
        EXPECT_EQ(m_key.ReadDword(L"value", number), row.asNumber);
        EXPECT_TRUE(text == row.text && number == row.number) << text.size() << " characters, " << number;
    }
    {
        const CImportPatch noMemory(
            "ExpandEnvironmentStringsW", +[](const wchar_t*, wchar_t*, DWORD) {
                ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return DWORD{0};
            });
        std::wstring text = kNo;
        Store(L"value", Wide(L"%TXV%"), REG_EXPAND_SZ);
        EXPECT_EQ(m_key.ReadString(L"value", text), DWORD{ERROR_NOT_ENOUGH_MEMORY});
        EXPECT_EQ(text, kNo);
    }
    EXPECT_EQ(m_key.Open(m_key.Get(), L"none", KEY_READ), DWORD{ERROR_INVALID_HANDLE}) << "closed before";
    EXPECT_EQ(m_key.ReadDword(L"value", number), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(RegKeyTest, ReadsAValueThatGrowsBetweenTwoCalls)
{
    static int s_calls = 0;
    const CImportPatch patch(
        "RegQueryValueExW", +[](HKEY, const wchar_t*, DWORD*, DWORD* type, BYTE* data, DWORD* size) {
            ++s_calls; // The second time the size given does not even say that it has grown.
            *size = s_calls == 1 ? *size + 2 : s_calls == 2 ? *size : 2;
            *type = REG_SZ;
            *data = 'z';
            return static_cast<LSTATUS>(s_calls < 3 ? ERROR_MORE_DATA : ERROR_SUCCESS);
        });
    std::wstring value;
    EXPECT_EQ(m_key.ReadString(L"any", value), 0U);
    EXPECT_EQ(value + std::to_wstring(s_calls), L"z3");
}

TEST_F(RegKeyTest, ScrambledValuesAreReadBackUnderTheirNameAloneAndDamagedOnesReported)
{
    const std::wstring written = L"C:\\Logs\\\x00E4\x4E2D, some folder";
    // As earlier versions wrote them: the number 3, and three bytes of it.
    const std::string good =
        "TXO1" + std::string("\170\126\064\022\310\116\063\035\034\156\002\242\377\260\340\220", 16);
    const std::string tooShort =
        "TXO1" + std::string("\360\336\274\232\142\252\313\206\211\306\175\010\357\156\102", 15);
    CObfuscatedRegKey key;
    std::wstring text = kNo;
    DWORD number = 99;
    ASSERT_EQ(key.Open(HKEY_LOCAL_MACHINE, m_scope.Path().c_str(), KEY_ALL_ACCESS), 0U);
    ASSERT_EQ(key.WriteDword(L"Number", 0xFFFFFFFF), 0U);
    ASSERT_EQ(key.WriteString(L"Folder", written), 0U);
    Store(L"Plain", "four", REG_DWORD);
    Store(L"Copied", Stored(L"Number"));
    Store(L"Level", tooShort);

    EXPECT_EQ(key.ReadDword(L"Plain", number), kOther);
    EXPECT_EQ(key.ReadDword(L"Folder", number), kOther);
    EXPECT_EQ(key.ReadString(L"Number", text), kOther);
    EXPECT_EQ(key.ReadDword(L"Copied", number), kDamaged);
    EXPECT_EQ(key.ReadDword(L"Level", number), kDamaged);
    for (std::size_t i = 0; i < good.size(); ++i)
    {
        std::string damaged = good;
        damaged[i] ^= 0x10;
        Store(L"Level", damaged);
        EXPECT_EQ(key.ReadDword(L"Level", number), kDamaged) << i;
        Store(L"Level", good.substr(0, i));
        EXPECT_EQ(key.ReadDword(L"Level", number), kDamaged) << i;
    }
    EXPECT_TRUE(number == 99 && text == kNo);
    Store(L"Level", good);
    EXPECT_TRUE(key.ReadDword(L"Level", number) == 0 && number == 3);
    EXPECT_TRUE(key.ReadDword(L"NUMBER", number) == 0 && number == 0xFFFFFFFF);
    EXPECT_TRUE(key.ReadString(L"folder", text) == 0 && text == written);

    const std::string stored = Stored(L"Folder");
    EXPECT_EQ(stored.find(std::string("L\0o\0g", 5)), std::string::npos);
    ASSERT_EQ(key.WriteString(L"Folder", written), 0U);
    EXPECT_NE(Stored(L"Folder"), stored) << "the same text looks different each time";
}

} // namespace
