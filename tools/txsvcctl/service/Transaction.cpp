#include "txsvcctl/service/Transaction.h"

namespace TxCtl
{

namespace
{

constexpr wchar_t kMutexName[] = L"Global\\TarvexTxSvcCtl";
constexpr DWORD kMutexTimeoutMs = 30000;

} // namespace

CExclusive::CExclusive() : m_mutex(::CreateMutexW(nullptr, FALSE, kMutexName))
{
    if (!m_mutex)
    {
        ThrowFailure(L"create mutex", kMutexName, ::GetLastError());
    }
    const DWORD result = ::WaitForSingleObject(m_mutex.Get(), kMutexTimeoutMs);
    if (result != WAIT_OBJECT_0 && result != WAIT_ABANDONED)
    {
        ThrowFailed(L"another txsvcctl is changing services; try again when it has ended");
    }
}

} // namespace TxCtl
