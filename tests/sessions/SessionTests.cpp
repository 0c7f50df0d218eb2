#include "Session.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

constexpr char kIndent[] = "    ";

using Lines = std::vector<std::string>;

Lines LinesOf(const std::string& text)
{
    std::istringstream stream(text);
    Lines lines;
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

Lines Run(CSession& session, const std::string& line)
{
    try
    {
        return LinesOf(session.Execute(line));
    }
    catch (const std::exception& error)
    {
        ADD_FAILURE() << line << ": " << error.what();
        return {};
    }
}

/// A line that is not indented is a command, what follows it indented is what it must print.
Lines Play(const Lines& expected)
{
    CSession session;
    Lines seen;
    for (auto line = expected.begin(); line != expected.end(); ++line)
    {
        // An empty line was printed when printed text follows.
        const auto text = std::find_if_not(line, expected.end(), std::mem_fn(&std::string::empty));
        if (text != expected.end() && text->starts_with(kIndent))
        {
            continue;
        }
        seen.push_back(*line);
        if (!line->empty() && line->front() != '#')
        {
            for (const std::string& printed : Run(session, *line))
            {
                seen.push_back((printed.empty() ? "" : kIndent) + printed);
            }
        }
    }
    return seen;
}

std::vector<std::filesystem::path> Files()
{
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(TX_SESSIONS))
    {
        const bool isSession = entry.path().extension() == ".session";
#if defined(__clang__)
        const bool isPlayed = isSession;
#else
        const bool isPlayed = isSession && entry.path().stem() != "crashing"; // No structured exceptions.
#endif
        if (isPlayed)
        {
            files.insert(entry.path());
        }
    }
    return {files.begin(), files.end()};
}

class SessionTest : public ::testing::TestWithParam<std::filesystem::path>
{
};

TEST_P(SessionTest, PrintsWhatTheFileHas)
{
    std::ifstream file(GetParam(), std::ios::binary);
    const Lines expected = LinesOf({std::istreambuf_iterator<char>(file), {}});
    file.close();
    const Lines seen = Play(expected);
    const auto [from, there] = std::ranges::mismatch(seen, expected);
    if (from != seen.end() || there != expected.end())
    {
        const auto line = there - expected.begin();
        ADD_FAILURE() << GetParam().string() << ":" << line + 1 << ": "
                      << (there != expected.end() ? *there : "") << "\nseen:\n"
                      << ::testing::PrintToString(Lines(from, std::min(from + 12, seen.end())));
    }
    if (::GetEnvironmentVariableW(L"TX_RECORD", nullptr, 0) != 0)
    {
        std::ofstream record(GetParam(), std::ios::binary);
        std::ranges::copy(seen, std::ostream_iterator<std::string>(record, "\n"));
    }
}

INSTANTIATE_TEST_SUITE_P(, SessionTest, ::testing::ValuesIn(Files()), [](const auto& file) {
    std::string name = file.param.stem().string();
    std::ranges::replace(name, '-', '_'); // A hyphen would split a filter.
    return name;
});

} // namespace
