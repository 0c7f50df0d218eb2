#pragma once

#include <windows.h>

#include "base/Owned.h"

namespace Basalt
{

/// Loads a DLL of Windows when it is first needed, from the system folder alone, so that a file of that name
/// beside the program, in the current folder or on the path is never picked up.
///
/// @param name file name with its extension, without a path.
/// @return null on failure, with the thread's last error set.
/// @see https://learn.microsoft.com/windows/win32/api/libloaderapi/nf-libloaderapi-loadlibraryexw
[[nodiscard]] inline CModule LoadSystemLibrary(const wchar_t* name) noexcept
{
    return CModule(::LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
}

/// GetProcAddress with the function's type in place of a cast at each call.
/// @return null when the module does not export the name, with the last error set; null as well for a null
/// module, with the last error left as it is: that of the load that failed.
template <typename Function>
[[nodiscard]] Function* FindExport(HMODULE module, const char* name) noexcept
{
    return module == nullptr
               ? nullptr
               : reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

} // namespace Basalt
