#include "txsvcctl/setup/FileExchange.h"

#include <windows.h>

#include <algorithm>
#include <set>
#include <string_view>

#include "base/Owned.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kListName[] = L"installed-files.txt";
constexpr wchar_t kUninstaller[] = L"uninstall.exe";
constexpr wchar_t kWorkFolder[] = L"\\.setup";

// In a work folder.
constexpr wchar_t kNew[] = L"\\new";
constexpr wchar_t kOld[] = L"\\old";
constexpr wchar_t kBegun[] = L"\\new-files.txt"; ///< There when all new files are: the exchange has begun.
constexpr wchar_t kCommitted[] = L"\\committed"; ///< The rest waits to be deleted.

// A virus scanner looks at what was just written.
constexpr int kMoveAttempts = 10;
constexpr DWORD kMovePauseMs = 200;

struct FindTraits
{
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type value) noexcept { ::FindClose(value); }
};
using CFind = Basalt::COwned<FindTraits>;

/// Calls back with name and attributes of what is in a folder; a missing one is empty.
template <typename Callback>
void ForEachEntry(const std::wstring& folder, Callback callback)
{
    WIN32_FIND_DATAW entry{};
    const CFind find(::FindFirstFileW((folder + L"\\*").c_str(), &entry));
    if (!find)
    {
        const DWORD error = ::GetLastError();
        CheckStatus(
            error == ERROR_PATH_NOT_FOUND || error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : error,
            L"list folder",
            folder);
        return;
    }
    do
    {
        const std::wstring_view name = entry.cFileName;
        if (name != L"." && name != L"..")
        {
            callback(std::wstring(name), entry.dwFileAttributes);
        }
    } while (::FindNextFileW(find.Get(), &entry));
}

/// Links are no files of a package, and what is behind them is nobody's to move or delete.
void AddFilesBelow(const std::wstring& folder, const std::wstring& prefix, std::vector<std::wstring>& files)
{
    ForEachEntry(folder, [&](const std::wstring& name, DWORD attributes) {
        if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        {
            return;
        }
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        {
            std::wstring below = folder + L"\\";
            AddFilesBelow(below.append(name), prefix + name + L"\\", files);
            return;
        }
        files.push_back(prefix + name);
    });
}

/// Paths relative to the folder.
std::vector<std::wstring> FilesBelow(const std::wstring& folder)
{
    std::vector<std::wstring> files;
    AddFilesBelow(folder, {}, files);
    return files;
}

void MakeFolder(const std::wstring& path)
{
    if (Exists(path))
    {
        return;
    }
    const std::size_t end = path.rfind(L'\\');
    if (end != std::wstring::npos && end > 2) // "C:" exists.
    {
        MakeFolder(path.substr(0, end));
    }
    if (!::CreateDirectoryW(path.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS)
    {
        ThrowFailure(L"make folder", path, ::GetLastError());
    }
}

void MakeFolderOf(const std::wstring& file)
{
    MakeFolder(file.substr(0, file.rfind(L'\\')));
}

void Copy(const std::wstring& from, const std::wstring& to)
{
    MakeFolderOf(to);
    if (!::CopyFileW(from.c_str(), to.c_str(), TRUE))
    {
        ThrowFailure(L"copy file", from, ::GetLastError());
    }
}

void Move(const std::wstring& from, const std::wstring& to)
{
    MakeFolderOf(to);
    for (int attempt = 1; !::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING); ++attempt)
    {
        const DWORD error = ::GetLastError();
        if ((error != ERROR_SHARING_VIOLATION && error != ERROR_ACCESS_DENIED) || attempt == kMoveAttempts)
        {
            ThrowFailure(L"exchange file", from, error);
        }
        ::Sleep(kMovePauseMs);
    }
}

void WriteFileList(const std::wstring& path, const std::vector<std::wstring>& files)
{
    std::string text;
    for (const std::wstring& file : files)
    {
        text += ToUtf8(file) + "\r\n";
    }
    const Basalt::CFile file(::CreateFileW(
        path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || !::WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr))
    {
        ThrowFailure(L"write file", path, ::GetLastError());
    }
}

/// A line of the list becomes part of a path whose file is moved or deleted.
bool IsBelow(const std::wstring& relative)
{
    return !relative.empty() && relative.front() != L'\\' && relative.find(L':') == std::wstring::npos &&
           (L"\\" + relative + L"\\").find(L"\\..\\") == std::wstring::npos;
}

