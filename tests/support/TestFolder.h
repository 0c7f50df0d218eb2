#pragma once

#include <string>

/// An empty folder below the temporary folder, removed with all that is in it.
class CTestFolder
{
public:
    CTestFolder();
    ~CTestFolder();
    CTestFolder(const CTestFolder&) = delete;
    CTestFolder& operator=(const CTestFolder&) = delete;

    /// Without a backslash at the end.
    [[nodiscard]] const std::wstring& Path() const noexcept { return m_path; }
    [[nodiscard]] std::wstring File(const std::wstring& name) const { return m_path + L"\\" + name; }

private:
    std::wstring m_path;
};

/// Such a folder, which is %ProgramData% for this process meanwhile.
class CDataFolder : public CTestFolder
{
public:
    CDataFolder();
    ~CDataFolder();

private:
    std::wstring m_before;
};

/// Full path of a file in the folder of the running test program, where all programs and DLLs of the build
/// are.
[[nodiscard]] std::wstring BesideTest(const std::wstring& name);
