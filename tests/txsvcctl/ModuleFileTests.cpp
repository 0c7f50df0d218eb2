#include "txsvcctl/ModuleFile.h"

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "support/TestFolder.h"

using TxCtl::CheckModuleFile;
using TxCtl::ModuleFault;

namespace
{

using Bytes = std::vector<char>;

constexpr wchar_t kModule[] = L"C:\\windows\\system32\\oleaut32.dll";

Bytes ReadFileBytes(const std::wstring& path)
{
    std::ifstream file(path.c_str(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

IMAGE_NT_HEADERS64& Headers(Bytes& bytes)
{
    const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(bytes.data());
    return *reinterpret_cast<IMAGE_NT_HEADERS64*>(bytes.data() + dos->e_lfanew);
}

DWORD& ExportAddress(Bytes& bytes)
{
    return Headers(bytes).OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress;
}

const std::string kExport = "DllGetClassObject";

std::size_t ClassObjectName(const Bytes& bytes)
{
    const auto at = std::search(bytes.begin(), bytes.end(), kExport.begin(), kExport.end());
    return static_cast<std::size_t>(at - bytes.begin());
}

TEST(ModuleFile, EveryUnsuitableFileHasItsFault)
{
    const struct
    {
        const char* name;
        ModuleFault fault;
        std::function<void(Bytes&)> damage;
    } table[] = {
        {"as it is", ModuleFault::None, [](Bytes&) {}},
        {"empty", ModuleFault::NotAnImage, [](Bytes& bytes) { bytes.clear(); }},
        {"text", ModuleFault::NotAnImage, [](Bytes& bytes) { bytes.assign(4096, 'x'); }},
        {"DOS header only",
         ModuleFault::NotAnImage,
         [](Bytes& bytes) { bytes.resize(sizeof(IMAGE_DOS_HEADER)); }},
        {"DOS signature", ModuleFault::NotAnImage, [](Bytes& bytes) { bytes[0] = 'm'; }},
        {"PE signature", ModuleFault::NotAnImage, [](Bytes& bytes) { Headers(bytes).Signature ^= 1; }},
        {"32-bit headers",
         ModuleFault::NotAnImage,
         [](Bytes& bytes) { Headers(bytes).OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR32_MAGIC; }},
        {"negative offset",
         ModuleFault::NotAnImage,
         [](Bytes& bytes) { reinterpret_cast<IMAGE_DOS_HEADER*>(bytes.data())->e_lfanew = -8; }},
        {"cut in the section table",
         ModuleFault::NotAnImage,
         [](Bytes& bytes) {
             const char* const end = reinterpret_cast<const char*>(&Headers(bytes) + 1);
             bytes.resize(static_cast<std::size_t>(end - bytes.data()) + 10);
         }},
        {"32 bits",
         ModuleFault::Not64Bit,
         [](Bytes& bytes) { Headers(bytes).FileHeader.Machine = IMAGE_FILE_MACHINE_I386; }},
        {"ARM",
         ModuleFault::Not64Bit,
         [](Bytes& bytes) { Headers(bytes).FileHeader.Machine = IMAGE_FILE_MACHINE_ARM64; }},
        {"program",
         ModuleFault::NotADll,
         [](Bytes& bytes) { Headers(bytes).FileHeader.Characteristics &= WORD{0xFFFF} ^ IMAGE_FILE_DLL; }},
        {"no exports", ModuleFault::NoClassObject, [](Bytes& bytes) { ExportAddress(bytes) = 0; }},
        {"no directories",
         ModuleFault::NoClassObject,
         [](Bytes& bytes) { Headers(bytes).OptionalHeader.NumberOfRvaAndSizes = 0; }},
        {"exports outside",
         ModuleFault::NoClassObject,
         [](Bytes& bytes) { ExportAddress(bytes) = 0xFFFFFFF0; }},
        {"exports cut off",
         ModuleFault::NoClassObject,
         [](Bytes& bytes) { bytes.resize(ClassObjectName(bytes)); }},
        {"another name",
         ModuleFault::NoClassObject,
         [](Bytes& bytes) { bytes[ClassObjectName(bytes)] = 'd'; }},
        {"a longer name",
         ModuleFault::NoClassObject,
         [](Bytes& bytes) { bytes[ClassObjectName(bytes) + kExport.size()] = 'X'; }},
    };
    const CTestFolder folder;
    const Bytes original = ReadFileBytes(kModule);
    ASSERT_GT(original.size(), 4096U);
    for (const auto& row : table)
    {
        SCOPED_TRACE(row.name);
        Bytes bytes = original;
        row.damage(bytes);
        const std::wstring path = folder.File(L"m.dll");
        std::ofstream(path.c_str(), std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));

        EXPECT_EQ(CheckModuleFile(path).fault, row.fault);
    }
    std::filesystem::resize_file(folder.File(L"m.dll"), 512ULL * 1024 * 1024 + 1);
    EXPECT_EQ(CheckModuleFile(folder.File(L"m.dll")).error, DWORD{ERROR_FILE_TOO_LARGE});
    EXPECT_EQ(CheckModuleFile(folder.Path()).fault, ModuleFault::Unreadable);
    EXPECT_EQ(CheckModuleFile(folder.File(L"none")).error, DWORD{ERROR_FILE_NOT_FOUND});
}

TEST(ModuleFile, MayBeOpenElsewhereButNotForWriting)
{
    const struct
    {
        DWORD access;
        DWORD error;
    } table[] = {{GENERIC_READ, 0}, {DELETE, 0}, {GENERIC_WRITE, ERROR_SHARING_VIOLATION}};
    const CTestFolder folder;
    const std::wstring path = folder.File(L"m.dll");
    std::filesystem::copy_file(kModule, path);
    for (const auto& row : table)
    {
        const Basalt::CFile open(::CreateFileW(
            path.c_str(),
            row.access,
            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
            nullptr,
            OPEN_EXISTING,
            0,
            nullptr));
        EXPECT_TRUE(open);
        EXPECT_EQ(CheckModuleFile(path).error, row.error);
    }
}

} // namespace