/// @return empty when there is no list.
std::vector<std::wstring> ReadFileList(const std::wstring& path)
{
    const Basalt::CFile file(::CreateFileW(
        path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
    {
        const DWORD error = ::GetLastError();
        const bool isMissing = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
        CheckStatus(isMissing ? ERROR_SUCCESS : error, L"read file", path);
        return {};
    }
    std::string text(::GetFileSize(file.Get(), nullptr), '\0');
    DWORD size = 0;
    if (!::ReadFile(file.Get(), text.data(), static_cast<DWORD>(text.size()), &size, nullptr))
    {
        ThrowFailure(L"read file", path, ::GetLastError());
    }
    std::vector<std::wstring> files;
    for (std::size_t at = 0, end = 0; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
    {
        std::wstring relative = FromUtf8(text.substr(at, end - at));
        if (IsBelow(relative))
        {
            files.push_back(std::move(relative));
        }
    }
    return files;
}

bool HasName(const std::vector<std::wstring>& names, const std::wstring& name)
{
    return std::ranges::any_of(names, [&](const std::wstring& other) { return IsSameName(other, name); });
}

/// With everything in it, now or, what is in use, at the system's next start.
/// @return false for the latter.
bool DeleteFolder(const std::wstring& folder)
{
    bool isGone = true;
    std::vector<std::wstring> entries;
    ForEachEntry(folder, [&](const std::wstring& name, DWORD attributes) {
        const std::wstring path = folder + L"\\" + name;
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        {
            isGone = DeleteFolder(path) && isGone;
            return;
        }
        ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL); // Read-only files cannot be deleted.
        if (!::DeleteFileW(path.c_str()))
        {
            isGone = false;
            ::MoveFileExW(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
        }
    });
    if (!::RemoveDirectoryW(folder.c_str()) && Exists(folder))
    {
        isGone = false;
        ::MoveFileExW(folder.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
    }
    return isGone;
}

/// Takes the new files out and puts the old ones back, as far as it went.
void Undo(const std::wstring& folder, const std::wstring& work)
{
    for (const std::wstring& file : ReadFileList(work + kBegun))
    {
        const std::wstring place = (folder + L"\\").append(file);
        const std::wstring staged = work + kNew + L"\\" + file;
        if (!Exists(staged) && Exists(place))
        {
            Move(place, staged);
        }
    }
    for (const std::wstring& file : FilesBelow(work + kOld))
    {
        Move(work + kOld + L"\\" + file, (folder + L"\\").append(file));
    }
}

void FinishEarlierRuns(const std::wstring& folder)
{
    const std::wstring all = folder + kWorkFolder;
    std::vector<std::wstring> runs;
    ForEachEntry(all, [&](const std::wstring& name, DWORD) { runs.push_back(all + L"\\" + name); });
    for (const std::wstring& work : runs)
    {
        if (!Exists(work + kCommitted))
        {
            Undo(folder, work);
        }
        static_cast<void>(DeleteFolder(work)); // What is in use waits for the system's next start.
    }
}

/// One that no earlier run has used: what is left of that may be waiting for its deletion.
std::wstring FreeWorkFolder(const std::wstring& folder)
{
    for (unsigned number = 1;; ++number)
    {
        std::wstring work = folder + kWorkFolder + L"\\" + std::to_wstring(number);
        if (!Exists(work))
        {
            return work;
        }
    }
}

} // namespace

bool Exists(const std::wstring& path) noexcept
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

CFileExchange::CFileExchange(std::wstring folder) : m_folder(std::move(folder))
{
    FinishEarlierRuns(m_folder);
    m_work = FreeWorkFolder(m_folder);
    m_oldFiles = ReadFileList(m_folder + L"\\" + kListName);
}

CFileExchange::~CFileExchange()
{
    if (m_isBegun)
    {
        return; // The next run puts back what Rollback could not.
    }
    try
    {
        static_cast<void>(DeleteFolder(m_work));
        removeEmptyFolders();
    }
    catch (const std::exception&) // NOLINT(bugprone-empty-catch): the next run deletes what stays.
    {
    }
}

void CFileExchange::Stage(const std::wstring& source)
{
    m_newFiles = FilesBelow(source);
    for (const std::wstring& file : m_newFiles)
    {
        Copy((source + L"\\").append(file), m_work + kNew + L"\\" + file);
    }
    // An installer's, which serves what a ZIP has put in the place of its files as well.
    if (HasName(m_oldFiles, kUninstaller) && !HasName(m_newFiles, kUninstaller))
    {
        Copy(m_folder + L"\\" + kUninstaller, m_work + kNew + L"\\" + kUninstaller);
        m_newFiles.emplace_back(kUninstaller);
    }
    m_newFiles.emplace_back(kListName);
    WriteFileList(m_work + kNew + L"\\" + kListName, m_newFiles);
}

void CFileExchange::Exchange()
{
    MakeFolder(m_work);
    WriteFileList(m_work + kBegun, m_newFiles);
    m_isBegun = true;
    moveOldAway();
    moveNewIn();
}

void CFileExchange::moveOldAway()
{
    std::vector<std::wstring> files = m_oldFiles;
    // What stands in the way of a new file and is not on the list comes back as well when this fails.
    std::ranges::copy_if(m_newFiles, std::back_inserter(files), [this](const std::wstring& file) {
        return !HasName(m_oldFiles, file);
    });
    for (const std::wstring& file : files)
    {
        const std::wstring place = (m_folder + L"\\").append(file);
        if (Exists(place))
        {
            Move(place, m_work + kOld + L"\\" + file);
        }
    }
}

void CFileExchange::moveNewIn()
{
    for (const std::wstring& file : m_newFiles)
    {
        Move(m_work + kNew + L"\\" + file, (m_folder + L"\\").append(file));
    }
}

void CFileExchange::Rollback()
{
    Undo(m_folder, m_work);
    m_isBegun = false;
}

bool CFileExchange::Commit()
{
    WriteFileList(m_work + kCommitted, {});
    m_isBegun = false;
    const bool isGone = DeleteFolder(m_work);
    removeEmptyFolders();
    return isGone;
}

/// The folders of files that are not there any more, the deepest first, and at last the product's own.
void CFileExchange::removeEmptyFolders() const noexcept
try
{
    std::set<std::wstring, std::greater<>> folders{m_folder + kWorkFolder};
    for (const std::wstring& file : m_oldFiles)
    {
        for (std::size_t end = file.rfind(L'\\'); end != std::wstring::npos && end != 0;
             end = file.rfind(L'\\', end - 1))
        {
            folders.insert((m_folder + L"\\").append(file, 0, end));
        }
    }
    folders.insert(m_folder);
    for (const std::wstring& folder : folders)
    {
        ::RemoveDirectoryW(folder.c_str()); // Fails where something is left in it.
    }
}
catch (const std::exception&)
{
    return; // Empty folders do no harm.
}

} // namespace TxCtl
