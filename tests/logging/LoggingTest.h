#pragma once

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "base/ObfuscatedRegKey.h"
#include "logging/settings/LogSettingsReader.h"
#include "support/FakeTrace.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"
#include "support/TestKey.h"

using Text = const wchar_t*;

inline void WriteBytes(const std::wstring& path, const std::string& bytes)
{
    std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
}

/// A text file's content, which must begin with the mark; without the mark.
inline std::wstring ReadWide(const std::wstring& path)
{
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(file), {});
    const std::wstring text(reinterpret_cast<Text>(bytes.data()), bytes.size() / sizeof(wchar_t));
    EXPECT_TRUE(text.empty() || text[0] == L'\xFEFF');
    return text.empty() ? text : text.substr(1);
}

/// The program seems to be "host.exe" in a folder of the test's own, and has no settings.
struct LoggingTest : ::testing::Test
{
    LoggingTest()
    {
        s_program = m_folder.File(L"host.exe");
        EXPECT_EQ(m_settings.Open(HKEY_LOCAL_MACHINE, m_key.Path().c_str(), KEY_ALL_ACCESS), 0U);
    }

    static DWORD WINAPI ProgramAsGiven(HMODULE, wchar_t* path, DWORD size)
    {
        return static_cast<DWORD>(s_program.copy(path, size));
    }
    void WriteIni(const std::string& lines) const { WriteBytes(m_ini, "[Logging]\r\n" + lines + "\r\n"); }

    CTestFolder m_folder;
    static inline std::wstring s_program;
    const std::wstring m_ini = m_folder.File(L"log.ini");
    CTestKey m_key{HKEY_LOCAL_MACHINE, Contract::kLoggingKey};
    Basalt::CObfuscatedRegKey m_settings; ///< The same key, scrambled.
    CFakeTrace m_trace;

private:
    CImportPatch m_patch{"GetModuleFileNameW", &ProgramAsGiven};
};
