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
    const Basalt::CServiceHandle service = OpenServiceByName(kComService, SERVICE_ALL_ACCESS);
    SERVICE_STATUS status{};
    ::ControlService(service.Get(), SERVICE_CONTROL_STOP, &status);
    if (!WaitForServiceState(kComService, SERVICE_STOPPED, kServiceTimeoutMs) ||
        !::StartServiceW(service.Get(), 0, nullptr) ||
        !WaitForServiceState(kComService, SERVICE_RUNNING, kServiceTimeoutMs))
    {
        ThrowError(L"RpcSs does not restart");
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
