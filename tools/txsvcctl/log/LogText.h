#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "txsvcctl/log/LogSink.h"

namespace TxCtl
{

/// Splits the bytes of one log file, which come in pieces of any size, into entries.
///
/// The text may be UTF-16 or, line by line, UTF-8 or else of the system's code page. Lines that begin no
/// entry belong to the one before; text that comes before any entry is an entry of its own.
class CLogText
{
public:
    void Feed(const char* bytes, std::size_t size, ILogSink& sink);

    /// Nothing more is there for now: hands on the last entry unless its last line has no end yet.
    void Pause(ILogSink& sink);

    /// The file ends here. A torn last line is an entry if its time and level are whole, and else is dropped.
    void Finish(ILogSink& sink);

    /// The last bytes have been cut off the file again, as the logger does with a line that does not fit.
    /// @return false when they are more than the unfinished line.
    bool TakeBack(std::size_t bytes);

private:
    enum class Encoding
    {
        Unknown,
        Utf16,
        Narrow,
    };

    [[nodiscard]] bool findEncoding();
    [[nodiscard]] std::size_t lineEnd(std::size_t begin) const;
    [[nodiscard]] std::wstring decode(std::size_t begin, std::size_t end) const;
    void addLine(const std::wstring& line, ILogSink& sink);
    void handOn(ILogSink& sink);

    Encoding m_encoding = Encoding::Unknown;
    std::string m_bytes;             ///< The unfinished line.
    std::optional<LogEntry> m_entry; ///< More lines of it may come.
};

} // namespace TxCtl
