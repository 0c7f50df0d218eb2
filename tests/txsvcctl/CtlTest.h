#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "base/RegKey.h"

inline constexpr wchar_t kTestGroup[] = L"TXCTL";
inline constexpr wchar_t kTestClsid[] = L"{7C1D3B52-9E40-4B6A-8F21-AD00C0DE0001}";
inline constexpr wchar_t kOtherClsid[] = L"{7C1D3B52-9E40-4B6A-8F21-AD00C0DE0002}";

/// What one run of the tool gave.
struct CtlResult
{
    int exitCode = -1;
    std::wstring out;
    std::wstring error;
};

/// Runs commands in this process on the prefix's real registry and service manager. All that they may have
/// left is gone before and after each test.
class CtlTest : public ::testing::Test
{
protected:
    CtlTest() { Clean(); }
    ~CtlTest() override { Clean(); }

    static CtlResult Run(const std::vector<std::wstring>& arguments);
    /// install with a module, a CLSID and a host that are all right.
    static CtlResult Install(
        const std::wstring& service,
        const std::vector<std::wstring>& more = {},
        const std::wstring& group = kTestGroup,
        const std::wstring& clsid = kTestClsid);

    /// A 64-bit DLL of the system that exports DllGetClassObject, and an executable for the entries.
    static std::wstring Module();
    static std::wstring Host();

    /// Values below HKEY_LOCAL_MACHINE; nothing when the key or the value is missing.
    static std::optional<std::wstring> Text(const std::wstring& path, const std::wstring& name = {});
    static void Write(const std::wstring& path, const std::wstring& name, const std::wstring& value);
    static bool HasKey(const std::wstring& path);
    static std::wstring GroupKey(const std::wstring& group = kTestGroup);
    static std::wstring ClassKey(const std::wstring& clsid = kTestClsid);

private:
    static void Clean();
};
