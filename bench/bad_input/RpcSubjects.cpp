/// @file
/// The proxies and stubs of TxSvHostPS.dll: whatever comes over the wire, a call ends with a code.
#include <windows.h>
#include <objbase.h>

#include <cstring>
#include <stdexcept>

#include "Campaign.h"
#include "TxSvcGroupControl.h"
#include "TxUpdateClient.h"
#include "base/SystemLibrary.h"
#include "support/TestFolder.h"

namespace
{

constexpr CLSID kProxyStubClass = {
    0x7D0C5E75, 0x6887, 0x4ED1, {0x82, 0x16, 0x85, 0x26, 0xBB, 0xB9, 0x16, 0x1B}};
constexpr IID kInterfaces[] = {
    {0xFD542581, 0x722E, 0x45BE, {0xBE, 0xD4, 0x62, 0xA1, 0xBE, 0x46, 0xAF, 0x03}},
    {0x6058502E, 0x6069, 0x43F4, {0xB7, 0x33, 0x12, 0x86, 0x49, 0xA2, 0x0B, 0xD5}},
    {0xFFBF163F, 0x925A, 0x41C4, {0x82, 0xA4, 0x0A, 0xC6, 0xAE, 0x77, 0xB9, 0xD2}},
    {0x58BB54E8, 0x773C, 0x47FB, {0xAF, 0xB9, 0x51, 0xE6, 0x44, 0xBA, 0xE0, 0x2D}}};
constexpr DWORD kLittleEndian = 0x10;

int KeepCode(DWORD code, DWORD& kept)
{
    kept = code;
    return EXCEPTION_EXECUTE_HANDLER;
}

/// Calls and gives the code of a structured exception that came out, 0 for none. COM's own caller of stubs
/// and proxies takes those of RPC, whose codes are Win32's, as failures.
DWORD CallFor(void (*call)(void* context), void* context)
{
    DWORD code = 0;
    __try
    {
        call(context);
    }
    __except (KeepCode(GetExceptionCode(), code))
    {
    }
    return code;
}

/// All four interfaces at once, by their tables: an object whose methods answer from the input.
struct Server
{
    static HRESULT STDMETHODCALLTYPE QueryInterface(Server* self, REFIID, void** object)
    {
        *object = self;
        return S_OK;
    }
    static ULONG STDMETHODCALLTYPE AddRef(Server*) { return 2; }
    static ULONG STDMETHODCALLTYPE Release(Server*) { return 1; }
};

/// The first method of each interface, and the second of the control's.
HRESULT STDMETHODCALLTYPE CreateNothing(Server*, REFIID, void** object)
{
    *object = nullptr;
    return E_NOINTERFACE;
}
HRESULT STDMETHODCALLTYPE DoNothing(Server*)
{
    return E_NOTIMPL;
}
HRESULT STDMETHODCALLTYPE Stop(Server*, DWORD, DWORD* processId)
{
    processId != nullptr ? void(*processId = 7) : void();
    return E_FAIL;
}
HRESULT STDMETHODCALLTYPE IsInstalling(Server*, DWORD* installing)
{
    *installing = 1;
    return S_OK;
}

template <typename... Methods>
std::array<void*, 3 + sizeof...(Methods)> TableOf(Methods*... methods)
{
    return {
        reinterpret_cast<void*>(&Server::QueryInterface),
        reinterpret_cast<void*>(&Server::AddRef),
        reinterpret_cast<void*>(&Server::Release),
        reinterpret_cast<void*>(methods)...};
}

/// What a proxy sends through: gives the input back as the answer. A stub takes its answer's place from it.
class CChannel final : public IRpcChannelBuffer
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override
    {
        *object = this;
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetBuffer(RPCOLEMESSAGE* message, REFIID) override
    {
        m_out.assign(message->cbBuffer, '\0');
        message->Buffer = m_out.data();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SendReceive(RPCOLEMESSAGE* message, ULONG* status) override
    {
        *status = 0;
        message->Buffer = m_in.Put(answer);
        message->cbBuffer = static_cast<ULONG>(answer.size());
        message->dataRepresentation = representation;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE FreeBuffer(RPCOLEMESSAGE*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetDestCtx(DWORD* context, void** more) override
    {
        *context = MSHCTX_LOCAL;
        *more = nullptr;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE IsConnected() override { return S_OK; }

    std::string_view answer;
    DWORD representation = kLittleEndian;

private:
    std::string m_out;
    CGuardedBytes m_in;
};

class CRpcBuffers final : public ISubject
{
public:
    CRpcBuffers()
    {
        static_cast<void>(::CoInitializeEx(nullptr, COINIT_MULTITHREADED));
        auto* const getClassObject = Basalt::FindExport<std::remove_pointer_t<LPFNGETCLASSOBJECT>>(
            m_module.Get(), "DllGetClassObject");
        if (getClassObject == nullptr ||
            FAILED(
                getClassObject(kProxyStubClass, IID_IPSFactoryBuffer, reinterpret_cast<void**>(&m_factory))))
        {
            throw std::runtime_error("TxSvHostPS.dll gives no factory");
        }
    }

    const char* Name() const noexcept override { return "RPC buffers"; }
    unsigned Share() const noexcept override { return 20; }
    std::vector<std::string> Seeds() const override
    {
        std::vector<std::string> seeds;
        for (char which = 0; which < 16; ++which)
        {
            seeds.push_back(std::string{which, '\x04', '\0'} + std::string(40, '\1'));
            seeds.push_back(
                std::string{which, '\x03', '\0'} + std::string("\0\0\2\0\5\0\0\0\0\0\0\0\0\0\0\0", 16));
        }
        return seeds;
    }

    void Try(CDecisions input) override
    {
        const BYTE which = input.Byte();
        m_interface = which % 4;
        m_method = input.Byte();
        m_representation = input.Flag() ? input.Number() : kLittleEndian;
        m_bytes = input.Rest();
        m_bytes = m_bytes.substr(0, 4000);
        const DWORD code = CallFor([](void* self) { static_cast<CRpcBuffers*>(self)->callStub(); }, this);
        Require(code < 0x10000, "a stub crashes");
        const DWORD proxyCode =
            CallFor([](void* self) { static_cast<CRpcBuffers*>(self)->callProxy(); }, this);
        Require(proxyCode == 0, "an exception leaves a proxy");
    }

private:
    void callStub()
    {
        IRpcStubBuffer* stub = m_stubs[m_interface];
        if (stub == nullptr)
        {
            if (FAILED(m_factory->CreateStub(
                    kInterfaces[m_interface], reinterpret_cast<IUnknown*>(&m_servers[m_interface]), &stub)))
            {
                throw std::runtime_error("no stub");
            }
            m_stubs[m_interface] = stub;
        }
        RPCOLEMESSAGE message{};
        message.Buffer = m_in.Put(m_bytes);
        message.cbBuffer = static_cast<ULONG>(m_bytes.size());
        message.dataRepresentation = m_representation;
        message.iMethod = m_method;
        static_cast<void>(stub->Invoke(&message, &m_channel));
    }

    void callProxy()
    {
        void*& proxy = m_proxies[m_interface];
        if (proxy == nullptr)
        {
            IRpcProxyBuffer* buffer = nullptr;
            if (FAILED(m_factory->CreateProxy(nullptr, kInterfaces[m_interface], &buffer, &proxy)) ||
                FAILED(buffer->Connect(&m_channel)))
            {
                throw std::runtime_error("no proxy");
            }
        }
        m_channel.answer = m_bytes;
        m_channel.representation = m_representation;
        DWORD number = 5;
        void* object = nullptr;
        if (m_interface < 2)
        {
            static_cast<void>(static_cast<ITxSvcClassObject*>(proxy)->CreateObject(IID_IUnknown, &object));
        }
        else if (m_interface == 2)
        {
            auto* const control = static_cast<ITxSvcSubsystemControlManager*>(proxy);
            static_cast<void>(
                m_method % 2 == 0 ? control->Reserved()
                                  : control->TxStopSvcSubsystem(0, m_method % 4 == 1 ? &number : nullptr));
        }
        else
        {
            static_cast<void>(static_cast<ITxUpdateClientRot*>(proxy)->IsInstalling(&number));
        }
    }

    std::array<void*, 4> m_create = TableOf(&CreateNothing);
    std::array<void*, 5> m_control = TableOf(&DoNothing, &Stop);
    std::array<void*, 4> m_rot = TableOf(&IsInstalling);
    void* m_servers[4] = {m_create.data(), m_create.data(), m_control.data(), m_rot.data()};
    Basalt::CModule m_module{::LoadLibraryW(BesideTest(L"TxSvHostPS.dll").c_str())};
    IPSFactoryBuffer* m_factory = nullptr; // These and the next live as long as the process.
    IRpcStubBuffer* m_stubs[4] = {};
    void* m_proxies[4] = {};
    CChannel m_channel;
    CGuardedBytes m_in;
    // Of this input.
    std::size_t m_interface = 0;
    ULONG m_method = 0;
    DWORD m_representation = 0;
    std::string_view m_bytes;
};

} // namespace

void AddRpcSubjects(Subjects& subjects)
{
    subjects.push_back(std::make_unique<CRpcBuffers>());
}
