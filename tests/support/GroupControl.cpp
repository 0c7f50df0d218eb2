#include "support/GroupControl.h"

#include "base/SystemLibrary.h"
#include "support/Errors.h"
#include "support/Installation.h"

namespace
{

constexpr wchar_t kComService[] = L"RpcSs";
constexpr DWORD kServiceTimeoutMs = 60000;

HRESULT CallEntry(const Basalt::CModule& module, const char* name) noexcept
{
    auto* const entry = Basalt::FindExport<HRESULT WINAPI()>(module.Get(), name);
    return entry == nullptr ? E_NOTIMPL : entry();
}

} // namespace

CProxyRegistration::CProxyRegistration(const std::wstring& path) : m_module(::LoadLibraryW(path.c_str()))
{
    ThrowIfFailed(static_cast<DWORD>(CallEntry(m_module, "DllRegisterServer")), L"registering " + path);
}

CProxyRegistration::~CProxyRegistration()
{
    static_cast<void>(CallEntry(m_module, "DllUnregisterServer"));
}

std::wstring SignedProxies(const std::wstring& variant)
{
    return BesideTest(L"proxies\\" + variant + L"\\TxSvHostPS.dll");
}

void ForgetClassObjects()
{
    constexpr DWORD kPollMs = 2;
    const Basalt::CServiceHandle service = OpenServiceByName(kComService, SERVICE_ALL_ACCESS);
    const DWORD before = QueryService(kComService).dwProcessId;
    SERVICE_STATUS status{};
    ::ControlService(service.Get(), SERVICE_CONTROL_STOP, &status);
    // Anybody's call through COM starts it as well, and right after its end Wine may refuse a start.
    const ULONGLONG end = ::GetTickCount64() + kServiceTimeoutMs;
    DWORD error = ERROR_SUCCESS;
    for (SERVICE_STATUS_PROCESS now = QueryService(kComService);
         now.dwCurrentState != SERVICE_RUNNING || now.dwProcessId == before;
         now = QueryService(kComService))
    {
        if (::GetTickCount64() >= end)
        {
            ThrowError(L"RpcSs does not restart", error);
        }
        error = ::StartServiceW(service.Get(), 0, nullptr) ? ERROR_SUCCESS : ::GetLastError();
        ::Sleep(kPollMs);
    }
}

ClassObject ConnectToHost()
{
    ITxSvcClassObject* classObject = nullptr;
    ThrowIfFailed(
        static_cast<DWORD>(::CoGetClassObject(
            CLSID_TxSvcSubsystemControlManager,
            CLSCTX_LOCAL_SERVER,
            nullptr,
            IID_ITxSvcClassObject,
            reinterpret_cast<void**>(&classObject))),
        L"connecting to the host");
    return ClassObject(classObject);
}

GroupControl ConnectToControl()
{
    const ClassObject classObject = ConnectToHost();
    ITxSvcSubsystemControlManager* control = nullptr;
    ThrowIfFailed(
        static_cast<DWORD>(classObject.Get()->CreateObject(
            IID_ITxSvcSubsystemControlManager, reinterpret_cast<void**>(&control))),
        L"creating a control manager");
    return GroupControl(control);
}
