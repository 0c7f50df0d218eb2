#include "process/ComApartment.h"

#include "base/CallGuard.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"ComApartment";

} // namespace

CComApartment::CComApartment(COINIT model) noexcept : m_result(::CoInitializeEx(nullptr, model)) {}

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
