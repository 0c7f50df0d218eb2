#include "txsvcctl/service/RunningImage.h"

#include <psapi.h>

#include <cstring>
#include <vector>

#include "base/Owned.h"

namespace TxCtl
{

namespace
{

/// @param read from an offset into a buffer of a size; false when that fails.
template <typename Read>
std::optional<IMAGE_NT_HEADERS64> HeadersOf(const Read& read)
{
    IMAGE_DOS_HEADER dos{};
    IMAGE_NT_HEADERS64 headers{};
    const bool isRead = read(0, &dos, sizeof(dos)) && dos.e_magic == IMAGE_DOS_SIGNATURE &&
                        read(static_cast<DWORD>(dos.e_lfanew), &headers, sizeof(headers));
    return isRead && headers.Signature == IMAGE_NT_SIGNATURE ? std::optional(headers) : std::nullopt;
}

/// The program as it lies in a process's memory.
class CProcessImage
{
public:
    explicit CProcessImage(HANDLE process) : m_process(process)
    {
        HMODULE module = nullptr;
        DWORD needed = 0;
        if (::K32EnumProcessModules(
                process, &module, sizeof(HMODULE), &needed)) // The program is the first one.
        {
            m_base = reinterpret_cast<const BYTE*>(module);
        }
    }

    bool operator()(DWORD offset, void* buffer, std::size_t size) const
    {
        SIZE_T read = 0;
        return m_base != nullptr && ::ReadProcessMemory(m_process, m_base + offset, buffer, size, &read) &&
               read == size;
    }

private:
    HANDLE m_process;
    const BYTE* m_base = nullptr;
};

std::optional<IMAGE_NT_HEADERS64> HeadersOfFile(const std::wstring& path)
{
    const Basalt::CFile file(::CreateFileW(
        path.c_str(),
        GENERIC_READ,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        nullptr,
        OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL,
        nullptr));
    return HeadersOf([&file](DWORD offset, void* buffer, std::size_t size) {
        OVERLAPPED place{};
        place.Offset = offset;
        DWORD read = 0;
        return file && ::ReadFile(file.Get(), buffer, static_cast<DWORD>(size), &read, &place) &&
               read == size;
    });
}

/// Two builds differ in at least one of these.
bool IsSameBuild(const IMAGE_NT_HEADERS64& left, const IMAGE_NT_HEADERS64& right)
{
    return left.FileHeader.TimeDateStamp == right.FileHeader.TimeDateStamp &&
           left.OptionalHeader.CheckSum == right.OptionalHeader.CheckSum &&
           left.OptionalHeader.SizeOfImage == right.OptionalHeader.SizeOfImage &&
           left.OptionalHeader.AddressOfEntryPoint == right.OptionalHeader.AddressOfEntryPoint;
}

/// The fixed part of the version resource begins with a signature of its own.
std::optional<Basalt::Version> VersionIn(const std::vector<BYTE>& resources)
{
    constexpr DWORD kSignature = 0xFEEF04BD; // VS_FFI_SIGNATURE
    VS_FIXEDFILEINFO info{};
    for (std::size_t at = 0; at + sizeof(info) <= resources.size(); at += sizeof(DWORD))
    {
        std::memcpy(&info, resources.data() + at, sizeof(info));
        if (info.dwSignature == kSignature)
        {
            return Basalt::Version{
                HIWORD(info.dwFileVersionMS),
                LOWORD(info.dwFileVersionMS),
                HIWORD(info.dwFileVersionLS),
                LOWORD(info.dwFileVersionLS)};
        }
    }
    return std::nullopt;
}

std::optional<Basalt::Version> VersionOf(const CProcessImage& image, const IMAGE_NT_HEADERS64& headers)
{
    constexpr DWORD kMost = 1024 * 1024;
    const IMAGE_DATA_DIRECTORY& directory =
        headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_RESOURCE];
    std::vector<BYTE> resources(directory.Size <= kMost ? directory.Size : 0);
    return image(directory.VirtualAddress, resources.data(), resources.size()) ? VersionIn(resources)
                                                                               : std::nullopt;
}

std::wstring PathOf(HANDLE process)
{
    constexpr DWORD kLongest = 32768;
    std::wstring path(kLongest, L'\0');
    DWORD length = kLongest;
    path.resize(::QueryFullProcessImageNameW(process, 0, path.data(), &length) ? length : 0);
    return path;
}

} // namespace

std::optional<RunningImage> ImageOf(DWORD processId)
{
    const Basalt::CHandle process(
        ::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId));
    RunningImage running;
    running.path = process ? PathOf(process.Get()) : std::wstring();
    if (running.path.empty())
    {
        return std::nullopt;
    }
    const CProcessImage image(process.Get());
    const std::optional<IMAGE_NT_HEADERS64> inMemory = HeadersOf(image);
    const std::optional<IMAGE_NT_HEADERS64> onDisk = HeadersOfFile(running.path);
    if (inMemory)
    {
        running.version = VersionOf(image, *inMemory);
    }
    if (inMemory && onDisk)
    {
        running.isCurrent = IsSameBuild(*inMemory, *onDisk);
    }
    return running;
}

} // namespace TxCtl
