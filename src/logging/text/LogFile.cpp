#include "logging/text/LogFile.h"

#include <algorithm>

#include "contract/LogNames.h"

namespace ETWLogging
{

namespace
{

constexpr wchar_t kByteOrderMark = L'\xFEFF';

DWORD LineFeedsIn(const wchar_t* text, std::size_t length) noexcept
{
    return static_cast<DWORD>(std::count(text, text + length, L'\n'));
}

/// Tells files apart, whatever their names are; 0 when it cannot be asked for.
ULONGLONG IndexOf(HANDLE file) noexcept
{
    BY_HANDLE_FILE_INFORMATION information{};
    ::GetFileInformationByHandle(file, &information);
    return ULONGLONG{information.nFileIndexHigh} << 32 | information.nFileIndexLow;
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

void CLogFile::SetRotation(DWORD entries, DWORD oldFiles) noexcept
{
    m_entriesPerFile = entries;
    m_oldFiles = oldFiles;
}

DWORD CLogFile::Open(bool alone, COpened& file)
{
    const DWORD entriesPerFile = m_entriesPerFile;
    DWORD status = openFile(file);
    file.m_alone = alone;
    if (status != ERROR_SUCCESS || !alone || entriesPerFile == 0)
    {
        return status;
    }
    const Basalt::CLockGuard guard(m_lock);
    countOthers(file);
    if (m_entries < entriesPerFile)
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
    const ULONGLONG index = IndexOf(file.m_file.Get());
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
        cutBack(file, size);
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

/// Only what is shorter than the line, at the end of the file that it was written to: the rest is others'.
void CLogFile::cutBack(const COpened& torn, DWORD lineSize) const noexcept
{
    const Basalt::CFile file(::CreateFileW(
        m_path.c_str(),
        GENERIC_WRITE,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        nullptr,
        OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL,
        nullptr));
    LARGE_INTEGER size{};
    if (!file || !::GetFileSizeEx(file.Get(), &size) || IndexOf(file.Get()) != IndexOf(torn.m_file.Get()))
    {
        return;
    }
    const auto end = static_cast<ULONGLONG>(size.QuadPart);
    size.QuadPart = static_cast<LONGLONG>(torn.m_size);
    if (end > torn.m_size && end < torn.m_size + lineSize &&
        ::SetFilePointerEx(file.Get(), size, nullptr, FILE_BEGIN))
    {
        ::SetEndOfFile(file.Get());
    }
}

void CLogFile::rotate() const
{
    const DWORD oldFiles = m_oldFiles;
    if (oldFiles == 0)
    {
        // By way of another name: while somebody reads it, the old one would stay taken.
        const std::wstring full = m_path + L".full";
        if (::MoveFileExW(m_path.c_str(), full.c_str(), MOVEFILE_REPLACE_EXISTING))
        {
            ::DeleteFileW(full.c_str());
        }
        return;
    }
    // Only up to the first gap: after a failed rename the next attempt must not push out the oldest again.
    DWORD number = 1;
    while (number < oldFiles &&
           ::GetFileAttributesW(RotatedLogPath(m_path, number).c_str()) != INVALID_FILE_ATTRIBUTES)
    {
        ++number;
    }
    for (; number > 1; --number)
    {
        if (!::MoveFileExW(
                RotatedLogPath(m_path, number - 1).c_str(),
                RotatedLogPath(m_path, number).c_str(),
                MOVEFILE_REPLACE_EXISTING))
        {
            return;
        }
    }
    ::MoveFileExW(m_path.c_str(), RotatedLogPath(m_path, 1).c_str(), MOVEFILE_REPLACE_EXISTING);
}

} // namespace ETWLogging
