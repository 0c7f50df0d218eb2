#pragma once

#include <windows.h>

#include <string>

/// @file
/// How a test double's DLL and the test that loads it talk: through the process's environment, which outlives
/// the DLL. The test says in TX_TEST_MODE what the double does (words, any order) and reads from
/// TX_TEST_CALLS what it was asked.

inline std::wstring GetVariable(const wchar_t* name)
{
    std::wstring text(1024, L'\0');
    text.resize(::GetEnvironmentVariableW(name, text.data(), static_cast<DWORD>(text.size())));
    return text;
}

inline std::wstring RecordedCalls()
{
    return GetVariable(L"TX_TEST_CALLS");
}

inline void Record(const std::wstring& call)
{
    ::SetEnvironmentVariableW(L"TX_TEST_CALLS", (RecordedCalls() + call + L";").c_str());
}

inline bool IsMode(const wchar_t* word)
{
    return GetVariable(L"TX_TEST_MODE").find(word) != std::wstring::npos;
}

/// For the test: forgets the calls and sets the mode.
inline void PrepareDouble(const wchar_t* mode = L"")
{
    ::SetEnvironmentVariableW(L"TX_TEST_CALLS", nullptr);
    ::SetEnvironmentVariableW(L"TX_TEST_MODE", mode);
}
