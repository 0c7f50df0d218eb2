#include "config/RegistryStore.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "logging/logger/LoggingIf.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

class RegistryStoreTest : public ::testing::Test
{
protected:
    void Store(const wchar_t* name, DWORD type, const void* data, std::size_t size)
    {
        ASSERT_EQ(m_key.Key().WriteValue(name, type, data, static_cast<DWORD>(size)), DWORD{ERROR_SUCCESS});
    }
    HKEY Key() { return m_key.Key().Get(); }

    CTestKey m_key{HKEY_LOCAL_MACHINE, L"SOFTWARE\\TxTest\\RegistryStore"};
    CLogCapture m_log;
};

TEST_F(RegistryStoreTest, RangedReadsFallBackWithoutHidingWhetherAValueWasThere)
{
    const DWORD five = 5;
    const ULONGLONG wide = 5;
    Store(L"five", REG_DWORD, &five, sizeof(five));
    Store(L"text", REG_SZ, L"5", 4);
    Store(L"wide", REG_QWORD, &wide, sizeof(wide));
    const struct
    {
        const wchar_t* name;
        DWORD minimum;
        DWORD maximum;
        DWORD expected;
        bool read;
        std::wstring line;
    } rows[] = {
        {L"five", 5, 9, 5, true, L""},
        {L"five", 1, 5, 5, true, L""},
        {L"five", 6, 9, 77, true, L""},
        {L"five", 1, 4, 77, true, L""},
        {L"missing", 0, 9, 77, false, L""},
        {L"text", 0, 9, 77, false, L"Error 0x00000000 on key 'text'"},
        {L"wide", 0, 9, 77, false, L"Error 0x000000EA on key 'wide'"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(testing::Message() << row.name << " in " << row.minimum << ".." << row.maximum);
        m_log.Clear();
        DWORD value = 0;

        EXPECT_EQ(
            CRegistryStore::QueryRegistryDWORDValue(Key(), row.name, value, row.minimum, row.maximum, 77),
            row.read);
        EXPECT_EQ(value, row.expected);
        EXPECT_EQ(m_log.Lines().size(), row.line.empty() ? 0U : 1U);
        EXPECT_TRUE(row.line.empty() || m_log.Has(LogError, row.line));
    }
}

TEST_F(RegistryStoreTest, StringReadsEndAt1022BytesAndAtTheFirstTerminator)
{
    const std::wstring longText(600, L'x');
    const struct
    {
        const char* name;
        std::wstring stored;
        std::size_t bytes;
        std::size_t expectedLength;
        bool ok;
    } rows[] = {
        {"510 and terminator", longText.substr(0, 510), 1022, 510, true},
        {"511 without terminator", longText, 1022, 511, true},
        {"511 and terminator", longText.substr(0, 511), 1024, 0, false},
        {"odd size", longText, 5, 2, true},
        {"empty", L"", 0, 0, true},
        {"text behind a terminator", std::wstring(L"ab\0cd", 5), 10, 2, true},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        m_log.Clear();
        Store(L"text", REG_SZ, row.stored.c_str(), row.bytes);
        std::wstring value;

        EXPECT_EQ(CRegistryStore::QueryRegistryStringValue(Key(), L"text", value), row.ok);
        EXPECT_EQ(value.size(), row.expectedLength);
        EXPECT_EQ(m_log.Has(LogError, L"Error 0x000000EA on key 'text'"), !row.ok);
    }
}

TEST_F(RegistryStoreTest, AnOpenReplacesAnotherKeyInTheSlotAndKeepsTheSameOne)
{
    Basalt::CRegKey slot;
    ASSERT_TRUE(CRegistryStore::OpenOrCreateRegistryKey(Key(), L"first", slot));
    const HKEY first = slot.Get();

    EXPECT_TRUE(CRegistryStore::OpenOrCreateRegistryKey(Key(), L"second", slot));
    DWORD subKeys = 0;
    DWORD values = 0;
    EXPECT_NE(slot.Get(), first);
    EXPECT_FALSE(CRegistryStore::QueryRegistryInfoKey(first, subKeys, values)) << "the old key is closed";

    Basalt::CRegKey predefined(HKEY_LOCAL_MACHINE);
    EXPECT_TRUE(CRegistryStore::OpenRegistryKey(HKEY_LOCAL_MACHINE, L"", predefined));
    EXPECT_TRUE(CRegistryStore::QueryRegistryInfoKey(predefined.Get(), subKeys, values));
}

TEST_F(RegistryStoreTest, AFailureIsLoggedOnceWithCodeAndNameUnlessSomethingIsMissing)
{
    static LSTATUS s_status;
    const CImportPatch open(
        "RegOpenKeyExW", +[](HKEY, const wchar_t*, DWORD, REGSAM, HKEY* key) {
            *key = nullptr;
            return s_status;
        });
    const CImportPatch write(
        "RegSetValueExW",
        +[](HKEY, const wchar_t*, DWORD, DWORD, const BYTE*, DWORD) -> LSTATUS { return ERROR_DISK_FULL; });
    ASSERT_TRUE(open.IsActive() && write.IsActive());
    Basalt::CRegKey slot;
    std::wstring text = L"untouched";

    for (const LSTATUS status : {ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_SUCCESS})
    {
        s_status = status;
        EXPECT_FALSE(CRegistryStore::OpenRegistryKey(Key(), L"sub\\key", slot));
    }
    EXPECT_FALSE(CRegistryStore::SetRegistryDWORDValue(Key(), L"value", 1));
    EXPECT_FALSE(CRegistryStore::QueryRegistryStringValue(Key(), L"missing", text));
    EXPECT_EQ(text, L"untouched");
    EXPECT_EQ(
        m_log.Messages(),
        (std::vector<std::wstring>{
            L"Error 0x00000005 on key 'sub\\key'",
            L"Error 0x00000000 on key 'sub\\key'",
            L"Error 0x00000070 on key 'value'"}));
    EXPECT_EQ(m_log.CountContaining(LogError, L""), 3U);
}

TEST_F(RegistryStoreTest, EnumerationListsNamesOfAnyTypeAndEndsAtANameThatDoesNotFit)
{
    const DWORD number = 1;
    const std::wstring tooLong(600, L'x');
    std::vector<std::wstring> names = {L"old"};
    EXPECT_FALSE(CRegistryStore::EnumerateRegistryValuesIntoContainer(nullptr, names, false));
    EXPECT_TRUE(names.empty());
    EXPECT_TRUE(m_log.Lines().empty());
    Store(L"TxOne", REG_DWORD, &number, sizeof(number));
    Store(L"TxLong", REG_SZ, tooLong.c_str(), tooLong.size() * 2);
    Store(L"TxTwo", REG_SZ, L"x", 4);

    EXPECT_TRUE(CRegistryStore::EnumerateRegistryValuesIntoContainer(Key(), names, true));
    EXPECT_EQ(names, (std::vector<std::wstring>{L"txone", L"txtwo"}));
    EXPECT_TRUE(m_log.Has(LogError, L"Error retrieving value for 'TxLong'"));

    Store(std::wstring(300, L'n').c_str(), REG_SZ, L"x", 4);
    EXPECT_FALSE(CRegistryStore::EnumerateRegistryValuesIntoContainer(Key(), names, false));
    EXPECT_TRUE(m_log.Has(LogError, L"Error 0x000000EA"));
}

} // namespace
