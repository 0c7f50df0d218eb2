#include "base/Paths.h"

#include <windows.h>

namespace Basalt
{

std::wstring ProgramPath()
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length < path.size())
        {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

std::wstring ProgramFolder()
{
    const std::wstring path = ProgramPath();
    return path.substr(0, path.rfind(L'\\') + 1);
}

} // namespace Basalt
