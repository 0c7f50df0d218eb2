#include "proxy/ComApartment.h"

#include <windows.h>
#include <objbase.h>

#include "base/CallGuard.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"ComApartment";

} // namespace

CComApartment::CComApartment() noexcept : m_result(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}

CComApartment::~CComApartment()
{
    if (SUCCEEDED(m_result) && !Basalt::CallGuarded([] { ::CoUninitialize(); }))
    {
        TX_LOG(
            LogError,
            L"CComApartment::~CComApartment",
            L"Exception generated & suppressed during CoUninitialize");
    }
}
