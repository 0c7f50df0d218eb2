#include "base/Text.h"

#include <cwchar>

namespace Basalt
{

std::wstring FormatText(const wchar_t* format, ...)
{
    va_list arguments; // NOLINT(cppcoreguidelines-init-variables): va_start does.
    va_start(arguments, format);
    std::wstring text = FormatTextV(format, arguments);
    va_end(arguments);
    return text;
}

std::wstring FormatTextV(const wchar_t* format, va_list arguments)
{
    va_list measured; // NOLINT(cppcoreguidelines-init-variables): va_copy does.
    va_copy(measured, arguments);
    const int length = ::_vscwprintf(format, measured);
    va_end(measured);
    if (length <= 0)
    {
        return {};
    }
    // The underscore form: the standard one reads "%s" as a narrow string with this C++ library.
    std::wstring text(static_cast<std::size_t>(length), L'\0');
    ::_vsnwprintf(text.data(), text.size(), format, arguments);
    return text;
}

std::wstring SystemMessage(DWORD error)
{
    constexpr DWORD kLongest = 1024;
    std::wstring text(kLongest, L'\0');
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr,
        error,
        0,
        text.data(),
        kLongest,
        nullptr);
    text.resize(length);
    text.erase(text.find_last_not_of(L"\r\n ") + 1);
    return text;
}

std::wstring LowerCased(std::wstring text)
{
    ::_wcslwr(text.data());
    return text;
}

} // namespace Basalt
