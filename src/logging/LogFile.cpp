#include "logging/LogFile.h"

#include <algorithm>

#include "base/Text.h"
#include "logging/SecurityAttributes.h"

namespace ETWLogging
{

namespace
{

constexpr wchar_t kByteOrderMark = L'\xFEFF';

/// System and administrators: all rights. The service accounts: write, rename, delete. Users: read. Whoever
/// made a file keeps it.
constexpr wchar_t kFolderSecurity[] =
    L"D:(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;OW)(A;OICI;0x1301BF;;;LS)(A;OICI;0x1301BF;;;NS)"
    L"(A;OICI;0x1301BF;;;SU)(A;OICI;0x1200A9;;;BU)";

bool IsFolder(const std::wstring& path) noexcept
{
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool CreateFolder(const std::wstring& folder, SECURITY_ATTRIBUTES* security)
{
    if (::CreateDirectoryW(folder.c_str(), security))
    {
        return true;
    }
    const std::size_t backslash = folder.rfind(L'\\');
    if (::GetLastError() != ERROR_PATH_NOT_FOUND || backslash == std::wstring::npos)
    {
        return IsFolder(folder);
    }
    return CreateFolder(folder.substr(0, backslash), nullptr) &&
           (::CreateDirectoryW(folder.c_str(), security) || IsFolder(folder));
}

DWORD LineFeedsIn(const wchar_t* text, std::size_t length) noexcept
{
    return static_cast<DWORD>(std::count(text, text + length, L'\n'));
}

/// Line feeds between two positions; what cannot be read counts nothing.
DWORD LineFeedsBetween(HANDLE file, ULONGLONG from, ULONGLONG end)
{
    constexpr ULONGLONG kChunkBytes = 32768;
    LARGE_INTEGER position{};
    position.QuadPart = static_cast<LONGLONG>(from);
    if (!::SetFilePointerEx(file, position, nullptr, FILE_BEGIN))
    {
        return 0;
    }
    std::wstring chunk(kChunkBytes / sizeof(wchar_t), L'\0');
    DWORD lineFeeds = 0;
    while (from < end)
    {
        DWORD read = 0;
        const auto size = static_cast<DWORD>(std::min(end - from, kChunkBytes));
        if (!::ReadFile(file, chunk.data(), size, &read, nullptr) || read == 0)
        {
            break;
        }
        lineFeeds += LineFeedsIn(chunk.data(), read / sizeof(wchar_t));
        from += read;
    }
    return lineFeeds;
}

} // namespace

bool EnsureLogFolder(const std::wstring& folder)
{
    CSecurityAttributes security(kFolderSecurity);
    return !folder.empty() && CreateFolder(folder, security.Get());
}

void CLogFile::SetRotation(DWORD entries, DWORD oldFiles) noexcept
{
    m_entriesPerFile = entries;
    m_oldFiles = oldFiles;
}

DWORD CLogFile::Open(bool alone, COpened& file)
{
    DWORD status = openFile(file);
    if (status != ERROR_SUCCESS || !alone || m_entriesPerFile == 0)
    {
        return status;
    }
    file.m_alone = true;
    const Basalt::CLockGuard guard(m_lock);
    countOthers(file);
    if (m_entries < m_entriesPerFile)
    {
        return ERROR_SUCCESS;
    }
    file.m_file.Reset();
    rotate();
    status = openFile(file);
    if (status == ERROR_SUCCESS)
    {
        countOthers(file);
    }
    return status;
}

DWORD CLogFile::openFile(COpened& file) const noexcept
{
    // Without FILE_WRITE_DATA every write goes to the end, wherever that is by then.
    file.m_file.Reset(::CreateFileW(
        m_path.c_str(),
        FILE_APPEND_DATA | FILE_READ_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        nullptr,
        OPEN_ALWAYS,
        FILE_ATTRIBUTE_NORMAL,
        nullptr));
    LARGE_INTEGER size{};
    if (!file.m_file || !::GetFileSizeEx(file.m_file.Get(), &size))
    {
        return ::GetLastError();
    }
    file.m_size = static_cast<ULONGLONG>(size.QuadPart);
    return ERROR_SUCCESS;
}

/// Asks which file it is only when others have written: that costs far more than the size.
void CLogFile::countOthers(const COpened& file)
{
    if (file.m_size == m_counted)
    {
        return;
    }
    BY_HANDLE_FILE_INFORMATION information{};
    ::GetFileInformationByHandle(file.m_file.Get(), &information);
    const ULONGLONG index = ULONGLONG{information.nFileIndexHigh} << 32 | information.nFileIndexLow;
    if (index != m_index || file.m_size < m_counted)
    {
        m_index = index; // Another file, or emptied: it is counted from its start.
        m_counted = 0;
        m_entries = 0;
    }
    m_entries += LineFeedsBetween(file.m_file.Get(), m_counted, file.m_size);
    m_counted = file.m_size;
}

DWORD CLogFile::Write(COpened& file, std::wstring line)
{
    const DWORD lineFeeds = LineFeedsIn(line.data(), line.size());
    if (file.m_size == 0)
    {
        line.insert(line.begin(), kByteOrderMark);
    }
    const auto size = static_cast<DWORD>(line.size() * sizeof(wchar_t));
    DWORD written = 0;
    DWORD status = ERROR_SUCCESS;
    if (!::WriteFile(file.m_file.Get(), line.data(), size, &written, nullptr))
    {
        status = ::GetLastError();
    }
    else if (written != size)
    {
        status = ERROR_DISK_FULL;
    }
    if (!file.m_alone)
    {
        return status;
    }
    if (status != ERROR_SUCCESS)
    {
        cutBack(file.m_size);
        return status;
    }
    const Basalt::CLockGuard guard(m_lock);
    if (m_counted == file.m_size)
    {
        // A writer that did not get the mutex may have come between: the next count then sees another size.
        m_entries += lineFeeds;
        m_counted += size;
    }
    return ERROR_SUCCESS;
}

void CLogFile::cutBack(ULONGLONG size) const noexcept
{
    const Basalt::CFile file(::CreateFileW(
        m_path.c_str(),
        GENERIC_WRITE,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        nullptr,
        OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL,
        nullptr));
    LARGE_INTEGER end{};
    end.QuadPart = static_cast<LONGLONG>(size);
    if (file && ::SetFilePointerEx(file.Get(), end, nullptr, FILE_BEGIN))
    {
        ::SetEndOfFile(file.Get());
    }
}

void CLogFile::rotate() const
{
    const DWORD oldFiles = m_oldFiles;
    if (oldFiles == 0)
    {
        ::DeleteFileW(m_path.c_str());
        return;
    }
    // Only up to the first gap: after a failed rename the next attempt must not push out the oldest again.
    DWORD number = 1;
    while (number < oldFiles && ::GetFileAttributesW(oldPath(number).c_str()) != INVALID_FILE_ATTRIBUTES)
    {
        ++number;
    }
    for (; number > 1; --number)
    {
        if (!::MoveFileExW(oldPath(number - 1).c_str(), oldPath(number).c_str(), MOVEFILE_REPLACE_EXISTING))
        {
            return;
        }
    }
    ::MoveFileExW(m_path.c_str(), oldPath(1).c_str(), MOVEFILE_REPLACE_EXISTING);
}

std::wstring CLogFile::oldPath(DWORD number) const
{
    std::wstring path = m_path;
    return path.insert(path.rfind(L'.'), Basalt::FormatText(L".%u", number));
}

} // namespace ETWLogging
