#pragma once

#include <windows.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// What every driver of ./prove is told: --length N --minutes N --seed N --json FILE, and words of its own.
struct ProofOptions
{
    unsigned long long length = 0; ///< In the driver's own units; 0 when it was not given.
    unsigned minutes = 0;          ///< After which it is enough, whatever the length; 0 for no end.
    unsigned seed = 1;
    std::wstring json;
    std::map<std::wstring, std::wstring> own; ///< The driver's other words, each with its value.

    /// @param words that have a value; @p flags have none. @return nothing for anything else.
    [[nodiscard]] static std::optional<ProofOptions> Parse(
        int argc,
        wchar_t** argv,
        const std::vector<std::wstring>& words = {},
        const std::vector<std::wstring>& flags = {});

    [[nodiscard]] bool Has(const std::wstring& word) const { return own.contains(word); }
    [[nodiscard]] std::wstring Get(const std::wstring& word) const;
};

/// What a driver has found, for the terminal and for ./prove (docs/reliability.md). Threads: any.
class CProof
{
public:
    /// @param length the driver's own when none was given.
    CProof(std::string driver, const ProofOptions& options, unsigned long long length);

    [[nodiscard]] unsigned long long Length() const noexcept { return m_length; }
    /// Whether the time is up that was given.
    [[nodiscard]] bool IsOver() const noexcept;
    [[nodiscard]] unsigned Seed() const noexcept { return m_seed; }
    void AddPoint(unsigned long long count = 1);
    /// Something that should not be, and how to try it again. Printed at once.
    void AddFault(const std::string& text);
    /// Something that is known not to be the product's.
    void AddOdd(const std::string& kind);
    void SetFigure(const std::string& name, double value);
    /// In the file, not in the summary of ./prove.
    /// @param rows each as long as the columns.
    /// @param isPrinted at once as well.
    void AddTable(
        const std::string& name,
        const std::vector<std::string>& columns,
        const std::vector<std::vector<double>>& rows,
        bool isPrinted = true);
    /// Bounds what is done in its scope, in case this very program is stuck (in a wait of the system's that
    /// knows no end): after some minutes that is a fault, and the program ends with what it has found.
    class CLimit
    {
    public:
        CLimit(CProof& proof, std::string what);
        ~CLimit();
        CLimit(const CLimit&) = delete;
        CLimit& operator=(const CLimit&) = delete;

    private:
        HANDLE m_timer = nullptr;
        CProof& m_proof;
        std::string m_what;
    };

    /// A line of progress, at most one in some seconds.
    void Progress(const std::string& text);

    /// Says what was found and writes the file. @return the program's exit code.
    [[nodiscard]] int Finish();

private:
    std::string m_driver;
    std::wstring m_json;
    unsigned long long m_length;
    unsigned m_minutes;
    unsigned m_seed;
    ULONGLONG m_start = ::GetTickCount64();
    ULONGLONG m_lastProgress = m_start;
    std::mutex m_lock;
    unsigned long long m_points = 0;
    std::vector<std::string> m_faults;
    std::map<std::string, unsigned> m_odd;
    std::vector<std::pair<std::string, double>> m_figures;

    struct Table
    {
        std::string name;
        std::vector<std::string> columns;
        std::vector<std::vector<double>> rows;
    };
    std::vector<Table> m_tables;
};
