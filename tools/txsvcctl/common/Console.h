#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace TxCtl
{

/// What a text says beside its words.
enum class Tone
{
    Plain,
    Good,
    Doubtful,
    Bad,
};

/// Where commands write. One call is one line, or several joined by "\n"; the line end is added.
class IConsole
{
public:
    virtual ~IConsole() = default;

    /// What was asked for.
    virtual void Out(const std::wstring& text) = 0;
    /// What a command has done; --quiet leaves it out.
    virtual void Done(const std::wstring& text) { Out(text); }
    /// In the place of what was painted before, where the output can do that.
    virtual void Repaint(const std::wstring& text) { Out(text); }
    /// Messages about what went wrong.
    virtual void Error(const std::wstring& text) = 0;
    /// What is worth knowing but no failure; --quiet leaves it out.
    virtual void Note(const std::wstring& text) { Error(L"note: " + text); }

    /// What is waited for, in the place of the last such text, where somebody looks on. Empty when the wait
    /// is over.
    virtual void Progress(const std::wstring& /*text*/) {}

    /// The text in the colour of its tone, where the output shows colours.
    [[nodiscard]] virtual std::wstring Toned(const std::wstring& text, Tone /*tone*/) { return text; }

    /// True when some output was lost, as on a full disk: the result must not count as success then, and a
    /// command that runs on must end.
    [[nodiscard]] virtual bool HasFailed() const noexcept { return false; }
};

/// Standard output and standard error of the process. A console window gets UTF-16 and so shows every
/// character whatever its code page; a file or pipe gets UTF-8 without a byte-order mark. Colours and
/// progress are for a console only, colours also not where the environment has NO_COLOR.
/// @see https://learn.microsoft.com/windows/console/writeconsole
class CStandardConsole final : public IConsole
{
public:
    CStandardConsole() = default;
    /// Leaves the console as it was found.
    ~CStandardConsole() override;
    CStandardConsole(const CStandardConsole&) = delete;
    CStandardConsole& operator=(const CStandardConsole&) = delete;

    void Out(const std::wstring& text) override;
    void Repaint(const std::wstring& text) override;
    void Error(const std::wstring& text) override;
    void Progress(const std::wstring& text) override;
    [[nodiscard]] std::wstring Toned(const std::wstring& text, Tone tone) override;

    [[nodiscard]] bool HasFailed() const noexcept override { return m_hasFailed; }

private:
    void write(DWORD standardHandle, const std::wstring& text);
    /// Whether the output is a console that follows escape sequences; has it follow them.
    [[nodiscard]] bool takesSequences();

    bool m_hasFailed = false;
    std::size_t m_progressLength = 0; ///< Of what stands there now.
    std::optional<DWORD> m_oldMode;   ///< Of the console, where it was changed.
};

} // namespace TxCtl
