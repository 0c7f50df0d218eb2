#include "Session.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>

namespace
{

/// Plays one file: a line that is not indented is a command, what follows it indented is what it must print.
class CSessionTest : public ::testing::Test
{
public:
    explicit CSessionTest(std::filesystem::path path) : m_path(std::move(path)) {}

    void TestBody() override
    {
        std::ifstream file(m_path, std::ios::binary);
        const std::string expected(std::istreambuf_iterator<char>(file), {});
        file.close();
        std::string seen;
        {
            CSession session;
            for (std::size_t at = 0; at < expected.size();)
            {
                const std::size_t end = std::min(expected.find('\n', at), expected.size());
                const std::string line = expected.substr(at, end - at);
                const std::size_t text = expected.find_first_not_of('\n', at);
                at = end + 1;
                if (text != std::string::npos && expected.compare(text, 4, kIndent) == 0)
                {
                    continue; // An empty line was printed when printed text follows.
                }
                seen += line + "\n";
                if (!line.empty() && line[0] != '#')
                {
                    seen += Indented(run(session, line));
                }
            }
        }
        EXPECT_EQ(seen, expected);
        if (::GetEnvironmentVariableW(L"TX_RECORD", nullptr, 0) != 0)
        {
            std::ofstream(m_path, std::ios::binary) << seen;
        }
    }

private:
    static constexpr char kIndent[] = "    ";

    static std::string run(CSession& session, const std::string& line)
    {
        try
        {
            return session.Execute(line);
        }
        catch (const std::exception& error)
        {
            ADD_FAILURE() << line << ": " << error.what();
            return std::string(error.what()) + "\n";
        }
    }

    static std::string Indented(const std::string& text)
    {
        std::string indented;
        for (std::size_t at = 0; at < text.size();)
        {
            const std::size_t end = std::min(text.find('\n', at), text.size());
            indented += (end == at ? "" : kIndent) + text.substr(at, end - at) + "\n";
            at = end + 1;
        }
        return indented;
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
