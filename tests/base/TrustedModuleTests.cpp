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

/// A trusted file that a test may damage.
class TrustedFileTest : public ::testing::Test
{
protected:
    void SetUp() override { std::filesystem::copy_file(SignedDouble(L"tarvex", kModule), m_path); }
    void Write(const std::vector<char>& bytes, std::size_t size)
    {
        std::ofstream(std::filesystem::path(m_path), std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(size));
    }
    [[nodiscard]] CFile OpenForWriting() const
    {
        return CFile(::CreateFileW(m_path.c_str(), GENERIC_WRITE, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    }

    CTestFolder m_folder;
    std::wstring m_path = m_folder.File(kModule);
};

TEST_F(TrustedFileTest, OnlyTheTwoSignersExactNamesOnAnUnchangedFileAreTrusted)
{
    constexpr DWORD kForeignSigner = 0x800B010F;
    const struct
    {
        std::wstring path;
        DWORD verdict;
    } rows[] = {
        {SignedDouble(L"tarvex", kModule), ERROR_SUCCESS},
        {SignedDouble(L"quintor", kModule), ERROR_SUCCESS},
        {SignedDouble(L"unsigned", kModule), 0x800B0100},
        {SignedDouble(L"changed", kModule), 0x80096010},
        {SignedDouble(L"foreign", kModule), kForeignSigner},
        {SignedDouble(L"contains", kModule), kForeignSigner},
        {SignedDouble(L"lowercase", kModule), kForeignSigner},
        {SignedDouble(L"organisation", kModule), kForeignSigner},
        {SignedDouble(L"nocommonname", kModule), kForeignSigner},
        {SignedDouble(L"issuer", kModule), kForeignSigner},
        {L"", ERROR_INVALID_PARAMETER},
        {m_folder.File(L"missing.dll"), ERROR_FILE_NOT_FOUND},
        {m_folder.File(L"missing\\missing.dll"), ERROR_PATH_NOT_FOUND},
        {m_folder.Path(), ERROR_ACCESS_DENIED},
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

TEST_F(TrustedFileTest, TruncatedAndDamagedFilesGiveAStatus)
{
    std::ifstream file(std::filesystem::path(m_path), std::ios::binary);
    const std::vector<char> good{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    file.close();
    const std::size_t signatureAt = std::filesystem::file_size(SignedDouble(L"unsigned", kModule));
    ASSERT_GT(good.size(), signatureAt);

    for (const std::size_t size : {std::size_t{0}, std::size_t{64}, signatureAt, good.size() - 1})
    {
        Write(good, size);
        EXPECT_NE(CheckTrustedModule(m_path), DWORD{ERROR_SUCCESS}) << size;
    }
    for (std::size_t at = 0; at < good.size(); at += at < signatureAt ? signatureAt / 7 : 101)
    {
        std::vector<char> damaged = good;
        damaged[at] = static_cast<char>(~damaged[at]);
        Write(damaged, damaged.size());
        // In the signature's own block much is not looked at, least of all by Wine: there it is enough to
        // come back.
        EXPECT_TRUE(CheckTrustedModule(m_path) != ERROR_SUCCESS || at >= signatureAt) << at;
    }
}

TEST_F(TrustedFileTest, TheFileStaysAsItWasUntilItIsLetGo)
{
    const std::wstring other = m_folder.File(L"other.dll");
    std::filesystem::copy_file(m_path, other);
    CTrustedFile file;
    ASSERT_EQ(file.Open(m_path), DWORD{ERROR_SUCCESS});

    EXPECT_EQ(::MoveFileExW(m_path.c_str(), m_folder.File(L"moved.dll").c_str(), 0), FALSE);
    EXPECT_EQ(::MoveFileExW(other.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING), FALSE);
    EXPECT_EQ(::DeleteFileW(m_path.c_str()), FALSE);
    EXPECT_FALSE(OpenForWriting());
    EXPECT_TRUE(CModule(::LoadLibraryW(m_path.c_str())));

    file.Close();
    const CFile writer = OpenForWriting();
    EXPECT_TRUE(writer);
    EXPECT_EQ(file.Open(m_path), DWORD{ERROR_SHARING_VIOLATION}) << "somebody may still write to it";
}

TEST_F(TrustedFileTest, NothingIsTrustedWithoutTheSystemsCheck)
{
    const CImportPatch patch(
        "LoadLibraryExW", +[](const wchar_t*, HANDLE, DWORD flags) -> HMODULE {
            EXPECT_EQ(flags, DWORD{LOAD_LIBRARY_SEARCH_SYSTEM32});
            ::SetLastError(ERROR_MOD_NOT_FOUND);
            return nullptr;
        });
    ASSERT_TRUE(patch.IsActive());

    EXPECT_NE(CheckTrustedModule(m_path), DWORD{ERROR_SUCCESS});
}

} // namespace
