#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/GroupRunner.h"
#include "support/HostLog.h"
#include "support/TestFolder.h"
#include "support/TestGroup.h"

/// What a person would do with the product at a command prompt, one command a line. README.md lists the
/// commands.
///
/// The registry, the service manager and COM are the prefix's own. What the product's keys name there is gone
/// before and after a session.
/// Errors: std::runtime_error for a command that is no such; what a command itself cannot do is its output.
class CSession
{
public:
    CSession();
    ~CSession();
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    /// @param line a command, in UTF-8.
    /// @return what it prints, in UTF-8, each line with its end; what differs between runs is made the same.
    std::string Execute(const std::string& line);

private:
    using Words = std::vector<std::wstring>;

    void dispatch(const Words& words);
    void tool(const Words& arguments);
    void group(const Words& words);
    void setClass(const Words& words);
    void setValue(const Words& words);
    void showKey(const std::wstring& path);
    void showEntry(const std::wstring& service);
    static void file(const Words& words);
    void start(const Words& words);
    void showState(const std::wstring& service);
    void showLog(bool isWhole);
    [[nodiscard]] std::wstring expand(std::wstring text) const;
    [[nodiscard]] std::string normalise(std::string text) const;
    void print(const std::wstring& text) { m_out += text + L"\n"; }

    CDataFolder m_folder;
    std::unique_ptr<CHostLog> m_log;
    std::size_t m_shownLines = 0;
    std::vector<std::unique_ptr<CTestGroup>> m_groups;
    std::vector<CServiceScope> m_entries;
    std::vector<std::wstring> m_keys; ///< Removed at the end, below HKEY_LOCAL_MACHINE.
    std::unique_ptr<CGroupRunner> m_host;
    std::wstring m_out;
};
