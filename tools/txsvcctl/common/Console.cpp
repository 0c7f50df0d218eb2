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

bool IsConsole(HANDLE handle)
{
    DWORD mode = 0;
    return ::GetConsoleMode(handle, &mode) != FALSE;
}

/// @see https://no-color.org
bool IsColourUnwanted()
{
    return ::GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) > 1; // Set, and not empty.
}

} // namespace

CStandardConsole::~CStandardConsole()
{
    if (m_oldMode)
    {
        ::SetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), *m_oldMode);
    }
}

void CStandardConsole::Out(const std::wstring& text)
{
    write(STD_OUTPUT_HANDLE, text);
}

void CStandardConsole::Repaint(const std::wstring& text)
{
    if (!takesSequences())
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

void CStandardConsole::Progress(const std::wstring& text)
{
    HANDLE handle = ::GetStdHandle(STD_ERROR_HANDLE);
    if (!IsConsole(handle))
    {
        return;
    }
    // Blanks over the rest of the last one, which no console is too old for.
    const std::size_t rest = m_progressLength > text.size() ? m_progressLength - text.size() : 0;
    const std::wstring line = L"\r" + text + std::wstring(rest, L' ') + (text.empty() ? L"\r" : L"");
    m_hasFailed |= !WriteToConsole(handle, line);
    m_progressLength = text.size();
}

std::wstring CStandardConsole::Toned(const std::wstring& text, Tone tone)
{
    if (tone == Tone::Plain || text.empty() || IsColourUnwanted() || !takesSequences())
    {
        return text;
    }
    const wchar_t* const colour = tone == Tone::Good ? L"32" : tone == Tone::Doubtful ? L"33" : L"31";
    return std::wstring(L"\x1b[") + colour + L"m" + text + L"\x1b[0m";
}

bool CStandardConsole::takesSequences()
{
    HANDLE handle = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (!::GetConsoleMode(handle, &mode))
    {
        return false;
    }
    if ((mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) == 0)
    {
        if (!::SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING))
        {
            return false;
        }
        m_oldMode = mode;
    }
    return true;
}

void CStandardConsole::write(DWORD standardHandle, const std::wstring& text)
{
    if (m_progressLength != 0)
    {
        Progress({});
    }
    HANDLE handle = ::GetStdHandle(standardHandle);
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE)
    {
        return; // Started without this stream: nobody is there to miss the text.
    }
    const std::wstring lines = WithLineEnds(text);
    if (!(IsConsole(handle) ? WriteToConsole(handle, lines) : WriteToFile(handle, ToUtf8(lines))))
    {
        m_hasFailed = true;
    }
}

} // namespace TxCtl
