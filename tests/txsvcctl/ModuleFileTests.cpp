#include "txsvcctl/ModuleFile.h"

#include <windows.h>

#include <cstddef>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

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
        {"exports outside",
         ModuleFault::NoClassObject,
         [](Bytes& bytes) { ExportAddress(bytes) = 0xFFFFFFF0; }},
        {"another name",
         ModuleFault::NoClassObject,
         [](Bytes& bytes) {
             const std::string name = "DllGetClassObject";
             const auto at = std::search(bytes.begin(), bytes.end(), name.begin(), name.end());
             ASSERT_NE(at, bytes.end());
             *at = 'd';
         }},
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
    EXPECT_EQ(CheckModuleFile(folder.Path()).fault, ModuleFault::Unreadable);
    EXPECT_EQ(CheckModuleFile(folder.File(L"none")).error, DWORD{ERROR_FILE_NOT_FOUND});
}

} // namespace
