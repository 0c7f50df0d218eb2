#pragma once

#include <windows.h>

#include <string>

namespace TxCtl
{

/// Where commands write. One call is one line, or several joined by "\n"; the line end is added.
class IConsole
{
public:
    virtual ~IConsole() = default;

    virtual void Out(const std::wstring& text) = 0;
    /// In the place of what was painted before, where the output can do that.
    virtual void Repaint(const std::wstring& text) { Out(text); }
    /// Messages about what went wrong, and notes that must not get into a redirected result.
    virtual void Error(const std::wstring& text) = 0;

    /// True when some output was lost, as on a full disk: the result must not count as success then, and a
    /// command that runs on must end.
    [[nodiscard]] virtual bool HasFailed() const noexcept { return false; }
};

/// Standard output and standard error of the process. A console window gets UTF-16 and so shows every
/// character whatever its code page; a file or pipe gets UTF-8 without a byte-order mark.
/// @see https://learn.microsoft.com/windows/console/writeconsole
class CStandardConsole final : public IConsole
{
public:
    void Out(const std::wstring& text) override;
    void Repaint(const std::wstring& text) override;
    void Error(const std::wstring& text) override;

    [[nodiscard]] bool HasFailed() const noexcept override { return m_hasFailed; }

private:
    void write(DWORD standardHandle, const std::wstring& text);

    bool m_hasFailed = false;
};

} // namespace TxCtl
