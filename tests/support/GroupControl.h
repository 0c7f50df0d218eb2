#pragma once

#include <windows.h>
#include <objbase.h>

#include <string>

#include "TxSvcGroupControl.h"
#include "support/ComReference.h"

using ClassObject = CComReference<ITxSvcClassObject>;
using GroupControl = CComReference<ITxSvcSubsystemControlManager>;

/// A TxSvHostPS.dll, registered by its own entry points for the scope.
class CProxyRegistration
{
public:
    /// @param path of the DLL. @throws std::runtime_error
    explicit CProxyRegistration(const std::wstring& path);
    ~CProxyRegistration();
    CProxyRegistration(const CProxyRegistration&) = delete;
    CProxyRegistration& operator=(const CProxyRegistration&) = delete;

private:
    Basalt::CModule m_module;
};

/// Path of a copy of TxSvHostPS.dll in the build; the variants are those of sign-test-files.sh.
[[nodiscard]] std::wstring SignedProxies(const std::wstring& variant);

/// Restarts Wine's RpcSs service. Wine does not notice that a process ended without revoking its class
/// object, as one does that is ended by force: everybody who asks for the class is sent there, until the
/// service forgets.
/// @throws std::runtime_error
void ForgetClassObjects();

/// Connects to the class object of a host that runs a service. COM must be initialised.
/// @throws std::runtime_error
[[nodiscard]] ClassObject ConnectToHost();

/// ConnectToHost, then a manager. @throws std::runtime_error
[[nodiscard]] GroupControl ConnectToControl();
