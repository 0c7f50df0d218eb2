#include "contract/LogSettings.h"

#include <cwchar>
#include <string_view>

namespace ETWLogging
{

namespace
{

bool IsDriveLetter(wchar_t letter) noexcept
{
    return (letter >= L'A' && letter <= L'Z') || (letter >= L'a' && letter <= L'z');
}

bool HasNone(std::wstring_view text, const wchar_t* forbidden) noexcept
{
    for (const wchar_t character : text)
    {
        if (character < L' ' || std::wcschr(forbidden, character) != nullptr)
        {
            return false;
        }
    }
    return true;
}

} // namespace

bool IsAbsolutePath(const std::wstring& path) noexcept
{
    if (path.size() < 3 || !HasNone(std::wstring_view(path).substr(2), L"<>:\"|?*"))
    {
        return false;
    }
    return (IsDriveLetter(path[0]) && path[1] == L':' && path[2] == L'\\') ||
           (path[0] == L'\\' && path[1] == L'\\' && path[2] != L'\\');
}

bool IsLogFileName(const std::wstring& name) noexcept
{
    const std::size_t dot = name.rfind(L'.');
    return dot != std::wstring::npos && dot != 0 && dot + 1 < name.size() && name.back() != L' ' &&
           HasNone(name, kNotInFileNames);
}

bool IsLogTag(const std::wstring& tag) noexcept
{
    return !tag.empty() && HasNone(tag, L"$"); // Readers split the line there.
}

} // namespace ETWLogging
