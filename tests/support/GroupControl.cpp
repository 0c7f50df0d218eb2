#include "support/GroupControl.h"

#include "base/SystemLibrary.h"
#include "support/Errors.h"
#include "support/ServiceScope.h"
#include "support/TestFolder.h"

namespace
{

constexpr wchar_t kComService[] = L"RpcSs";
constexpr DWORD kServiceTimeoutMs = 10000;
constexpr DWORD kPollMs = 10;

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
    const Basalt::CServiceHandle service = OpenServiceByName(kComService, SERVICE_ALL_ACCESS);
    SERVICE_STATUS status{};
    ::ControlService(service.Get(), SERVICE_CONTROL_STOP, &status);
    if (!WaitForServiceState(kComService, SERVICE_STOPPED, kServiceTimeoutMs) ||
        !::StartServiceW(service.Get(), 0, nullptr) ||
        !WaitForServiceState(kComService, SERVICE_RUNNING, kServiceTimeoutMs))
    {
        ThrowError(
            std::wstring(L"RpcSs does not restart, it is ") +
            ServiceStateName(QueryService(kComService).dwCurrentState));
    }
}

ClassObject ConnectToHost(DWORD timeoutMs)
{
    const ULONGLONG end = ::GetTickCount64() + timeoutMs;
    for (;;)
    {
        ITxSvcClassObject* classObject = nullptr;
        const HRESULT result = ::CoGetClassObject(
            CLSID_TxSvcSubsystemControlManager,
            CLSCTX_LOCAL_SERVER,
            nullptr,
            IID_ITxSvcClassObject,
            reinterpret_cast<void**>(&classObject));
        if (SUCCEEDED(result))
        {
            return ClassObject(classObject);
        }
        if (::GetTickCount64() >= end)
        {
            ThrowError(L"connecting to the host", static_cast<DWORD>(result));
        }
        ::Sleep(kPollMs);
    }
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
