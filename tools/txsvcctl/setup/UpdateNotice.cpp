#include "txsvcctl/setup/UpdateNotice.h"

#include <objbase.h>

#include <string>

#include "TxUpdateClient.h"
#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

/// Objects that live as long as the program: their references need no counting.
template <typename Interface, const IID& Id>
class CStatic : public Interface
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        *object = iid == Id || iid == IID_IUnknown ? static_cast<Interface*>(this) : nullptr;
        return *object != nullptr ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
};

class CUpdateClient final : public CStatic<ITxUpdateClientRot, IID_ITxUpdateClientRot>
{
public:
    HRESULT STDMETHODCALLTYPE IsInstalling(DWORD* installing) override
    {
        *installing = 1;
        return S_OK;
    }
};

class CUpdateClientClass final : public CStatic<ITxSvcClassObject, IID_ITxSvcClassObject>
{
public:
    HRESULT STDMETHODCALLTYPE CreateObject(REFIID iid, void** object) override
    {
        return m_client.QueryInterface(iid, object);
    }

private:
    CUpdateClient m_client;
};

CUpdateClientClass g_class;

} // namespace

CUpdateNotice::CUpdateNotice(IConsole& console)
{
    const HRESULT result = ::CoRegisterClassObject(
        CLSID_TxUpdateClient, &g_class, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, &m_cookie);
    if (FAILED(result)) // With the event alone each host would log an error.
    {
        console.Note(L"hosts cannot be told of the update: " + DescribeError(static_cast<DWORD>(result)));
        return;
    }
    // Made last and closed first: whoever finds the event must find the class object too.
    const std::wstring name = std::wstring(kTxUpdateEventPrefix) + kTxUpdateDefaultInstance;
    m_event.Reset(::CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
    const DWORD error = ::GetLastError();
    if (!m_event || error == ERROR_ALREADY_EXISTS)
    {
        End();
        ThrowFailure(L"announce", L"the update (is another one being installed?)", error);
    }
}

void CUpdateNotice::End() noexcept
{
    m_event.Reset();
    if (m_cookie != 0)
    {
        ::CoRevokeClassObject(m_cookie);
        m_cookie = 0;
    }
}

} // namespace TxCtl
