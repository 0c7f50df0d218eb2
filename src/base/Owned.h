#pragma once

#include <windows.h>

#include <utility>

namespace Basalt
{

/// Owns one resource or registration and closes it once. Closing keeps the thread's last error.
///
/// Traits give the type, the value that stands for "nothing" (null for most handles, INVALID_HANDLE_VALUE
/// for CreateFileW: mixing the two up leaks or closes -1, so each has a type of its own) and how to close.
/// Threads: an object belongs to one thread at a time, like the handle in it.
template <typename Traits>
class COwned
{
public:
    using Type = typename Traits::Type;

    COwned() noexcept = default;
    explicit COwned(Type value) noexcept : m_value(value) {}
    COwned(COwned&& other) noexcept : m_value(other.Release()) {}
    COwned& operator=(COwned&& other) noexcept
    {
        if (this != &other)
        {
            Reset(other.Release());
        }
        return *this;
    }
    COwned(const COwned&) = delete;
    COwned& operator=(const COwned&) = delete;
    ~COwned() { Reset(); }

    [[nodiscard]] explicit operator bool() const noexcept { return m_value != Traits::Invalid(); }
    [[nodiscard]] Type Get() const noexcept { return m_value; }

    /// Gives up ownership: the caller closes what it gets.
    [[nodiscard]] Type Release() noexcept { return std::exchange(m_value, Traits::Invalid()); }

    /// For out-parameters: closes what is held and gives the address to fill.
    [[nodiscard]] Type* Put() noexcept
    {
        Reset();
        return &m_value;
    }

    void Reset(Type value = Traits::Invalid()) noexcept
    {
        const Type old = std::exchange(m_value, value);
        if (old != Traits::Invalid())
        {
            const DWORD lastError = ::GetLastError();
            Traits::Close(old);
            ::SetLastError(lastError);
        }
    }

private:
    Type m_value = Traits::Invalid();
};

/// Events, mutexes, threads, processes, tokens: null stands for nothing.
struct HandleTraits
{
    using Type = HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { ::CloseHandle(value); }
};
using CHandle = COwned<HandleTraits>;

/// What CreateFileW and CreateNamedPipeW return: INVALID_HANDLE_VALUE stands for nothing.
struct FileTraits
{
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type value) noexcept { ::CloseHandle(value); }
};
using CFile = COwned<FileTraits>;

/// A wait that threads of the process's pool carry out. Closing does not end callbacks that run.
struct PoolWaitTraits
{
    using Type = PTP_WAIT;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { ::CloseThreadpoolWait(value); }
};
using CPoolWait = COwned<PoolWaitTraits>;

/// What FindFirstChangeNotificationW returns.
struct ChangeNotificationTraits
{
    using Type = HANDLE;
    static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void Close(Type value) noexcept { ::FindCloseChangeNotification(value); }
};
using CChangeNotification = COwned<ChangeNotificationTraits>;

struct ModuleTraits
{
    using Type = HMODULE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { ::FreeLibrary(value); }
};
using CModule = COwned<ModuleTraits>;

/// Handles of the service control manager and of its services.
struct ServiceTraits
{
    using Type = SC_HANDLE;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { ::CloseServiceHandle(value); }
};
using CServiceHandle = COwned<ServiceTraits>;

struct LocalMemoryTraits
{
    using Type = HLOCAL;
    static Type Invalid() noexcept { return nullptr; }
    static void Close(Type value) noexcept { ::LocalFree(value); }
};
using CLocalMemory = COwned<LocalMemoryTraits>;

} // namespace Basalt
