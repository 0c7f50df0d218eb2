#include "txsvcctl/common/Utf8.h"

#include <windows.h>

namespace TxCtl
{

std::wstring FromUtf8(const std::string& text)
{
    const auto size = static_cast<int>(text.size());
    const int length = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), length);
    return wide;
}

std::optional<std::wstring> OptionalFromUtf8(const std::optional<std::string>& text)
{
    return text ? std::optional(FromUtf8(*text)) : std::nullopt;
}

std::string ToUtf8(const std::wstring& text)
{
    const auto length = static_cast<int>(text.size());
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, narrow.data(), size, nullptr, nullptr);
    return narrow;
}

} // namespace TxCtl
