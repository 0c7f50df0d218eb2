#include "txsvcctl/log/LogReader.h"

#include <algorithm>
#include <utility>

#include "contract/LogNames.h"
#include "contract/LogSettings.h"
#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

/// All are in one folder, so the volume need not be compared; Wine does not tell it of a file just renamed.
bool IsSameFile(const BY_HANDLE_FILE_INFORMATION& one, const BY_HANDLE_FILE_INFORMATION& other) noexcept
{
    return one.nFileIndexLow == other.nFileIndexLow && one.nFileIndexHigh == other.nFileIndexHigh;
}

} // namespace

CLogReader::CLogReader(std::wstring path, DWORD oldFiles, ILogSink& sink)
    : m_path(std::move(path)), m_oldFiles(oldFiles), m_sink(sink)
{
}

bool CLogReader::ReadOn(bool isLast)
{
    for (File& file : newerFiles())
    {
        if (HasFile())
        {
            if (!readToEnd()) // What was written before the file got another name.
            {
                return false;
            }
            m_text.Finish(m_sink);
        }
        m_current = std::move(file);
        m_position = 0;
        m_text = {};
    }
    if (!HasFile() || !readToEnd())
    {
        return false;
    }
    if (isLast)
    {
        m_text.Finish(m_sink);
    }
    else
    {
        m_text.Pause(m_sink);
    }
    return m_sink.EndPiece();
}

/// The files that came after the current one, the oldest first; all when there is no current one.
std::vector<CLogReader::File> CLogReader::newerFiles() const
{
    std::vector<File> files;
    bool isFound = false;
    while (!scan(files, isFound))
    {
    }
    if (HasFile() && !isFound)
    {
        // It was deleted. What is numbered may be from long ago.
        BY_HANDLE_FILE_INFORMATION now{};
        ::GetFileInformationByHandle(m_current.handle.Get(), &now);
        std::erase_if(files, [&now](const File& file) {
            return ::CompareFileTime(&file.information.ftLastWriteTime, &now.ftLastWriteTime) < 0;
        });
    }
    std::reverse(files.begin(), files.end());
    return files;
}

/// From the newest up to the current one. A rotation moves files up only, starting with the oldest, so that
/// meanwhile none can be missed; one may be seen twice, and names may be free in between.
/// @return false when a rotation came to its end meanwhile: the order may then be wrong.
bool CLogReader::scan(std::vector<File>& files, bool& isFound) const
{
    const DWORD last = HasFile() ? ETWLogging::kOldFilesSetting.most : m_oldFiles;
    BY_HANDLE_FILE_INFORMATION newest{};
    files.clear();
    isFound = false;
    for (DWORD number = 0; number <= last && !isFound; ++number)
    {
        File file = open(number);
        newest = number == 0 ? file.information : newest;
        isFound = HasFile() && IsSameFile(file.information, m_current.information);
        if (file.handle && !isFound &&
            (files.empty() || !IsSameFile(file.information, files.back().information)))
        {
            files.push_back(std::move(file));
        }
    }
    return (isFound && files.empty()) || IsSameFile(open(0).information, newest);
}

/// @return no handle when there is no such file.
CLogReader::File CLogReader::open(DWORD number) const
{
    const std::wstring path = ETWLogging::RotatedLogPath(m_path, number);
    File file;
    file.handle.Reset(::CreateFileW(
        path.c_str(),
        GENERIC_READ,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
        nullptr,
        OPEN_EXISTING,
        FILE_ATTRIBUTE_NORMAL,
        nullptr));
    if (file.handle && ::GetFileInformationByHandle(file.handle.Get(), &file.information))
    {
        return file;
    }
    const DWORD error = ::GetLastError();
    // Later on a file may be out of reach for a moment, as one is that is being deleted.
    if (!HasFile() && error != ERROR_FILE_NOT_FOUND)
    {
        ThrowFailure(L"read log", path, error);
    }
    return {};
}

bool CLogReader::readToEnd()
{
    goBackWhenCut();
    std::string piece;
    while (readPiece(piece))
    {
        m_position += piece.size();
        m_text.Feed(piece.data(), piece.size(), m_sink);
        if (!m_sink.EndPiece())
        {
            return false;
        }
    }
    return true;
}

/// The logger cuts off a line again for which the disk has no room; an emptied file is read from its start.
void CLogReader::goBackWhenCut()
{
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(m_current.handle.Get(), &size) ||
        static_cast<ULONGLONG>(size.QuadPart) >= m_position)
    {
        return;
    }
    if (m_text.TakeBack(static_cast<std::size_t>(m_position - static_cast<ULONGLONG>(size.QuadPart))))
    {
        m_position = static_cast<ULONGLONG>(size.QuadPart);
        return;
    }
    m_text.Finish(m_sink);
    m_text = {};
    m_position = 0;
}

/// @return false at the end.
bool CLogReader::readPiece(std::string& piece)
{
    constexpr DWORD kPieceBytes = 65536;
    piece.resize(kPieceBytes);
    DWORD read = 0;
    OVERLAPPED place{}; // The file is opened for synchronous reads; this only tells where.
    place.Offset = static_cast<DWORD>(m_position);
    place.OffsetHigh = static_cast<DWORD>(m_position >> 32);
    if (!::ReadFile(m_current.handle.Get(), piece.data(), kPieceBytes, &read, &place))
    {
        const DWORD error = ::GetLastError();
        if (error != ERROR_HANDLE_EOF)
        {
            ThrowFailure(L"read log", m_path, error);
        }
        read = 0;
    }
    piece.resize(read);
    return read != 0;
}

} // namespace TxCtl
