#include "base/TrustedModule.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"

using namespace Basalt;

namespace
{

constexpr wchar_t kModule[] = L"UpdateManager.dll";

constexpr DWORD kNoSignature = 0x800B0100;
constexpr DWORD kBadDigest = 0x80096010;
constexpr DWORD kForeignSigner = 0x800B010F;

std::vector<char> ReadWhole(const std::wstring& path)
{
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteWhole(const std::wstring& path, const char* data, std::size_t size)
{
    std::ofstream(std::filesystem::path(path), std::ios::binary)
        .write(data, static_cast<std::streamsize>(size));
}

TEST(TrustedModule, OnlyTheTwoSignersExactNamesOnAnUnchangedFileAreTrusted)
{
    const struct
    {
        const wchar_t* variant;
        DWORD verdict;
    } rows[] = {
        {L"tarvex", ERROR_SUCCESS},
        {L"quintor", ERROR_SUCCESS},
        {L"unsigned", kNoSignature},
        {L"changed", kBadDigest},
        {L"foreign", kForeignSigner},
        {L"contains", kForeignSigner},
        {L"lowercase", kForeignSigner},
        {L"organisation", kForeignSigner},
        {L"nocommonname", kForeignSigner},
        {L"issuer", kForeignSigner},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.variant));
        EXPECT_EQ(CheckTrustedModule(SignedDouble(row.variant, kModule)), row.verdict);
    }
}

TEST(TrustedModule, PathsThatNameNoFileAreTold)
{
    const CTestFolder folder;
    const struct
    {
        std::wstring path;
        DWORD verdict;
    } rows[] = {
        {L"", ERROR_INVALID_PARAMETER},
        {folder.File(L"missing.dll"), ERROR_FILE_NOT_FOUND},
        {folder.File(L"missing\\missing.dll"), ERROR_PATH_NOT_FOUND},
        {folder.Path(), ERROR_ACCESS_DENIED},
        {kModule, ERROR_BAD_PATHNAME},
        {L"\\TxSvcHost\\LogCntrl.dll", ERROR_BAD_PATHNAME},
        {L"C:LogCntrl.dll", ERROR_BAD_PATHNAME},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.path));
        EXPECT_EQ(CheckTrustedModule(row.path), row.verdict);
    }
}

TEST(TrustedModule, TruncatedAndDamagedFilesGiveAStatus)
{
    const CTestFolder folder;
    const std::wstring path = folder.File(kModule);
    const std::vector<char> good = ReadWhole(SignedDouble(L"tarvex", kModule));
    ASSERT_GT(good.size(), 4096U);
    const auto headersAt =
        static_cast<std::size_t>(reinterpret_cast<const IMAGE_DOS_HEADER*>(good.data())->e_lfanew);
    const std::size_t signatureAt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(good.data() + headersAt)
                                        ->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_SECURITY]
                                        .VirtualAddress;

    for (const std::size_t size :
         {std::size_t{0},
          std::size_t{1},
          std::size_t{64},
          std::size_t{1024},
          good.size() / 2,
          signatureAt,
          signatureAt + 8,
          good.size() - 1})
    {
        SCOPED_TRACE(size);
        WriteWhole(path, good.data(), size);
        EXPECT_NE(CheckTrustedModule(path), DWORD{ERROR_SUCCESS});
    }
    const std::size_t checksumAt = headersAt + offsetof(IMAGE_NT_HEADERS64, OptionalHeader.CheckSum);
    for (std::size_t at = 0; at < good.size(); at += at < 1024          ? 12
                                                     : at < signatureAt ? good.size() / 7
                                                                        : 101)
    {
        SCOPED_TRACE(at);
        std::vector<char> damaged = good;
        damaged[at] = static_cast<char>(~damaged[at]);
        WriteWhole(path, damaged.data(), damaged.size());
        const DWORD verdict = CheckTrustedModule(path);
        // Not signed: the checksum. In the signature's own block much is not looked at, least of all by Wine;
        // there it is enough to come back.
        if (at < signatureAt && at / 4 != checksumAt / 4)
        {
            EXPECT_NE(verdict, DWORD{ERROR_SUCCESS});
        }
    }
}

TEST(TrustedModule, TheFileStaysAsItWasUntilItIsLetGo)
{
    const CTestFolder folder;
    const std::wstring path = folder.File(kModule);
    const std::wstring other = folder.File(L"other.dll");
    ASSERT_NE(::CopyFileW(SignedDouble(L"tarvex", kModule).c_str(), path.c_str(), FALSE), FALSE);
    ASSERT_NE(::CopyFileW(path.c_str(), other.c_str(), FALSE), FALSE);

    CTrustedFile file;
    ASSERT_EQ(file.Open(path), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(::MoveFileExW(path.c_str(), folder.File(L"moved.dll").c_str(), 0), FALSE);
    EXPECT_EQ(::MoveFileExW(other.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING), FALSE);
    EXPECT_EQ(::DeleteFileW(path.c_str()), FALSE);
    const CFile writer(::CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_FALSE(writer);
    const CModule module(::LoadLibraryW(path.c_str()));
    EXPECT_TRUE(module);
    file.Close();
    EXPECT_NE(::MoveFileExW(path.c_str(), folder.File(L"moved.dll").c_str(), 0), FALSE);
}

TEST(TrustedModule, AFileThatSomebodyMayStillWriteToIsRefused)
{
    const CTestFolder folder;
    const std::wstring path = folder.File(kModule);
    ASSERT_NE(::CopyFileW(SignedDouble(L"tarvex", kModule).c_str(), path.c_str(), FALSE), FALSE);
    const CFile writer(::CreateFileW(path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(writer);

    EXPECT_EQ(CheckTrustedModule(path), DWORD{ERROR_SHARING_VIOLATION});
}

HMODULE WINAPI FailToLoad(const wchar_t*, HANDLE, DWORD flags)
{
    EXPECT_EQ(flags, DWORD{LOAD_LIBRARY_SEARCH_SYSTEM32});
    ::SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

TEST(TrustedModule, NothingIsTrustedWithoutTheSystemsCheck)
{
    const CImportPatch patch("LoadLibraryExW", &FailToLoad);
    ASSERT_TRUE(patch.IsActive());

    EXPECT_NE(CheckTrustedModule(SignedDouble(L"tarvex", kModule)), DWORD{ERROR_SUCCESS});
}

} // namespace
