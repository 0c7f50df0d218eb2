#include "base/DllWrapperBase.h"

#include <utility>

#include "base/CallGuard.h"

namespace Basalt
{

namespace
{

using CountFunction = DWORD WINAPI();

/// The loader's last error is what the caller may ask for, not what the library left behind.
void CallCountFunction(HMODULE module, const char* name) noexcept
{
    const DWORD lastError = ::GetLastError();
    if (auto* const count = FindExport<CountFunction>(module, name))
    {
        static_cast<void>(CallGuarded([count] { count(); }));
    }
    ::SetLastError(lastError);
}

} // namespace

CDllWrapperBase::~CDllWrapperBase()
{
    const CLockGuard lock(m_loadGuard);
    if (m_module)
    {
        CallCountFunction(m_module.Get(), "DllRelease");
    }
}

DWORD CDllWrapperBase::Load(const wchar_t* path) noexcept
{
    const DWORD refused = CheckBeforeLoad();
    if (refused != ERROR_SUCCESS)
    {
        return refused;
    }
    // The library's code runs under the guard; it cannot reach this object, so it cannot wait for it.
    const CLockGuard lock(m_loadGuard);
    if (m_module)
    {
        return ERROR_SUCCESS;
    }
    CModule module(
        ::LoadLibraryExW(path, nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32));
    if (!module)
    {
        return ::GetLastError();
    }
    m_module = std::move(module);
    CallCountFunction(m_module.Get(), "DllAddRef");
    return ERROR_SUCCESS;
}

} // namespace Basalt
