#pragma once

#include <windows.h>

#include <cstdarg>
#include <string>

namespace Basalt
{

/// printf into a string of any length. "%s" takes a wide string, as everywhere in this program.
/// @throws std::bad_alloc
[[nodiscard]] std::wstring FormatText(const wchar_t* format, ...);
[[nodiscard]] std::wstring FormatTextV(const wchar_t* format, va_list arguments);

/// FormatText behind what the text already holds.
/// @throws std::bad_alloc
void AppendFormat(std::wstring& text, const wchar_t* format, ...);

/// The system's message text for an error code, without the line break at its end; empty when it has none.
/// @throws std::bad_alloc
[[nodiscard]] std::wstring SystemMessage(DWORD error);

/// Lower-cased by the runtime library's rules for the current locale.
[[nodiscard]] std::wstring LowerCased(std::wstring text);

} // namespace Basalt
