#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "logging/LoggingIdentity.h"
#include "logging/logger/LoggingIf.h"

/// @file
/// The one way by which every component writes diagnostics. Include it in .cpp files, define the file's
/// source name once and log with TX_LOG:
///
///     constexpr wchar_t kLogSource[] = L"RegistryStore";
///     TX_LOG(LogError, L"CRegistryStore::OpenRegistryKey", L"Error 0x%08X on key '%s'", status, path);
///
/// "%s" takes a wide string or a std::wstring. A format that does not fit its arguments does not compile.
/// Logging never fails its caller: without a logger the call does nothing.

/// Logs with the file's kLogSource and the current line. Arguments are not evaluated for a level that
/// nobody is known to want; the text file wants all: ask LogIsEnabled first where they are costly.
#define TX_LOG(level, function, ...)                                                                         \
    (::ETWLogging::Detail::g_levelGate.IsClosed(level)                                                       \
         ? static_cast<void>(0)                                                                              \
         : static_cast<void>(                                                                                \
               ::ETWLogging::LogWrite((level), kLogSource, (function), __LINE__, __VA_ARGS__)))

namespace ETWLogging
{

class CLogBuilderIf;

/// Replaces the process's logging identity. Without effect once the logger exists.
/// Threads: the main thread, before others log.
void SetLoggingIdentity(const LoggingIdentity& identity) noexcept;
[[nodiscard]] LoggingIdentity GetLoggingIdentity() noexcept;

/// Has another builder make the process's logger: for a program that shows its log itself. Without effect
/// once the logger exists.
/// @param builder borrowed until the end of the process.
/// Threads: the main thread, before others log.
void SetLogBuilder(CLogBuilderIf& builder) noexcept;

/// True when there is a logger and it wants messages of this level. Creates the logger on first use.
[[nodiscard]] bool LogIsEnabled(DWORD level) noexcept;

/// The untyped emit call behind LogWrite.
/// @return 0, ERROR_FUNCTION_FAILED (1627) when no logger could be made, or the logger's error.
DWORD LogWriteUnchecked(
    DWORD level,
    const wchar_t* file,
    const wchar_t* function,
    DWORD line,
    const wchar_t* format,
    ...) noexcept;

namespace Detail
{

/// What a conversion of a format wants, and what an argument is.
enum class ArgumentKind : std::uint8_t
{
    Text,
    Integer32,
    Floating,
    Other,
};

template <typename T>
[[nodiscard]] consteval ArgumentKind KindOf() noexcept
{
    using Plain = std::decay_t<T>;
    if constexpr (std::is_same_v<Plain, std::wstring> || std::is_convertible_v<T, const wchar_t*>)
    {
        return ArgumentKind::Text;
    }
    else if constexpr ((std::is_integral_v<Plain> || std::is_enum_v<Plain>) && sizeof(Plain) <= sizeof(DWORD))
    {
        return ArgumentKind::Integer32;
    }
    else if constexpr (std::is_floating_point_v<Plain>)
    {
        return ArgumentKind::Floating;
    }
    else
    {
        return ArgumentKind::Other;
    }
}

[[nodiscard]] consteval ArgumentKind KindOfConversion(wchar_t conversion) noexcept
{
    switch (conversion)
    {
    case L's':
        return ArgumentKind::Text;
    case L'd':
    case L'u':
    case L'x':
    case L'X':
        return ArgumentKind::Integer32; // "%ld" and the like too: long has 32 bits on Windows.
    case L'f':
        return ArgumentKind::Floating;
    default:
        return ArgumentKind::Other;
    }
}

/// A string literal whose conversions fit Arguments; anything else is a compile error.
template <typename... Arguments>
class CFormat
{
public:
    template <std::size_t Size>
    consteval CFormat(const wchar_t (&text)[Size]) : m_text(text) // NOLINT(google-explicit-constructor)
    {
        constexpr ArgumentKind kinds[] = {KindOf<Arguments>()..., ArgumentKind::Other};
        std::size_t used = 0;
        for (std::size_t i = 0; i + 1 < Size; ++i)
        {
            if (text[i] != L'%')
            {
                continue;
            }
            ++i;
            while (text[i] == L'l' || text[i] == L'h' || text[i] == L'.' || text[i] == L'-' ||
                   (text[i] >= L'0' && text[i] <= L'9'))
            {
                ++i;
            }
            if (text[i] == L'%')
            {
                continue;
            }
            if (used >= sizeof...(Arguments) || kinds[used] != KindOfConversion(text[i]))
            {
                throw "the format does not fit its arguments";
            }
            ++used;
        }
        if (used != sizeof...(Arguments))
        {
            throw "more arguments than the format uses";
        }
    }

    [[nodiscard]] const wchar_t* Text() const noexcept { return m_text; }

private:
    const wchar_t* m_text;
};

/// The process logger's gate.
inline constinit CLevelGate g_levelGate;

template <typename T>
[[nodiscard]] T Pass(const T& argument) noexcept
{
    return argument;
}
[[nodiscard]] inline const wchar_t* Pass(const std::wstring& argument) noexcept
{
    return argument.c_str();
}
[[nodiscard]] inline const wchar_t* Pass(const wchar_t* argument) noexcept
{
    return argument;
}

} // namespace Detail

/// Writes one message to the process's logger, creating it on first use.
///
/// @param level    severity (LogLevel); numbers without a name are the logger's affair.
/// @param file     the caller's source name or path, as it stands.
/// @param function the caller's qualified name.
/// @param format   a wide printf format; checked against the arguments at compile time.
/// @return 0, ERROR_FUNCTION_FAILED (1627) when no logger could be made, or the logger's error.
template <typename... Arguments>
DWORD LogWrite(
    DWORD level,
    const wchar_t* file,
    const wchar_t* function,
    DWORD line,
    Detail::CFormat<std::type_identity_t<Arguments>...> format,
    const Arguments&... arguments) noexcept
{
    return LogWriteUnchecked(level, file, function, line, format.Text(), Detail::Pass(arguments)...);
}

} // namespace ETWLogging
