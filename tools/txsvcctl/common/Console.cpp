#include "txsvcctl/common/Console.h"

#include <algorithm>

#include "txsvcctl/common/Utf8.h"

namespace TxCtl
{

namespace
{

/// WriteConsoleW takes at most 64 KiB at once on older systems.
constexpr std::size_t kConsoleChunk = 8192;

bool WriteToConsole(HANDLE console, const std::wstring& text)
{
    for (std::size_t at = 0; at < text.size(); at += kConsoleChunk)
    {
        const auto length = static_cast<DWORD>(std::min(kConsoleChunk, text.size() - at));
        DWORD written = 0;
        if (!::WriteConsoleW(console, text.data() + at, length, &written, nullptr))
        {
            return false;
        }
    }
    return true;
}

bool WriteToFile(HANDLE file, const std::string& bytes)
{
    for (std::size_t at = 0; at < bytes.size();)
    {
        DWORD written = 0;
        const auto size = static_cast<DWORD>(bytes.size() - at);
        if (!::WriteFile(file, bytes.data() + at, size, &written, nullptr) || written == 0)
        {
            return false;
        }
        at += written;
    }
    return true;
}

std::wstring WithLineEnds(const std::wstring& text)
{
    std::wstring lines;
    for (const wchar_t character : text + L"\n")
    {
        if (character == L'\n')
        {
            lines += L'\r';
        }
        lines += character;
    }
    return lines;
}

} // namespace

void CStandardConsole::Out(const std::wstring& text)
{
    write(STD_OUTPUT_HANDLE, text);
}

void CStandardConsole::Repaint(const std::wstring& text)
{
    HANDLE handle = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (!::GetConsoleMode(handle, &mode) ||
        !::SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING))
    {
        Out(text);
        return;
    }
    // Line over line, each cleared behind its end: nothing flickers.
    std::wstring screen = L"\x1b[H";
    for (const wchar_t character : text)
    {
        screen += character == L'\n' ? L"\x1b[K\n" : std::wstring(1, character);
    }
    Out(screen + L"\x1b[K\x1b[J");
}

void CStandardConsole::Error(const std::wstring& text)
{
    write(STD_ERROR_HANDLE, text);
}

void CStandardConsole::write(DWORD standardHandle, const std::wstring& text)
{
    HANDLE handle = ::GetStdHandle(standardHandle);
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE)
    {
        return; // Started without this stream: nobody is there to miss the text.
    }
    const std::wstring lines = WithLineEnds(text);
    DWORD mode = 0;
    const bool isConsole = ::GetConsoleMode(handle, &mode);
    if (!(isConsole ? WriteToConsole(handle, lines) : WriteToFile(handle, ToUtf8(lines))))
    {
        m_hasFailed = true;
    }
}

} // namespace TxCtl
