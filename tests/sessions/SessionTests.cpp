#include "Session.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace
{

constexpr char kIndent[] = "    ";

using Lines = std::vector<std::string>;

Lines LinesOf(const std::string& text)
{
    Lines lines;
    for (std::size_t at = 0; at < text.size();)
    {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

/// Plays one file: a line that is not indented is a command, what follows it indented is what it must print.
class CSessionTest : public ::testing::Test
{
public:
    explicit CSessionTest(std::filesystem::path path) : m_path(std::move(path)) {}

    void TestBody() override
    {
        std::ifstream file(m_path, std::ios::binary);
        const Lines expected = LinesOf({std::istreambuf_iterator<char>(file), {}});
        file.close();
        const Lines seen = play(expected);
        const auto [from, there] = std::ranges::mismatch(seen, expected);
        if (from != seen.end() || there != expected.end())
        {
            const auto line = there - expected.begin();
            ADD_FAILURE() << m_path.string() << ":" << line + 1 << ": "
                          << (there != expected.end() ? *there : "") << "\nseen:\n"
                          << ::testing::PrintToString(Lines(from, std::min(from + 12, seen.end())));
        }
        if (::GetEnvironmentVariableW(L"TX_RECORD", nullptr, 0) != 0)
        {
            std::ofstream record(m_path, std::ios::binary);
            std::ranges::copy(seen, std::ostream_iterator<std::string>(record, "\n"));
        }
    }

private:
    static Lines play(const Lines& expected)
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
                for (const std::string& printed : run(session, *line))
                {
                    seen.push_back((printed.empty() ? "" : kIndent) + printed);
                }
            }
        }
        return seen;
    }

    static Lines run(CSession& session, const std::string& line)
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

    std::filesystem::path m_path;
};

} // namespace

// -municode makes wmain the entry point. The arguments are GoogleTest's own and plain ASCII.
int wmain(int argc, wchar_t** argv)
{
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(TX_SESSIONS))
    {
        if (entry.path().extension() == ".session")
        {
            files.insert(entry.path());
        }
    }
    for (const std::filesystem::path& path : files)
    {
        std::string name = path.stem().string();
        std::ranges::replace(name, '-', '_'); // A hyphen would split a filter.
        ::testing::RegisterTest("Session", name.c_str(), nullptr, nullptr, __FILE__, __LINE__, [path] {
            return new CSessionTest(path);
        });
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
