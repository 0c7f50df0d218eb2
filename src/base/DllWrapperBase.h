#pragma once

#include <windows.h>

#include "base/Lock.h"
#include "base/Owned.h"
#include "base/SystemLibrary.h"

namespace Basalt
{

/// Owns one library that is loaded from a full path and may count its users by the exports "DllAddRef" and
/// "DllRelease", both optional.
///
/// An exception out of one of the library's functions is swallowed. Nothing here logs.
/// Threads: Load may be called from several at once, the library is loaded once.
class CDllWrapperBase
{
protected:
    /// Asked before each load; anything but 0 refuses it and becomes Load's result.
    [[nodiscard]] virtual DWORD CheckBeforeLoad() noexcept { return ERROR_SUCCESS; }

public:
    CDllWrapperBase() noexcept = default;
    CDllWrapperBase(const CDllWrapperBase&) = delete;
    CDllWrapperBase& operator=(const CDllWrapperBase&) = delete;
    /// Calls "DllRelease" where there is one, then frees the library.
    virtual ~CDllWrapperBase();

    /// Loads the library unless one is loaded already. What it imports is looked for beside it and in the
    /// system folder, nowhere else.
    /// @param path full path.
    /// @return 0, CheckBeforeLoad's refusal, or the system's error.
    /// @see https://learn.microsoft.com/windows/win32/api/libloaderapi/nf-libloaderapi-loadlibraryexw
    [[nodiscard]] DWORD Load(const wchar_t* path) noexcept;

protected:
    /// @return null when nothing is loaded or the library does not export the name, with the last error set.
    template <typename Function>
    [[nodiscard]] Function* Find(const char* name) noexcept
    {
        const CLockGuard lock(m_loadGuard);
        return FindExport<Function>(m_module.Get(), name);
    }

private:
    CLock m_loadGuard;
    CModule m_module TX_GUARDED_BY(m_loadGuard);
};

} // namespace Basalt
