#include "txsvcctl/service/ModuleFile.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "base/Owned.h"
#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

constexpr std::string_view kClassObjectExport = "DllGetClassObject";

/// Far above any real module; keeps a wrong file name from filling the memory.
constexpr LONGLONG kLargestFile = 512LL * 1024 * 1024;

DWORD ReadWholeFile(const std::wstring& path, std::vector<BYTE>& bytes)
{
    const Basalt::CFile file(::CreateFileW(
        path.c_str(),
        GENERIC_READ,
        FILE_SHARE_READ | FILE_SHARE_DELETE,
        nullptr,
        OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL,
        nullptr));
    LARGE_INTEGER size{};
    if (!file || !::GetFileSizeEx(file.Get(), &size))
    {
        return ::GetLastError();
    }
    if (size.QuadPart > kLargestFile)
    {
        return ERROR_FILE_TOO_LARGE;
    }
    bytes.resize(static_cast<std::size_t>(size.QuadPart));
    DWORD read = 0;
    if (!::ReadFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr))
    {
        return ::GetLastError();
    }
    bytes.resize(read);
    return ERROR_SUCCESS;
}

/// The bytes of an image as it lies on disk. Every read is checked against the end: the file may be damaged
/// or made to look like a module.
class CImageBytes
{
public:
    explicit CImageBytes(const std::vector<BYTE>& bytes) : m_bytes(bytes) {}

    /// @return false when the structure does not lie within the file.
    template <typename T>
    [[nodiscard]] bool Read(std::size_t offset, T& value) const
    {
        if (offset > m_bytes.size() || m_bytes.size() - offset < sizeof(T))
        {
            return false;
        }
        std::memcpy(&value, m_bytes.data() + offset, sizeof(T));
        return true;
    }

    [[nodiscard]] bool HasTextAt(std::size_t offset, std::string_view text) const
    {
        return offset <= m_bytes.size() && m_bytes.size() - offset > text.size() &&
               std::memcmp(m_bytes.data() + offset, text.data(), text.size()) == 0 &&
               m_bytes[offset + text.size()] == 0;
    }

private:
    const std::vector<BYTE>& m_bytes;
};

struct ImageHeaders
{
    IMAGE_NT_HEADERS64 nt{};
    std::vector<IMAGE_SECTION_HEADER> sections;
};

ModuleFault ReadHeaders(const CImageBytes& image, ImageHeaders& headers)
{
    IMAGE_DOS_HEADER dos{};
    if (!image.Read(0, dos) || dos.e_magic != IMAGE_DOS_SIGNATURE || dos.e_lfanew < 0)
    {
        return ModuleFault::NotAnImage;
    }
    const auto offset = static_cast<std::size_t>(dos.e_lfanew);
    DWORD signature = 0;
    if (!image.Read(offset, signature) || signature != IMAGE_NT_SIGNATURE ||
        !image.Read(offset + sizeof(signature), headers.nt.FileHeader))
    {
        return ModuleFault::NotAnImage;
    }
    if (headers.nt.FileHeader.Machine != IMAGE_FILE_MACHINE_AMD64)
    {
        return ModuleFault::Not64Bit;
    }
    if (!image.Read(offset, headers.nt) || headers.nt.OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC)
    {
        return ModuleFault::NotAnImage;
    }
    if ((headers.nt.FileHeader.Characteristics & IMAGE_FILE_DLL) == 0)
    {
        return ModuleFault::NotADll;
    }

    headers.sections.resize(headers.nt.FileHeader.NumberOfSections);
    std::size_t at =
        offset + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) + headers.nt.FileHeader.SizeOfOptionalHeader;
    for (IMAGE_SECTION_HEADER& section : headers.sections)
    {
        if (!image.Read(at, section))
        {
            return ModuleFault::NotAnImage;
        }
        at += sizeof(section);
    }
    return ModuleFault::None;
}

/// Where in the file a relative virtual address lies.
bool FindOffset(const ImageHeaders& headers, std::size_t address, std::size_t& offset)
{
    for (const IMAGE_SECTION_HEADER& section : headers.sections)
    {
        if (address >= section.VirtualAddress && address - section.VirtualAddress < section.SizeOfRawData)
        {
            offset = section.PointerToRawData + (address - section.VirtualAddress);
            return true;
        }
    }
    return false;
}

bool ExportsClassObject(const CImageBytes& image, const ImageHeaders& headers)
{
    if (headers.nt.OptionalHeader.NumberOfRvaAndSizes <= IMAGE_DIRECTORY_ENTRY_EXPORT)
    {
        return false;
    }
    const DWORD address =
        headers.nt.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress;
    std::size_t offset = 0;
    std::size_t names = 0;
    IMAGE_EXPORT_DIRECTORY directory{};
    if (address == 0 || !FindOffset(headers, address, offset) || !image.Read(offset, directory) ||
        !FindOffset(headers, directory.AddressOfNames, names))
    {
        return false;
    }
    for (DWORD i = 0; i < directory.NumberOfNames; ++i)
    {
        DWORD name = 0;
        if (!image.Read(names + std::size_t{i} * sizeof(name), name))
        {
            return false;
        }
        if (FindOffset(headers, name, offset) && image.HasTextAt(offset, kClassObjectExport))
        {
            return true;
        }
    }
    return false;
}

} // namespace

ModuleCheck CheckModuleFile(const std::wstring& path)
{
    std::vector<BYTE> bytes;
    const DWORD error = ReadWholeFile(path, bytes);
    if (error != ERROR_SUCCESS)
    {
        return {ModuleFault::Unreadable, error};
    }
    const CImageBytes image(bytes);
    ImageHeaders headers;
    const ModuleFault fault = ReadHeaders(image, headers);
    if (fault != ModuleFault::None)
    {
        return {fault};
    }
    return {ExportsClassObject(image, headers) ? ModuleFault::None : ModuleFault::NoClassObject};
}

std::wstring DescribeModuleFault(const ModuleCheck& check)
{
    switch (check.fault)
    {
    case ModuleFault::None:
        return {};
    case ModuleFault::Unreadable:
        return L"cannot be read: " + DescribeError(check.error);
    case ModuleFault::NotAnImage:
        return L"is not a module";
    case ModuleFault::Not64Bit:
        return L"is not a 64-bit (x64) module";
    case ModuleFault::NotADll:
        return L"is a program, not a DLL";
    case ModuleFault::NoClassObject:
        return L"does not export DllGetClassObject";
    }
    return {};
}

} // namespace TxCtl
