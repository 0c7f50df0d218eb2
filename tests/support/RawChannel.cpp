#include "support/RawChannel.h"

#include <algorithm>

#include "support/ComReference.h"
#include "support/Errors.h"

namespace
{

// {59E3C1A2-0F0B-4D0D-9C46-5F7C0C5B2B10}
constexpr CLSID kFactoryClass = {
    0x59E3C1A2, 0x0F0B, 0x4D0D, {0x9C, 0x46, 0x5F, 0x7C, 0x0C, 0x5B, 0x2B, 0x10}};

/// What the caller gets in the proxy's place: all of it is the outer object's.
struct CDelegate final : IUnknown
{
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        return outer->QueryInterface(iid, object);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return outer->AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return outer->Release(); }

    IUnknown* outer = nullptr;
};

} // namespace

/// Static for COM: it lives as long as its CRawChannel, whatever the references say.
class CRawChannel::CFactory final : public IPSFactoryBuffer, public IRpcProxyBuffer
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        *object = iid == IID_IRpcProxyBuffer ? static_cast<void*>(static_cast<IRpcProxyBuffer*>(this))
                                             : static_cast<IPSFactoryBuffer*>(this);
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT STDMETHODCALLTYPE
    CreateProxy(IUnknown* outer, REFIID, IRpcProxyBuffer** proxy, void** object) override
    {
        delegate.outer = outer;
        *proxy = this;
        *object = &delegate;
        outer->AddRef();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE CreateStub(REFIID, IUnknown*, IRpcStubBuffer**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Connect(IRpcChannelBuffer* connected) override
    {
        connected->AddRef();
        channel.Reset(connected);
        return S_OK;
    }
    void STDMETHODCALLTYPE Disconnect() override { channel.Reset(); }

    CDelegate delegate;
    CComReference<IRpcChannelBuffer> channel;
};

CRawChannel::CRawChannel(REFIID iid) : m_iid(iid), m_factory(new CFactory)
{
    ThrowIfFailed(static_cast<DWORD>(::CoGetPSClsid(iid, &m_realFactory)), L"looking up the real factory");
    ThrowIfFailed(
        static_cast<DWORD>(::CoRegisterClassObject(
            kFactoryClass,
            static_cast<IPSFactoryBuffer*>(m_factory),
            CLSCTX_INPROC_SERVER,
            REGCLS_MULTIPLEUSE,
            &m_cookie)),
        L"registering a proxy factory");
    ThrowIfFailed(
        static_cast<DWORD>(::CoRegisterPSClsid(iid, kFactoryClass)), L"naming it for the interface");
}

CRawChannel::~CRawChannel()
{
    ::CoRegisterPSClsid(m_iid, m_realFactory);
    ::CoRevokeClassObject(m_cookie);
    delete m_factory;
}

HRESULT CRawChannel::Call(ULONG method, const std::vector<BYTE>& request) const
{
    constexpr ULONG kLittleEndian = 0x10;
    if (!m_factory->channel)
    {
        return CO_E_OBJNOTCONNECTED;
    }
    IRpcChannelBuffer* const channel = m_factory->channel.Get();
    RPCOLEMESSAGE message{};
    message.cbBuffer = static_cast<ULONG>(request.size());
    message.iMethod = method;
    message.dataRepresentation = kLittleEndian;
    HRESULT result = channel->GetBuffer(&message, m_iid);
    if (FAILED(result))
    {
        return result;
    }
    std::copy(request.begin(), request.end(), static_cast<BYTE*>(message.Buffer));
    ULONG status = 0;
    result = channel->SendReceive(&message, &status);
    if (SUCCEEDED(result))
    {
        channel->FreeBuffer(&message);
    }
    return result;
}
