#include "Proof.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <utility>

using nlohmann::ordered_json;

namespace
{

constexpr ULONGLONG kProgressMs = 10000;
constexpr DWORD kLimitMs = 180000; ///< More than every wait of the drivers' together.

} // namespace

std::optional<ProofOptions> ProofOptions::Parse(
    int argc, wchar_t** argv, const std::vector<std::wstring>& words, const std::vector<std::wstring>& flags)
{
    ProofOptions options;
    for (int i = 1; i < argc; ++i)
    {
        const std::wstring word = argv[i];
        if (std::ranges::find(flags, word) != flags.end())
        {
            options.own[word] = L"yes";
        }
        else if (++i >= argc)
        {
            return std::nullopt;
        }
        else if (word == L"--length")
        {
            options.length = std::wcstoull(argv[i], nullptr, 10);
        }
        else if (word == L"--minutes")
        {
            options.minutes = std::wcstoul(argv[i], nullptr, 10);
        }
        else if (word == L"--seed")
        {
            options.seed = std::wcstoul(argv[i], nullptr, 10);
        }
        else if (word == L"--json")
        {
            options.json = argv[i];
        }
        else if (std::ranges::find(words, word) != words.end())
        {
            options.own[word] = argv[i];
        }
        else
        {
            return std::nullopt;
        }
    }
    return options;
}

std::wstring ProofOptions::Get(const std::wstring& word) const
{
    const auto found = own.find(word);
    return found == own.end() ? L"" : found->second;
}

CProof::CProof(std::string driver, const ProofOptions& options, unsigned long long length)
    : m_driver(std::move(driver)), m_json(options.json),
      m_length(options.length != 0 ? options.length : length), m_minutes(options.minutes),
      m_seed(options.seed)
{
}

bool CProof::IsOver() const noexcept
{
    return m_minutes != 0 && ::GetTickCount64() - m_start >= m_minutes * 60000ULL;
}

void CProof::AddPoint(unsigned long long count)
{
    const std::lock_guard guard(m_lock);
    m_points += count;
}

void CProof::AddFault(const std::string& text)
{
    const std::lock_guard guard(m_lock);
    m_faults.push_back(text);
    std::printf("FAULT %s\n", text.c_str());
    std::fflush(stdout);
}

void CProof::AddOdd(const std::string& kind)
{
    const std::lock_guard guard(m_lock);
    ++m_odd[kind];
}

void CProof::SetFigure(const std::string& name, double value)
{
    const std::lock_guard guard(m_lock);
    m_figures.emplace_back(name, value);
}

void CProof::AddTable(
    const std::string& name,
    const std::vector<std::string>& columns,
    const std::vector<std::vector<double>>& rows,
    bool isPrinted)
{
    const int kLeastWidth = 9;
    const std::lock_guard guard(m_lock);
    m_tables.push_back({name, columns, rows});
    if (!isPrinted)
    {
        return;
    }
    std::printf("\n%s\n", name.c_str());
    const auto width = [kLeastWidth](const std::string& column) {
        return std::max(kLeastWidth, static_cast<int>(column.size()));
    };
    for (const std::string& column : columns)
    {
        std::printf("  %*s", width(column), column.c_str());
    }
    std::printf("\n");
    for (const std::vector<double>& row : rows)
    {
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            std::printf("  %*.*f", width(columns[i]), row[i] == std::floor(row[i]) ? 0 : 2, row[i]);
        }
        std::printf("\n");
    }
    std::printf("\n");
    std::fflush(stdout);
}

CProof::CLimit::CLimit(CProof& proof, std::string what) : m_proof(proof), m_what(std::move(what))
{
    const WAITORTIMERCALLBACK end = [](void* context, BOOLEAN) {
        auto* const limit = static_cast<CLimit*>(context);
        limit->m_proof.AddFault("the driver is stuck: " + limit->m_what);
        ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(limit->m_proof.Finish()));
    };
    ::CreateTimerQueueTimer(&m_timer, nullptr, end, this, kLimitMs, 0, WT_EXECUTEDEFAULT);
}

CProof::CLimit::~CLimit()
{
    ::DeleteTimerQueueTimer(nullptr, m_timer, INVALID_HANDLE_VALUE);
}

void CProof::Progress(const std::string& text)
{
    const std::lock_guard guard(m_lock);
    const ULONGLONG now = ::GetTickCount64();
    if (now - m_lastProgress >= kProgressMs)
    {
        m_lastProgress = now;
        std::printf("  %6llu s  %s\n", (now - m_start) / 1000, text.c_str());
        std::fflush(stdout);
    }
}

int CProof::Finish()
{
    const std::lock_guard guard(m_lock);
    const double seconds = static_cast<double>(::GetTickCount64() - m_start) / 1000;
    ordered_json report = {
        {"driver", m_driver},
        {"length", m_length},
        {"seed", m_seed},
        {"points", m_points},
        {"seconds", seconds},
        {"faults", m_faults},
        {"odd", m_odd},
        {"figures", ordered_json::object()}};
    for (const auto& [name, value] : m_figures)
    {
        report["figures"][name] = value;
        std::printf("  %-40s %12.4g\n", name.c_str(), value);
    }
    for (const Table& table : m_tables)
    {
        report["tables"][table.name] = {{"columns", table.columns}, {"rows", table.rows}};
    }
    for (const auto& [kind, count] : m_odd)
    {
        std::printf("  odd: %-35s %12u\n", kind.c_str(), count);
    }
    if (!m_json.empty())
    {
        std::ofstream(std::filesystem::path(m_json)) << report.dump(2) << '\n';
    }
    if (m_faults.empty())
    {
        std::printf("No fault in %llu points, %.1f s.\n", m_points, seconds);
    }
    else
    {
        std::printf("%zu FAULTS in %llu points, %.1f s.\n", m_faults.size(), m_points, seconds);
    }
    std::fflush(stdout);
    return m_faults.empty() ? 0 : 1;
}
