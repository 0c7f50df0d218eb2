#pragma once

#include <windows.h>

#include <string>

#include "base/Owned.h"

namespace Basalt
{

/// A module file that passed the trusted-module check and stays what it was while this object lives: it is
/// held open so that nobody can write, replace, rename or delete it between the check and the load.
///
/// A file is trusted when it carries a valid Authenticode signature whose signer's common name is exactly one
/// of the product's two. "Valid" is WinVerifyTrust's word: the file's hash, the signature over it, a chain to
/// a trusted root, each certificate's purpose and time, and revocation as far as the machine's cache knows
/// it. The network is never asked: the check also runs at boot. Wine 8 is laxer (see
/// docs/trust-and-start.md).
///
/// wintrust.dll and crypt32.dll are loaded from the system folder when the first check is made.
/// Threads: an object belongs to one thread at a time; checks may run side by side.
/// @see https://learn.microsoft.com/windows/win32/api/wintrust/nf-wintrust-winverifytrust
class CTrustedFile
{
public:
    /// Opens and checks a file; what the object held before is let go first. Nothing is held after a failure.
    ///
    /// @param path full path with a drive or a server: what a relative one means is not for us to choose.
    /// @return 0 for a trusted file, else a system error code (winerror.h):
    ///         - ERROR_INVALID_PARAMETER (87): the path is empty
    ///         - ERROR_BAD_PATHNAME: the path is not a full one
    ///         - ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_ACCESS_DENIED (also for a folder),
    ///           ERROR_SHARING_VIOLATION (somebody may write to it) and the like: it could not be opened
    ///         - TRUST_E_NOSIGNATURE: not signed, or not a file that can carry a signature
    ///         - TRUST_E_BAD_DIGEST and whatever else WinVerifyTrust answers: the signature is broken
    ///         - CERT_E_CN_NO_MATCH: a valid signature of somebody else
    [[nodiscard]] DWORD Open(const std::wstring& path) noexcept;

    void Close() noexcept { m_file.Reset(); }
    [[nodiscard]] explicit operator bool() const noexcept { return static_cast<bool>(m_file); }

private:
    CFile m_file;
};

/// The verdict alone, for a module that is loaded already. Results as for CTrustedFile::Open.
[[nodiscard]] DWORD CheckTrustedModule(const std::wstring& path) noexcept;

} // namespace Basalt
