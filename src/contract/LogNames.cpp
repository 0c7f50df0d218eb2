#include "contract/LogNames.h"

#include <algorithm>
#include <cwchar>

#include "base/Text.h"
#include "contract/LogSettings.h"

namespace ETWLogging
{

namespace
{

/// Where the extension begins; the end when there is none.
std::size_t ExtensionOf(const std::wstring& path) noexcept
{
    const std::size_t dot = path.rfind(L'.');
    return dot == std::wstring::npos || dot < path.rfind(L'\\') + 1 ? path.size() : dot;
}

} // namespace

std::wstring DefaultLogFileName(const std::wstring& group)
{
    std::wstring name = group;
    for (wchar_t& character : name)
    {
        if (character < L' ' || std::wcschr(kNotInFileNames, character) != nullptr)
        {
            character = L'_';
        }
    }
    return name + L".log";
}

std::wstring DefaultLogTag(const std::wstring& program)
{
    const std::size_t name = program.rfind(L'\\') + 1;
    return program.substr(name, ExtensionOf(program) - name);
}

std::wstring RotatedLogPath(const std::wstring& path, DWORD number)
{
    std::wstring rotated = path;
    return number == 0 ? rotated : rotated.insert(ExtensionOf(path), Basalt::FormatText(L".%u", number));
}

} // namespace ETWLogging
