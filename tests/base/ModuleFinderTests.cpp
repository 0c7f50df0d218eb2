#include "base/ModuleFinder.h"

#include <windows.h>
#include <psapi.h>

#include <cwchar>
#include <gtest/gtest.h>
#include <string>

#include "base/SystemLibrary.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"

using namespace Basalt;

namespace
{

constexpr wchar_t kModule[] = L"UpdateManager.dll";

const BYTE* OwnBase()
{
    return reinterpret_cast<const BYTE*>(::GetModuleHandleW(nullptr));
}

TEST(ModuleFinder, FindsTheModuleFromItsFirstByteToItsLast)
{
    MODULEINFO info{};
    ::GetModuleInformation(::GetCurrentProcess(), ::GetModuleHandleW(nullptr), &info, sizeof(info));
    const struct
    {
        const void* address;
        const wchar_t* file; ///< Empty: no module.
    } rows[] = {
        {OwnBase() + info.SizeOfImage - 1, L"base_tests.exe"},
        {::GetModuleHandleW(L"ntdll.dll"), L"ntdll.dll"},
        {OwnBase() - 1, L""},
        {OwnBase() + info.SizeOfImage, L""},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.address);
        std::wstring path = L"old";
        EXPECT_EQ(FindModuleOfAddress(row.address, path), *row.file == L'\0' ? 5U : 0U);
        EXPECT_EQ(::_wcsicmp(path.substr(path.rfind(L'\\') + 1).c_str(), row.file), 0);
    }
}

TEST(ModuleFinder, AProcessThatCannotBeReadOrListsTooMuchGivesAStatus)
{
    std::wstring path;
    {
        const CImportPatch patch(
            "OpenProcess", +[](DWORD access, BOOL, DWORD) -> HANDLE {
                ::SetLastError(access); // Tells which access was asked for.
                return nullptr;
            });
        EXPECT_EQ(FindModuleOfAddress(OwnBase(), path), 0x410U);
    }
    const CImportPatch patch(
        "K32EnumProcessModules", +[](HANDLE, HMODULE* modules, DWORD size, DWORD* needed) {
            EXPECT_EQ(size, 32768U);
            modules[0] = ::GetModuleHandleW(nullptr);
            *needed = 2 * size;
            return TRUE;
        });
    EXPECT_EQ(FindModuleOfAddress(OwnBase(), path), DWORD{ERROR_SUCCESS});
}

TEST(ModuleFinder, CodeIsTrustedAsTheWholeNameOfItsFileSays)
{
    const CModule good(::LoadLibraryW(SignedDouble(L"tarvex", kModule).c_str()));
    ASSERT_TRUE(good);
    EXPECT_EQ(CheckTrustedCode(good.Get()), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(CheckTrustedCode(OwnBase()), 0x800B0100U) << "not signed";

    // A path cut off where a trusted file's path ends must not pass for that file.
    const CImportPatch patch(
        "K32GetModuleFileNameExW", +[](HANDLE, HMODULE, wchar_t* name, DWORD size) {
            std::wcscpy(name, SignedDouble(L"tarvex", kModule).c_str());
            EXPECT_EQ(size, DWORD{MAX_PATH});
            return size;
        });
    EXPECT_EQ(CheckTrustedCode(good.Get()), DWORD{ERROR_INVALID_PARAMETER});
}

} // namespace
