#include "base/ModuleFinder.h"

#include <windows.h>
#include <psapi.h>

#include <cwchar>
#include <gtest/gtest.h>
#include <string>

#include "base/SystemLibrary.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"
#include "support/TestFolder.h"

using namespace Basalt;

namespace
{

constexpr wchar_t kModule[] = L"UpdateManager.dll";

DWORD g_access;

HANDLE WINAPI FailToOpen(DWORD access, BOOL, DWORD)
{
    g_access = access;
    ::SetLastError(ERROR_NOT_ENOUGH_QUOTA);
    return nullptr;
}

BOOL WINAPI FailToList(HANDLE, HMODULE*, DWORD, DWORD*)
{
    ::SetLastError(ERROR_PARTIAL_COPY);
    return FALSE;
}

/// As in a process with more modules than the list has room for.
BOOL WINAPI ListTooMany(HANDLE, HMODULE* modules, DWORD size, DWORD* needed)
{
    EXPECT_EQ(size, 32768U);
    modules[0] = ::GetModuleHandleW(nullptr);
    *needed = 2 * size;
    return TRUE;
}

DWORD WINAPI TellNoName(HANDLE, HMODULE, wchar_t*, DWORD)
{
    return 0;
}

/// A path that is cut off exactly where a trusted file's path ends.
DWORD WINAPI TellCutOffName(HANDLE, HMODULE, wchar_t* name, DWORD size)
{
    std::wcscpy(name, SignedDouble(L"tarvex", kModule).c_str());
    EXPECT_EQ(size, DWORD{MAX_PATH});
    return size;
}

const BYTE* OwnBase()
{
    return reinterpret_cast<const BYTE*>(::GetModuleHandleW(nullptr));
}

TEST(ModuleFinder, FindsTheModuleFromItsFirstByteToItsLast)
{
    MODULEINFO info{};
    ASSERT_NE(
        ::GetModuleInformation(::GetCurrentProcess(), ::GetModuleHandleW(nullptr), &info, sizeof(info)),
        FALSE);
    const int local = 0;
    const struct
    {
        const void* address;
        DWORD status;
        const wchar_t* path;
    } rows[] = {
        {OwnBase(), ERROR_SUCCESS, L"base_tests.exe"},
        {OwnBase() + info.SizeOfImage - 1, ERROR_SUCCESS, L"base_tests.exe"},
        {reinterpret_cast<const void*>(::GetModuleHandleW(L"ntdll.dll")), ERROR_SUCCESS, L"ntdll.dll"},
        {OwnBase() - 1, ERROR_ACCESS_DENIED, L""},
        {OwnBase() + info.SizeOfImage, ERROR_ACCESS_DENIED, L""},
        {&local, ERROR_ACCESS_DENIED, L""},
        {nullptr, ERROR_ACCESS_DENIED, L""},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.address);
        std::wstring path = L"old";

        EXPECT_EQ(FindModuleOfAddress(row.address, path), row.status);

        EXPECT_EQ(::_wcsicmp(path.substr(path.rfind(L'\\') + 1).c_str(), row.path), 0);
    }
}

TEST(ModuleFinder, AProcessThatCannotBeReadOrListsTooMuchGivesAStatus)
{
    std::wstring path;
    {
        const CImportPatch patch("OpenProcess", &FailToOpen);
        ASSERT_TRUE(patch.IsActive());
        EXPECT_EQ(FindModuleOfAddress(OwnBase(), path), DWORD{ERROR_NOT_ENOUGH_QUOTA});
        EXPECT_EQ(g_access, 0x410U);
    }
    {
        const CImportPatch patch("K32EnumProcessModules", &FailToList);
        ASSERT_TRUE(patch.IsActive());
        EXPECT_EQ(FindModuleOfAddress(OwnBase(), path), DWORD{ERROR_PARTIAL_COPY});
    }
    const CImportPatch patch("K32EnumProcessModules", &ListTooMany);
    EXPECT_EQ(FindModuleOfAddress(OwnBase(), path), DWORD{ERROR_SUCCESS});
}

TEST(ModuleFinder, AModuleWithoutAWholeNameIsNotTrusted)
{
    for (const auto name : {&TellNoName, &TellCutOffName})
    {
        const CImportPatch patch("K32GetModuleFileNameExW", name);
        ASSERT_TRUE(patch.IsActive());

        EXPECT_EQ(CheckTrustedCode(OwnBase()), DWORD{ERROR_INVALID_PARAMETER});
    }
}

TEST(ModuleFinder, CodeIsTrustedAsTheFileThatItCameFrom)
{
    for (const bool isSigned : {true, false})
    {
        const CModule module(
            ::LoadLibraryW(SignedDouble(isSigned ? L"tarvex" : L"foreign", kModule).c_str()));
        ASSERT_TRUE(module);
        const auto* const code =
            reinterpret_cast<const void*>(::GetProcAddress(module.Get(), "DllGetClassObject"));

        EXPECT_EQ(CheckTrustedCode(code), isSigned ? DWORD{ERROR_SUCCESS} : 0x800B010FU);
    }
}

} // namespace
