#pragma once

#include <string>
#include <vector>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// A file or a folder.
[[nodiscard]] bool Exists(const std::wstring& path) noexcept;

/// Puts the files of one version in the place of another's, or takes them away: all of them or none.
///
/// Everything happens by renaming within the product's folder, which also works for programs and libraries
/// that run: the new files are copied into a work folder in there, the old ones are moved into it, the new
/// ones out of it. What was not committed is put back, also by the next run after this one was cut short.
/// The list of what is installed is a file in the folder itself, so that nothing else is ever touched.
/// All operations but the destructor throw CToolError.
class CFileExchange
{
public:
    /// Puts back what an earlier run left half done.
    /// @param folder of the product; it need not exist.
    explicit CFileExchange(std::wstring folder);
    /// Drops the work folder of an exchange that was not begun.
    ~CFileExchange();
    CFileExchange(const CFileExchange&) = delete;
    CFileExchange& operator=(const CFileExchange&) = delete;

    /// Copies the files below @p source into the work folder. Without it the exchange removes the product.
    void Stage(const std::wstring& source);
    /// A failure leaves what was exchanged so far for Rollback.
    void Exchange();
    void Rollback();
    /// Deletes the old files.
    /// @return false when some are still in use: the system deletes them when it starts next.
    [[nodiscard]] bool Commit();

    /// From Exchange on, until Rollback or Commit.
    [[nodiscard]] bool IsBegun() const noexcept { return m_isBegun; }
    [[nodiscard]] bool IsInstalled() const noexcept { return !m_oldFiles.empty(); }

private:
    void moveOldAway();
    void moveNewIn();
    void removeEmptyFolders() const noexcept;

    std::wstring m_folder;
    std::wstring m_work;
    std::vector<std::wstring> m_oldFiles; ///< relative to the folder, as the next ones
    std::vector<std::wstring> m_newFiles;
    bool m_isBegun = false;
};

} // namespace TxCtl
