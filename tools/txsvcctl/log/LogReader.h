#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "base/Owned.h"
#include "txsvcctl/log/LogText.h"

namespace TxCtl
{

/// Reads a log through its rotations: NAME.log becomes NAME.1.log, that one NAME.2.log and so on.
///
/// It holds the file that it reads, under whatever name that is by now, but keeps nobody from writing,
/// renaming or deleting it. Files are told from each other by what they are, not by their names.
class CLogReader
{
public:
    /// @param path full, of the file that is written to.
    /// @param oldFiles how many of the older ones are read first.
    CLogReader(std::wstring path, DWORD oldFiles, ILogSink& sink);

    /// Reads on to the end of what is there, the oldest first; stops early when the sink says so.
    /// @param isLast when true nothing will be read afterwards, and a torn last line is an end.
    /// @return false when there is no file yet, or the sink wants no more.
    /// @throws CToolError
    bool ReadOn(bool isLast);

    [[nodiscard]] bool HasFile() const noexcept { return static_cast<bool>(m_current.handle); }

private:
    struct File
    {
        Basalt::CFile handle;
        BY_HANDLE_FILE_INFORMATION information{};
    };

    [[nodiscard]] std::vector<File> newerFiles() const;
    [[nodiscard]] bool scan(std::vector<File>& files, bool& isFound) const;
    [[nodiscard]] File open(DWORD number) const;
    bool readToEnd();
    void goBackWhenCut();
    [[nodiscard]] bool readPiece(std::string& piece);

    std::wstring m_path;
    DWORD m_oldFiles;
    ILogSink& m_sink;
    File m_current;
    ULONGLONG m_position = 0; ///< In the current file.
    CLogText m_text;          ///< Of the current file.
};

} // namespace TxCtl
