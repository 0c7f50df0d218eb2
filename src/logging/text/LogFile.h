#pragma once

#include <windows.h>

#include <atomic>
#include <string>

#include "base/Lock.h"
#include "base/Owned.h"
#include "logging/settings/LogSettingsReader.h"

namespace ETWLogging
{

/// The text file of one or many processes, and its rotation.
///
/// A file that holds its number of entries (line feeds) is renamed from NAME.log to NAME.1.log, NAME.1.log
/// before that to NAME.2.log and so on, and a new one is begun. As many processes write, each keeps the count
/// together with the size that the file then had; only a file of another size is looked at, and only what
/// others have added is counted. No line is ever dropped: where a rename fails because somebody reads the
/// file, the file just grows.
///
/// Threads: any, once the path is set. Only one that has the file's mutex may count and rotate.
class CLogFile
{
public:
    /// A file opened for one message.
    class COpened
    {
        friend class CLogFile;
        Basalt::CFile m_file;
        ULONGLONG m_size = 0; ///< In bytes, when it was opened.
        bool m_alone = false;
    };

    /// Before the first Open.
    /// @param path with a file name that has an extension.
    /// @throws std::bad_alloc
    void SetPath(const std::wstring& path) { m_path = path; }
    [[nodiscard]] const std::wstring& GetPath() const noexcept { return m_path; }

    /// At any time, by any thread.
    /// @param entries per file; 0 switches rotation off.
    /// @param oldFiles how many are kept; with 0 a full file is deleted.
    void SetRotation(DWORD entries, DWORD oldFiles) noexcept;

    /// Opens the file for appending and creates it when it is missing; rotates it first when it is full.
    /// @param alone true when the caller keeps all other writers out until the file is closed.
    /// @return 0 or the Win32 error.
    /// @throws std::bad_alloc
    [[nodiscard]] DWORD Open(bool alone, COpened& file) TX_EXCLUDES(m_lock);

    /// Appends the line, at the start of a file with a byte order mark before it, and counts it. Of a line
    /// for which the disk has no room nothing stays.
    /// @return 0 or the Win32 error.
    /// @throws std::bad_alloc
    [[nodiscard]] DWORD Write(COpened& file, std::wstring line) TX_EXCLUDES(m_lock);

private:
    [[nodiscard]] DWORD openFile(COpened& file) const noexcept;
    void countOthers(const COpened& file) TX_REQUIRES(m_lock);
    void cutBack(const COpened& torn, DWORD lineSize) const noexcept;
    void rotate() const;

    std::wstring m_path;
    std::atomic<DWORD> m_entriesPerFile = kDefaultEntries;
    std::atomic<DWORD> m_oldFiles = kDefaultOldFiles;

    Basalt::CLock m_lock; ///< For the threads of this process while the mutex is switched off.
    DWORD m_entries TX_GUARDED_BY(m_lock) = 0; ///< In the first m_counted bytes of file m_index.
    ULONGLONG m_counted TX_GUARDED_BY(m_lock) = 0;
    ULONGLONG m_index TX_GUARDED_BY(m_lock) = 0; ///< Which file it is, whatever its name is by now.
};

} // namespace ETWLogging
