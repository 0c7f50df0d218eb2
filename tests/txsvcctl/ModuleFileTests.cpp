#include "txsvcctl/ModuleFile.h"

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "base/Owned.h"
#include "support/TestFolder.h"

using TxCtl::CheckModuleFile;
using TxCtl::ModuleFault;

namespace
{

constexpr wchar_t kModule[] = L"C:\\windows\\system32\\oleaut32.dll";

TEST(ModuleFile, EveryUnsuitableFileHasItsFault)
{
    std::ifstream file(kModule, std::ios::binary);
    const std::string original(std::istreambuf_iterator<char>(file), {});
    IMAGE_DOS_HEADER dos{};
    ASSERT_GT(original.copy(reinterpret_cast<char*>(&dos), sizeof(dos)), 0U);
    const auto headers = static_cast<std::size_t>(dos.e_lfanew);
    const std::size_t fileHeader = headers + offsetof(IMAGE_NT_HEADERS64, FileHeader);
    const std::size_t optional = headers + offsetof(IMAGE_NT_HEADERS64, OptionalHeader);
    const std::size_t directories = optional + offsetof(IMAGE_OPTIONAL_HEADER64, NumberOfRvaAndSizes);
    const std::size_t name = original.find("DllGetClassObject");
    const struct
    {
        const char* name;
        ModuleFault fault;
        std::size_t at; ///< Here these bytes are put, or the file ends.
        std::string bytes;
    } table[] = {
        {"as it is", ModuleFault::None, 0, "MZ"},
        {"empty", ModuleFault::NotAnImage, 0, ""},
        {"text", ModuleFault::NotAnImage, 0, "text"},
        {"DOS header only", ModuleFault::NotAnImage, sizeof(dos), ""},
        {"negative offset",
         ModuleFault::NotAnImage,
         offsetof(IMAGE_DOS_HEADER, e_lfanew),
         "\xF8\xFF\xFF\xFF"},
        {"PE signature", ModuleFault::NotAnImage, headers, "NE"},
        {"no headers", ModuleFault::NotAnImage, optional, ""},
        {"headers of 32 bits", ModuleFault::NotAnImage, optional, "\x0B\x01"},
        {"cut section table", ModuleFault::NotAnImage, headers + sizeof(IMAGE_NT_HEADERS64) + 10, ""},
        {"x86", ModuleFault::Not64Bit, fileHeader, "\x4C\x01"},
        {"ARM", ModuleFault::Not64Bit, fileHeader, "\x64\xAA"},
        {"program",
         ModuleFault::NotADll,
         fileHeader + offsetof(IMAGE_FILE_HEADER, Characteristics) + 1,
         "\x01"},
        {"no directories", ModuleFault::NoClassObject, directories, std::string(4, '\0')},
        {"no exports", ModuleFault::NoClassObject, directories + 4, std::string(4, '\0')},
        {"exports outside", ModuleFault::NoClassObject, directories + 4, "\xF0\xFF\xFF\xFF"},
        {"exports cut off", ModuleFault::NoClassObject, name, ""},
        {"another name", ModuleFault::NoClassObject, name, "d"},
        {"a longer name", ModuleFault::NoClassObject, name, "DllGetClassObjectX"},
    };
    const CTestFolder folder;
    const std::wstring path = folder.File(L"m.dll");
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.name);
        std::string bytes = original;
        bytes.replace(row.at, row.bytes.empty() ? std::string::npos : row.bytes.size(), row.bytes);
        std::ofstream(path.c_str(), std::ios::binary) << bytes;

        EXPECT_EQ(CheckModuleFile(path).fault, row.fault);
    }
    std::filesystem::resize_file(path, 512ULL * 1024 * 1024 + 1);
    EXPECT_EQ(CheckModuleFile(path).error, DWORD{ERROR_FILE_TOO_LARGE});
}

TEST(ModuleFile, MayBeOpenElsewhereButNotForWriting)
{
    const CTestFolder folder;
    const std::wstring path = folder.File(L"m.dll");
    std::filesystem::copy_file(kModule, path);
    for (const DWORD access : {DWORD{GENERIC_READ}, DWORD{DELETE}, DWORD{GENERIC_WRITE}})
    {
        constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        const Basalt::CFile open(
            ::CreateFileW(path.c_str(), access, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(open);
        EXPECT_EQ(CheckModuleFile(path).error, access == GENERIC_WRITE ? DWORD{ERROR_SHARING_VIOLATION} : 0);
    }
}

} // namespace
