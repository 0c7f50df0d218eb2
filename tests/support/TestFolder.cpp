#include "support/TestFolder.h"

#include <windows.h>

#include <atomic>
#include <filesystem>

CTestFolder::CTestFolder()
{
    static std::atomic<unsigned> s_next = 0;
    m_path = (std::filesystem::temp_directory_path() /
              (L"txtest-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(s_next++)))
                 .wstring();
    std::filesystem::create_directories(m_path);
}

CTestFolder::~CTestFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

CDataFolder::CDataFolder() : m_before(MAX_PATH, L'\0')
{
    m_before.resize(::GetEnvironmentVariableW(L"ProgramData", m_before.data(), MAX_PATH));
    ::SetEnvironmentVariableW(L"ProgramData", Path().c_str());
}

CDataFolder::~CDataFolder()
{
    ::SetEnvironmentVariableW(L"ProgramData", m_before.c_str());
}

std::wstring BesideTest(const std::wstring& name)
{
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.rfind(L'\\') + 1) + name;
}
