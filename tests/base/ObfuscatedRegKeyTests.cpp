#include "base/ObfuscatedRegKey.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/TestKey.h"

namespace
{

class ObfuscatedRegKeyTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(m_key.Open(m_plain.Key().Get(), L"", KEY_ALL_ACCESS), DWORD{ERROR_SUCCESS});
    }

    std::vector<BYTE> Stored(const wchar_t* name)
    {
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
        EXPECT_EQ(m_plain.Key().ReadValue(name, type, data), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(type, DWORD{REG_BINARY});
        return data;
    }
    void Store(const wchar_t* name, const std::vector<BYTE>& data)
    {
        ASSERT_EQ(
            m_plain.Key().WriteValue(name, REG_BINARY, data.data(), static_cast<DWORD>(data.size())),
            DWORD{ERROR_SUCCESS});
    }

    CTestKey m_plain{HKEY_LOCAL_MACHINE, L"SOFTWARE\\TxTest\\ObfuscatedRegKey"};
    Basalt::CObfuscatedRegKey m_key;
};

TEST_F(ObfuscatedRegKeyTest, ReadsBackWhatItWroteAndStoresNoneOfItInClear)
{
    const std::wstring text = L"C:\\Logs\\\x00E4\x4E2D, some folder";
    ASSERT_EQ(m_key.WriteString(L"Folder", text), DWORD{ERROR_SUCCESS});
    ASSERT_EQ(m_key.WriteDword(L"Number", 0xFFFFFFFF), DWORD{ERROR_SUCCESS});
    std::wstring readText;
    DWORD readNumber = 0;

    EXPECT_EQ(m_key.ReadString(L"FOLDER", readText), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(m_key.ReadDword(L"Number", readNumber), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(readText, text);
    EXPECT_EQ(readNumber, 0xFFFFFFFF);
    const std::vector<BYTE> stored = Stored(L"Folder");
    const std::string bytes(stored.begin(), stored.end());
    EXPECT_EQ(bytes.find(std::string("L\0o\0g", 5)), std::string::npos);
}

TEST_F(ObfuscatedRegKeyTest, ReportsEveryDamagedByteAndEveryTruncation)
{
    ASSERT_EQ(m_key.WriteDword(L"Number", 3), DWORD{ERROR_SUCCESS});
    const std::vector<BYTE> good = Stored(L"Number");
    DWORD value = 99;
    for (std::size_t i = 0; i < good.size(); ++i)
    {
        std::vector<BYTE> damaged = good;
        damaged[i] ^= 0x10;
        Store(L"Number", damaged);
        EXPECT_EQ(m_key.ReadDword(L"Number", value), DWORD{ERROR_INVALID_DATA}) << i;

        Store(L"Number", {good.begin(), good.begin() + static_cast<std::ptrdiff_t>(i)});
        EXPECT_EQ(m_key.ReadDword(L"Number", value), DWORD{ERROR_INVALID_DATA}) << i;
    }
    EXPECT_EQ(value, 99U);
}

TEST_F(ObfuscatedRegKeyTest, RefusesPlainValuesOtherTypesAndValuesOfAnotherName)
{
    ASSERT_EQ(m_plain.Key().WriteDword(L"Plain", 1), DWORD{ERROR_SUCCESS});
    ASSERT_EQ(m_key.WriteString(L"Text", L"ab"), DWORD{ERROR_SUCCESS});
    ASSERT_EQ(m_key.WriteDword(L"Number", 1), DWORD{ERROR_SUCCESS});
    Store(L"Copied", Stored(L"Number"));
    DWORD value = 99;
    std::wstring text = L"untouched";

    EXPECT_EQ(m_key.ReadDword(L"Plain", value), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.ReadDword(L"Text", value), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.ReadString(L"Number", text), DWORD{ERROR_DATATYPE_MISMATCH});
    EXPECT_EQ(m_key.ReadDword(L"Copied", value), DWORD{ERROR_INVALID_DATA});
    EXPECT_EQ(m_key.ReadDword(L"Missing", value), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(value, 99U);
    EXPECT_EQ(text, L"untouched");
}

} // namespace
