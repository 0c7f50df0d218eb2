#include "control/TxUpdateMgr_Helper.h"

#include <windows.h>
#include <objbase.h>
#include <oleauto.h>

#include <cwchar>
#include <new>

#include "base/ClassObject.h"
#include "base/Owned.h"
#include "base/SystemLibrary.h"
#include "control/AnsiRegistryReader.h"
#include "control/TrustedCreation.h"
#include "control/UpdateManager.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxUpdateMgr_Helper";

constexpr wchar_t kUpdateKey[] = L"SOFTWARE\\Tarvex\\UPDMGR";
constexpr wchar_t kVolatileKey[] = L"SOFTWARE\\Tarvex\\Volatile";
constexpr wchar_t kDefaultVolatileKey[] = L"SOFTWARE\\Tarvex\\Volatile\\KSC";

/// Characters of an event's name; what is longer is cut off.
constexpr std::size_t kEventNameCapacity = 260;
/// The longest key name below, with the longest instance.
constexpr std::size_t kKeyCapacity = CTxUpdateMgr_Helper::kInstanceCapacity + 64;

/// A BSTR for as long as the object lives. The DLL of BSTRs is loaded for it: no host needs it but one that
/// cancels an update.
class CBstr
{
public:
    /// @throws std::bad_alloc also when the system cannot load its DLL.
    explicit CBstr(const wchar_t* text)
    {
        auto* const allocate =
            Basalt::FindExport<decltype(::SysAllocString)>(m_oleaut.Get(), "SysAllocString");
        m_text = allocate != nullptr ? allocate(text) : nullptr;
        if (m_text == nullptr)
        {
            throw std::bad_alloc();
        }
    }
    ~CBstr() { Basalt::FindExport<decltype(::SysFreeString)>(m_oleaut.Get(), "SysFreeString")(m_text); }
    CBstr(const CBstr&) = delete;
    CBstr& operator=(const CBstr&) = delete;

    [[nodiscard]] BSTR Get() const noexcept { return m_text; }

private:
    const Basalt::CModule m_oleaut = Basalt::LoadSystemLibrary(L"oleaut32.dll");
    BSTR m_text = nullptr;
};

/// Formats into a buffer that starts as zeros, so that a text which does not fit still ends.
template <std::size_t Size>
void Format(
    wchar_t (&buffer)[Size], const wchar_t* format, const wchar_t* first, const wchar_t* second) noexcept
{
    // The underscore form: the standard one reads "%s" as a narrow string with this C++ library.
    static_cast<void>(::_snwprintf(buffer, Size - 1, format, first, second));
}

} // namespace

CTxUpdateMgr_Helper::CTxUpdateMgr_Helper() noexcept
{
    LoggingIdentity identity;
    identity.group = L"UPDMGR";
    identity.host = nullptr;
    SetLoggingIdentity(identity);
}

bool CTxUpdateMgr_Helper::SetInstance(const wchar_t* name) noexcept
{
    if (name == nullptr || std::wcslen(name) >= kInstanceCapacity)
    {
        return false;
    }
    std::wcscpy(m_instance, name);
    return true;
}

HANDLE CTxUpdateMgr_Helper::openEvent() const noexcept
{
    wchar_t name[kEventNameCapacity] = {};
    Format(name, L"%s%s", kTxUpdateEventPrefix, m_instance);
    return ::OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, name);
}

HRESULT CTxUpdateMgr_Helper::IsUpdateRunning(BOOL* running) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxUpdateMgr_Helper::IsUpdateRunning";
    if (running == nullptr)
    {
        TX_LOG(LogError, kFunction, L"Invalid parameter!");
        return E_POINTER;
    }
    TX_LOG(LogNormal, kFunction, L"Checking if an update is currently running....");
    // That the event exists is the whole answer, its state says nothing.
    if (Basalt::CHandle(openEvent()))
    {
        TX_LOG(LogNormal, kFunction, L"An update is running.");
        *running = 1;
    }
    else
    {
        TX_LOG(LogNormal, kFunction, L"An update is NOT running.");
        *running = 0;
    }
    return S_OK;
}

