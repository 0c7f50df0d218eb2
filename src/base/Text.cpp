#include "base/Text.h"

#include <cwchar>

namespace Basalt
{

namespace
{

void AppendFormatV(std::wstring& text, const wchar_t* format, va_list arguments)
{
    va_list measured{};
    va_copy(measured, arguments);
    const int length = ::_vscwprintf(format, measured);
    va_end(measured);
    if (length <= 0)
    {
        return;
    }
    const std::size_t start = text.size();
    text.resize(start + static_cast<std::size_t>(length));
    // The underscore form: the standard one reads "%s" as a narrow string with this C++ library.
    ::_vsnwprintf(&text[start], static_cast<std::size_t>(length), format, arguments);
}

} // namespace

std::wstring FormatTextV(const wchar_t* format, va_list arguments)
{
    std::wstring text;
    AppendFormatV(text, format, arguments);
    return text;
}

std::wstring FormatText(const wchar_t* format, ...)
{
    va_list arguments{};
    va_start(arguments, format);
    std::wstring text = FormatTextV(format, arguments);
    va_end(arguments);
    return text;
}

void AppendFormat(std::wstring& text, const wchar_t* format, ...)
{
    va_list arguments{};
    va_start(arguments, format);
    AppendFormatV(text, format, arguments);
    va_end(arguments);
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
