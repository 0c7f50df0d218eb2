#include "base/TrustedModule.h"

#include <windows.h>
#include <psapi.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <cwchar>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

#include "base/ModuleFinder.h"
#include "base/Owned.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"

using namespace Basalt;
using std::filesystem::copy_file;

namespace
{

constexpr wchar_t kModule[] = L"UpdateManager.dll";
constexpr DWORD kNotSigned = 0x800B0100;
constexpr DWORD kForeignSigner = 0x800B010F;

struct TrustedFileTest : ::testing::Test
{
    void SetUp() override { copy_file(m_signed, m_path); }

    std::wstring m_signed = SignedDouble(L"tarvex", kModule);
    CTestFolder m_folder;
    std::wstring m_path = m_folder.File(kModule); ///< A trusted file that a test may damage.
};

TEST_F(TrustedFileTest, OnlyTheTwoSignersExactNamesOnAnUnchangedFileAreTrusted)
{
    const struct
    {
        std::wstring path;
        DWORD verdict;
    } rows[] = {
        {m_signed, ERROR_SUCCESS},
        {SignedDouble(L"quintor", kModule), ERROR_SUCCESS},
        {SignedDouble(L"unsigned", kModule), kNotSigned},
        {SignedDouble(L"changed", kModule), 0x80096010},
        {SignedDouble(L"foreign", kModule), kForeignSigner},
        {SignedDouble(L"contains", kModule), kForeignSigner},
        {SignedDouble(L"lowercase", kModule), kForeignSigner},
        {SignedDouble(L"organisation", kModule), kForeignSigner},
        {SignedDouble(L"nocommonname", kModule), kForeignSigner},
        {SignedDouble(L"issuer", kModule), kForeignSigner},
        {m_folder.Path(), ERROR_ACCESS_DENIED},
        {kModule, ERROR_BAD_PATHNAME},
        {L"\\TxSvcHost\\LogCntrl.dll", ERROR_BAD_PATHNAME},
        {L"C:LogCntrl.dll", ERROR_BAD_PATHNAME},
        {L"\\\\?\\" + m_signed, ERROR_SUCCESS},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.path));
        EXPECT_EQ(CheckTrustedModule(row.path), row.verdict);
    }
    for (auto size = std::filesystem::file_size(m_path) - 1; size != 0; size /= 2)
    {
        std::filesystem::resize_file(m_path, size);
        EXPECT_NE(CheckTrustedModule(m_path), 0U) << size;
    }
}