HRESULT CTxUpdateMgr_Helper::IsUpdateRunning2(BOOL* running, DWORD* phase) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxUpdateMgr_Helper::IsUpdateRunning2";
    if (running == nullptr || phase == nullptr)
    {
        TX_LOG(LogError, kFunction, L"The pbRunning or pbRemindPending or pdwPhase is invalid!");
        return E_POINTER;
    }
    if (FAILED(IsUpdateRunning(running)) || *running == 0)
    {
        return S_OK;
    }
    wchar_t key[kKeyCapacity] = {};
    Format(key, L"%s\\Update\\pkg_%s", kUpdateKey, m_instance);
    DWORD value = 0;
    DWORD type = REG_DWORD;
    DWORD size = sizeof(value);
    const DWORD error = ReadAnsiRegistryValue(HKEY_LOCAL_MACHINE, key, L"phase", type, &value, size);
    if (error != ERROR_SUCCESS || type != REG_DWORD)
    {
        TX_LOG(LogWarning, kFunction, L"Failed to read update phase from the registry - error %d", error);
        value = 0; // Text or a part of something larger is no phase.
    }
    *phase = value;
    return S_OK;
}

HRESULT CTxUpdateMgr_Helper::IsRestartPending(BOOL* pending) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxUpdateMgr_Helper::IsRestartPending";
    TX_LOG(LogNormal, kFunction, L"Checking if restart is pending...");
    if (pending == nullptr)
    {
        TX_LOG(LogError, kFunction, L"The pbPending parameter is invalid!");
        return E_POINTER;
    }
    *pending = 0;
    wchar_t otherKey[kKeyCapacity] = {};
    const wchar_t* key = kDefaultVolatileKey;
    if (std::wcscmp(m_instance, kTxUpdateDefaultInstance) != 0)
    {
        Format(otherKey, L"%s\\%s", kVolatileKey, m_instance);
        key = otherKey;
    }
    DWORD value = 0;
    DWORD type = REG_DWORD;
    DWORD size = sizeof(value);
    const DWORD error =
        ReadAnsiRegistryValue(HKEY_LOCAL_MACHINE, key, L"IsRestartPending", type, &value, size);
    if (error != ERROR_SUCCESS)
    {
        TX_LOG(
            LogWarning, kFunction, L"Failed to read IsRestartPending value from registry - error %d", error);
    }
    else if (type != REG_DWORD)
    {
        TX_LOG(LogWarning, kFunction, L"Invalid value type");
    }
    else if (value == 1)
    {
        *pending = 1;
    }
    if (*pending == 1)
    {
        TX_LOG(LogNormal, kFunction, L"Restart is pending");
    }
    else
    {
        TX_LOG(LogNormal, kFunction, L"No restart is pending");
    }
    return S_OK;
}

HRESULT CTxUpdateMgr_Helper::RemindRestart() noexcept
{
    const Basalt::CHandle event(openEvent());
    if (!event)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(
            LogError,
            L"CTxUpdateMgr_Helper::RemindRestart",
            L"Failed to open remind restart event - error %d",
            error);
        return E_FAIL;
    }
    ::SetEvent(event.Get());
    return S_OK;
}

HRESULT CTxUpdateMgr_Helper::CancelUpdate()
{
    constexpr wchar_t kFunction[] = L"CTxUpdateMgr_Helper::CancelUpdate";
    TX_LOG(LogInformation, kFunction, L"Cancelling updates...");
    Basalt::CForeignReference<ITxUpdateAgent> agent;
    const HRESULT created = CreateTrustedObject(
        CLSID_TxUpdateAgent, CLSCTX_INPROC_SERVER, IID_ITxUpdateAgent, reinterpret_cast<void**>(agent.Put()));
    if (FAILED(created))
    {
        TX_LOG(LogError, kFunction, L"Failed to create update agent object. hr = 0x%08x", created);
        return created;
    }
    const CBstr instance(m_instance);
    return Basalt::CallForeign(
        agent.Get(), kCancelSlot, [&agent, &instance] { return agent.Get()->Cancel(instance.Get()); });
}

HRESULT CTxUpdateMgr_Helper::CancelUpdate2(BOOL* cancelled)
{
    constexpr wchar_t kFunction[] = L"CTxUpdateMgr_Helper::CancelUpdate2";
    if (cancelled == nullptr)
    {
        TX_LOG(LogError, kFunction, L"Invalid parameter!");
        return E_POINTER;
    }
    const HRESULT result = CancelUpdate();
    if (result == S_OK) // S_FALSE is no success here: the agent had nothing to cancel.
    {
        *cancelled = 1;
        TX_LOG(LogInformation, kFunction, L"Successfully send cancel request");
    }
    else
    {
        *cancelled = 0;
        TX_LOG(LogError, kFunction, L"Failed to send cancel request. hr = 0x%08x", result);
    }
    return result;
}
