/// @file
/// The proxy/stub DLL: carries the interfaces of TxSvHost.idl between processes. In C, since the generated
/// code and the system's interface for it are.
///
/// The proxies and stubs are generated and compiled into this DLL as plain code ("-Os" stubs), never run by
/// the interpreter in the system's RPC library. That matters: the host's class object creates managers only
/// for callers whose code is in a trusted module, and its caller is the stub; the host trusts a class object
/// of another process only if the code of its methods, those of the proxy, is in a trusted module. So this
/// DLL's signature is what counts.
#include <windows.h>
#include <objbase.h>
#include <rpcproxy.h>

HRESULT STDMETHODCALLTYPE IUnknown_QueryInterface_Proxy(IUnknown* proxy, REFIID iid, void** object);
ULONG STDMETHODCALLTYPE IUnknown_AddRef_Proxy(IUnknown* proxy);
ULONG STDMETHODCALLTYPE IUnknown_Release_Proxy(IUnknown* proxy);

/// In the proxies' tables in the system's place: the first method is the one whose module the host looks at.
static HRESULT STDMETHODCALLTYPE QueryInterfaceHere(IUnknown* proxy, REFIID iid, void** object)
{
    return IUnknown_QueryInterface_Proxy(proxy, iid, object);
}

/// In the stubs' tables in the system's place: Wine 8 takes the method's number from the client unchecked as
/// an index.
static HRESULT STDMETHODCALLTYPE
InvokeChecked(IRpcStubBuffer* stub, RPCOLEMESSAGE* message, IRpcChannelBuffer* channel)
{
    const ULONG firstMethod = 3; // Those of IUnknown do not come this way.
    const CInterfaceStubHeader* const header = (const CInterfaceStubHeader*)stub->lpVtbl - 1;
    if (message->iMethod < firstMethod || message->iMethod >= (ULONG)header->DispatchTableCount)
    {
        return HRESULT_FROM_WIN32(RPC_S_PROCNUM_OUT_OF_RANGE);
    }
    return CStdStubBuffer_Invoke(stub, message, channel);
}

// The generated code's exception handling is the compiler's. The code of an exception is read in the filter:
// in the handler's block clang for mingw gives 0, which would turn every failed call into a success.
#define USE_COMPILER_EXCEPTIONS
#undef RpcExcept
#define RpcExcept(filter)                                                                                    \
    }                                                                                                        \
    __except (__frame->code = GetExceptionCode(), (filter))                                                  \
    {
#undef RpcExceptionCode
#define RpcExceptionCode() (__frame->code)

#define IUnknown_QueryInterface_Proxy QueryInterfaceHere
#define CStdStubBuffer_Invoke InvokeChecked
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wunused-parameter"
#include "TxSvHost_i.c"
#include "TxSvHost_p.c"
#pragma clang diagnostic pop

// {7D0C5E75-6887-4ED1-8216-8526BBB9161B}
static const CLSID kProxyStubClass = {
    0x7D0C5E75, 0x6887, 0x4ED1, {0x82, 0x16, 0x85, 0x26, 0xBB, 0xB9, 0x16, 0x1B}};

static const ProxyFileInfo* g_proxyFiles[] = {&TxSvHost_ProxyFileInfo, NULL};
static CStdPSFactoryBuffer g_factory;

static HMODULE OwnModule(void)
{
    HMODULE module = NULL;
    GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        (const wchar_t*)&g_factory,
        &module);
    return module;
}

/// Called through the stubs' tables.
ULONG STDMETHODCALLTYPE CStdStubBuffer_Release(IRpcStubBuffer* stub)
{
    return NdrCStdStubBuffer_Release(stub, (IPSFactoryBuffer*)&g_factory);
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object)
{
    return NdrDllGetClassObject(clsid, iid, object, g_proxyFiles, &kProxyStubClass, &g_factory);
}

STDAPI DllCanUnloadNow(void)
{
    return NdrDllCanUnloadNow(&g_factory);
}

/// For regsvr32: names this DLL, at the path where it is now, as the carrier of the interfaces.
STDAPI DllRegisterServer(void)
{
    return NdrDllRegisterProxy(OwnModule(), g_proxyFiles, &kProxyStubClass);
}

STDAPI DllUnregisterServer(void)
{
    return NdrDllUnregisterProxy(OwnModule(), g_proxyFiles, &kProxyStubClass);
}