TEST_F(TrustedFileTest, TheFileStaysAsItWasUntilItIsLetGo)
{
    const auto write = [this] {
        return CFile(::CreateFileW(m_path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    };
    CTrustedFile file;
    ASSERT_EQ(file.Open(m_path), 0U);

    EXPECT_EQ(::MoveFileExW(m_path.c_str(), m_folder.File(L"moved.dll").c_str(), 0), FALSE);
    EXPECT_EQ(::CopyFileW(m_signed.c_str(), m_path.c_str(), FALSE), FALSE);
    EXPECT_EQ(::DeleteFileW(m_path.c_str()), FALSE);
    EXPECT_FALSE(write());
    EXPECT_TRUE(CModule(::LoadLibraryW(m_path.c_str())));

    EXPECT_EQ(file.Open(m_folder.Path()), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_FALSE(file);
    const CFile writer = write();
    EXPECT_TRUE(writer);
    EXPECT_EQ(file.Open(m_path), DWORD{ERROR_SHARING_VIOLATION}) << "somebody may still write to it";
}

TEST_F(TrustedFileTest, NothingIsTrustedWithoutTheSystemsCheck)
{
    static DWORD s_error = ERROR_MOD_NOT_FOUND;
    const CImportPatch patch(
        "LoadLibraryExW", +[](const wchar_t*, HANDLE, DWORD flags) -> HMODULE {
            ::SetLastError(flags == LOAD_LIBRARY_SEARCH_SYSTEM32 ? s_error : ERROR_ACCESS_DENIED);
            return nullptr;
        });
    EXPECT_EQ(CheckTrustedModule(m_path), s_error);
    s_error = 0;
    EXPECT_EQ(CheckTrustedModule(m_path), DWORD{ERROR_PROC_NOT_FOUND});
}

using GetExport = void* WINAPI(HMODULE, const char*);
using Verify = decltype(::WinVerifyTrust);
GetExport* const g_getExport = RealFunction<GetExport>("GetProcAddress");
Verify* g_verify;
std::wstring_view g_name;
std::wstring g_states;

/// What may be asked of the system at boot, when nobody can answer.
LONG WINAPI VerifyOffline(HWND window, GUID* action, void* argument)
{
    const auto* const data = static_cast<WINTRUST_DATA*>(argument);
    EXPECT_TRUE(window == static_cast<HWND>(INVALID_HANDLE_VALUE) && data->dwUIChoice == WTD_UI_NONE);
    EXPECT_EQ(data->fdwRevocationChecks, DWORD{WTD_REVOKE_WHOLECHAIN});
    EXPECT_EQ(data->dwProvFlags, DWORD{WTD_REVOCATION_CHECK_CHAIN | WTD_CACHE_ONLY_URL_RETRIEVAL});
    EXPECT_EQ(::GetFileType(data->pFile->hFile), DWORD{FILE_TYPE_DISK}) << "what is held, not the path";
    g_states += std::to_wstring(data->dwStateAction);
    return g_verify(window, action, argument);
}

TEST_F(TrustedFileTest, TheCheckAsksNobodyAndComparesTheWholeName)
{
    const auto nameOf = +[](const CERT_CONTEXT*, DWORD, DWORD, void*, wchar_t* name, DWORD) {
        return static_cast<DWORD>(g_name.copy(name, g_name.size())) + 1;
    };
    static void* const s_nameOf = reinterpret_cast<void*>(nameOf);
    const CImportPatch patch(
        "GetProcAddress", +[](HMODULE module, const char* name) {
            void* const found = g_getExport(module, name);
            if (std::string_view(name) == "WinVerifyTrust")
            {
                g_verify = reinterpret_cast<Verify*>(found);
                return reinterpret_cast<void*>(&VerifyOffline);
            }
            return std::string_view(name) == "CertGetNameStringW" ? s_nameOf : found;
        });
    g_name = L"Quintor Corporation";
    EXPECT_EQ(CheckTrustedModule(m_path), 0U);
    g_name = {L"Tarvex, Inc.\0 Partners", 22};
    EXPECT_EQ(CheckTrustedModule(m_path), kForeignSigner);
    EXPECT_EQ(g_states, L"1212") << "verified and closed each time";
}

TEST_F(TrustedFileTest, CodeIsTrustedAsTheFileOfItsModuleIs)
{
    MODULEINFO own{};
    ::GetModuleInformation(::GetCurrentProcess(), ::GetModuleHandleW(nullptr), &own, sizeof(own));
    const auto* const begin = static_cast<const BYTE*>(own.lpBaseOfDll);
    const CModule good(::LoadLibraryW(m_signed.c_str()));
    ASSERT_TRUE(good);
    EXPECT_EQ(CheckTrustedCode(good.Get()), 0U);
    EXPECT_EQ(CheckTrustedCode(begin), kNotSigned);
    EXPECT_EQ(CheckTrustedCode(begin + own.SizeOfImage - 1), kNotSigned);
    EXPECT_EQ(CheckTrustedCode(begin - 1), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(CheckTrustedCode(begin + own.SizeOfImage), DWORD{ERROR_ACCESS_DENIED});

    // A path cut off where a trusted file's path ends must not pass for that file.
    const CImportPatch patch(
        "K32GetModuleFileNameExW", +[](HANDLE, HMODULE, wchar_t* name, DWORD size) {
            std::wcscpy(name, SignedDouble(L"tarvex", kModule).c_str());
            return size;
        });
    EXPECT_EQ(CheckTrustedCode(good.Get()), DWORD{ERROR_INVALID_PARAMETER});
}

} // namespace
