#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "support/GroupRunner.h"
#include "support/Installation.h"

/// What a person would do with the product at a command prompt, one command a line. README.md lists the
/// commands; each is a method here, which gets the words behind it.
///
/// The registry, the service manager and COM are the prefix's own. What the product's keys name there is gone
/// before and after a session.
/// Errors: std::runtime_error for a command that is no such; what a command itself cannot do is its output.
class CSession
{
public:
    /// @param line a command, in UTF-8.
    /// @return what it prints, in UTF-8, each line with its end; what differs between runs is made the same.
    std::string Execute(const std::string& line);

private:
    using Words = std::vector<std::wstring>;

    void await(const Words& words);
    void begin(const Words& words);
    void end(const Words& words);
    void entry(const Words& words);
    void file(const Words& words);
    void group(const Words& words);
    void host(const Words& words);
    void link(const Words& words);
    void listen(const Words& words);
    void log(const Words& words);
    void setClass(const Words& words);
    void privileges(const Words& words);
    void run(const Words& words);
    void set(const Words& words);
    void show(const Words& words);
    void start(const Words& words);
    void state(const Words& words);
    void stop(const Words& words);
    void trim(const Words& words);
    void txsvcctl(const Words& words);

    [[nodiscard]] std::wstring expand(std::wstring text) const;
    [[nodiscard]] std::string normalise(std::string text) const;
    void print(const std::wstring& text) { m_out += text + L"\n"; }

    CDataFolder m_folder;
    CInstallation m_installation;
    std::unique_ptr<CHostLog> m_log;
    std::size_t m_shownLines = 0;
    std::unique_ptr<CGroupRunner> m_host;
    Basalt::CHandle m_event;
    std::wstring m_arguments; ///< Of the command, as they stand.
    std::wstring m_out;
};
