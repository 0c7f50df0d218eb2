#include "logging/controller/AutoLogController.h"

#include <new>
#include <string>
#include <utility>

#include "base/CallGuard.h"

namespace ETWLogging
{

namespace
{

/// @return null when there is no memory.
std::unique_ptr<LogControllerHelper> MakeHelper() noexcept
{
    std::unique_ptr<Basalt::ShlObjAPI> shell(new (std::nothrow) Basalt::ShlObjAPI);
    std::unique_ptr<Basalt::CRegKey> key(new (std::nothrow) Basalt::CRegKey);
    std::unique_ptr<LogProperties> properties(new (std::nothrow) LogProperties);
    if (shell == nullptr || key == nullptr || properties == nullptr)
    {
        return nullptr;
    }
    return std::unique_ptr<LogControllerHelper>(
        new (std::nothrow) LogControllerHelper(std::move(shell), std::move(key), std::move(properties)));
}

/// Takes the entry point when the library has it.
/// @return 0 or the system's error.
template <typename Function>
DWORD Take(Function* found, Function*& entryPoint) noexcept
{
    entryPoint = found;
    return found != nullptr ? DWORD{ERROR_SUCCESS} : ::GetLastError();
}

} // namespace

AutoLogController::AutoLogController(const wchar_t* applicationName) noexcept
    : m_applicationName(applicationName), m_helper(MakeHelper())
{
    m_status = start();
}

AutoLogController::~AutoLogController()
{
    if (m_stop != nullptr)
    {
        static_cast<void>(Basalt::CallGuarded([this] { m_stop(0, m_applicationName); }));
    }
}

DWORD AutoLogController::start() noexcept
{
    if (m_helper == nullptr)
    {
        return ERROR_OUTOFMEMORY;
    }
    DWORD status = loadLibrary();
    if (status == ERROR_SUCCESS)
    {
        status = resolveEntryPoints();
    }
    if (status == ERROR_SUCCESS &&
        !Basalt::CallGuarded([this, &status] { status = m_start(m_applicationName); }))
    {
        status = ERROR_INVALID_OPERATION;
    }
    return status;
}

DWORD AutoLogController::loadLibrary() noexcept
{
    std::wstring path;
    if (!m_helper->FindController(m_applicationName, path))
    {
        return ERROR_ACCESS_DENIED;
    }
    const DWORD status = Load(path.c_str());
    m_helper->LetGo(); // Held until here: what was loaded is what was checked.
    return status;
}

DWORD AutoLogController::resolveEntryPoints() noexcept
{
    DWORD status = Take(Find<TxSdk::LogControllerStart>("Start"), m_start);
    if (status == ERROR_SUCCESS)
    {
        status = Take(Find<TxSdk::LogControllerStop>("Stop"), m_stop);
    }
    if (status == ERROR_SUCCESS)
    {
        status = Take(Find<TxSdk::LogControllerRestartSession>("RestartSession"), m_restartSession);
    }
    if (status == ERROR_SUCCESS)
    {
        status = Take(Find<TxSdk::LogControllerFlushBuffers>("FlushBuffers"), m_flushBuffers);
    }
    return status;
}

} // namespace ETWLogging
