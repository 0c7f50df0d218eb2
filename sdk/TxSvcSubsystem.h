#pragma once

#include <windows.h>
#include <unknwn.h>

/// @file
/// What the shared service host and a hosted service (a subsystem) agree on.
///
/// A subsystem is a 64-bit COM in-process DLL named by a CLSID. The host loads the DLL that
/// HKEY_CLASSES_ROOT\CLSID\{...}\InprocServer32 names, asks its DllGetClassObject for ITxSvcClassObject,
/// creates the ITxSvcSubsystem with it and hands it the service's thread. TxSubsystemModule.h writes all of
/// that for you.

/// {98C36371-A729-44C7-A177-F8D76CE567C7}
inline constexpr IID IID_ITxSvcSubsystem = {
    0x98C36371, 0xA729, 0x44C7, {0xA1, 0x77, 0xF8, 0xD7, 0x6C, 0xE5, 0x67, 0xC7}};

/// {FD542581-722E-45BE-BED4-62A1BE46AF03}
inline constexpr IID IID_ITxSvcClassObject = {
    0xFD542581, 0x722E, 0x45BE, {0xBE, 0xD4, 0x62, 0xA1, 0xBE, 0x46, 0xAF, 0x03}};

/// Set as TxServiceMain's result, asks the host to unload the subsystem's DLL (100 ms after it returned) and
/// to trim the process's working set. Only for a DLL that has no thread of its own left and no object given
/// out.
inline constexpr DWORD kTxSvcUnloadModule = 0xDEADBABE;

/// One hosted service.
///
/// The host calls from a COM multithreaded apartment, on the thread that the service control manager started
/// for the service. An exception that leaves a method is caught and ends this service only.
struct ITxSvcSubsystem : IUnknown
{
    /// Runs the service until it has stopped, like a ServiceMain function: registers the control handler,
    /// reports every state including SERVICE_STOPPED with SetServiceStatus, and returns.
    ///
    /// @param argc   number of strings in @p argv, at least 1.
    /// @param argv   the service's name, then the arguments given to StartService; valid during the call.
    /// @param result 0 when called; logged by the host. kTxSvcUnloadModule unloads the DLL.
    /// @return a failed HRESULT says that the service could not run; the host then reports it stopped unless
    ///         the subsystem already did.
    /// @see https://learn.microsoft.com/windows/win32/services/service-servicemain-function
    virtual HRESULT STDMETHODCALLTYPE TxServiceMain(DWORD argc, LPWSTR* argv, DWORD* result) = 0;
};

/// What a module's DllGetClassObject returns: a class object with two arguments instead of IClassFactory's
/// three.
struct ITxSvcClassObject : IUnknown
{
    /// @param object receives the interface with one reference, or null on failure.
    virtual HRESULT STDMETHODCALLTYPE CreateObject(REFIID riid, void** object) = 0;
};
