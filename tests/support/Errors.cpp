#include "support/Errors.h"

#include <stdexcept>

#include "base/Text.h"
#include "support/Narrow.h"

void ThrowError(const std::wstring& text)
{
    throw std::runtime_error(Narrow(text));
}

void ThrowError(const std::wstring& operation, DWORD error)
{
    ThrowError(
        operation + L": error " + std::to_wstring(error) + L" (" + Basalt::SystemMessage(error) + L")");
}
