#include "logging/controller/AutoLogController.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <tuple>

#include "base/ObfuscatedRegKey.h"
#include "doubles/Record.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

using Text = const wchar_t*;
constexpr wchar_t kLibrary[] = L"LogCntrl.dll";
constexpr wchar_t kAllCalls[] = L"DllAddRef;Start WSS;Stop 0 WSS;DllRelease;unloaded;";
constexpr wchar_t kValue[] = L"Controller Path WSS";
constexpr wchar_t kCommonFiles[] = L"CommonFiles Dir64";

void Copy(const std::wstring& from, const std::wstring& to)
{
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

std::wstring s_program; ///< Where this program seems to be.

struct AutoLogControllerTest : ::testing::Test
{
    AutoLogControllerTest() { PrepareDouble(), s_program = m_folder.File(L"host.exe"); }

    void Install(Text variant)
    {
        Copy(SignedDouble(variant, kLibrary), m_folder.File(L"TxSvcHost\\LogCntrl.dll"));
        ASSERT_EQ(m_installation.Key().WriteString(kCommonFiles, m_folder.Path()), 0U);
    }
    /// Has a controller for a scope and expects it to leave nothing in the log.
    static DWORD Run()
    {
        const CImportPatch patch(
            "GetModuleFileNameW", +[](HMODULE, wchar_t* path, DWORD size) {
                return static_cast<DWORD>(s_program.copy(path, size));
            });
        const CLogCapture log;
        const DWORD status = AutoLogController(L"WSS").Status();
        EXPECT_TRUE(log.Lines().empty());
        return status;
    }

    CTestFolder m_folder;
    CTestKey m_settings{HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Logging"};
    CTestKey m_installation{HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\KSC"};
};

TEST_F(AutoLogControllerTest, TheLibraryBesideTheProgramComesFirstThenTheConfiguredOneThenTheInstalledOne)
{
    constexpr DWORD kDenied = ERROR_ACCESS_DENIED;
    // Beside; how a path is configured (scrambled, for another, plain, number) and which; installed; mode.
    const std::tuple<Text, char, Text, Text, Text, DWORD, Text> rows[] = {
        {L"", ' ', L"", L"", L"", kDenied, L""},
        {L"", 's', L"tarvex\\LogCntrl.dll", L"", L"", 0, kAllCalls},
        {L"", 'a', L"tarvex\\LogCntrl.dll", L"", L"", kDenied, L""},
        {L"", ' ', L"", L"quintor", L"", 0, kAllCalls},
        {L"", ' ', L"", L"unsigned", L"", kDenied, L""},
        {L"", ' ', L"", L"changed", L"", kDenied, L""},
        {L"", 's', L"foreign\\LogCntrl.dll", L"tarvex", L"", kDenied, L""}, // No way back from a configured
                                                                            // one.
        {L"", 's', L"", L"tarvex", L"", kDenied, L""},
        {L"", 'p', L"foreign\\LogCntrl.dll", L"tarvex", L"", 0, kAllCalls}, // An unusable one counts as none.
        {L"", 'n', L"", L"tarvex", L"", 0, kAllCalls},
        {L"", ' ', L"", L"tarvex", L"fail", 1234, kAllCalls},
        {L"", ' ', L"", L"tarvex", L"throw", ERROR_INVALID_OPERATION, kAllCalls},
        {L"",
         's',
         L"tarvex\\ControllerWithoutFlush.dll",
         L"",
         L"",
         ERROR_PROC_NOT_FOUND,
         L"Stop 0 WSS;unloaded;"},
        {L"quintor", 's', L"unsigned\\LogCntrl.dll", L"", L"", 0, kAllCalls},
        {L"foreign", ' ', L"", L"", L"", kDenied, L""},
        {L"unsigned", 's', L"tarvex\\LogCntrl.dll", L"", L"", 0, kAllCalls}};
    for (const auto& [beside, how, configured, installed, mode, status, calls] : rows)
    {
        SCOPED_TRACE(
            testing::Message() << beside << ' ' << how << ' ' << configured << ' ' << installed << ' '
                               << mode);
        ::RegDeleteTreeW(m_settings.Key().Get(), nullptr);
        ASSERT_EQ(m_installation.Key().WriteString(kCommonFiles, m_folder.File(L"nowhere")), 0U);
        std::filesystem::remove(m_folder.File(kLibrary));
        *beside != L'\0' ? Copy(SignedDouble(beside, kLibrary), m_folder.File(kLibrary)) : void();
        *installed != L'\0' ? Install(installed) : void();
        const std::wstring path = *configured != L'\0' ? BesideTest(L"doubles\\") + configured : L"";
        Basalt::CObfuscatedRegKey key;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, m_settings.Path().c_str(), KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(
            how == 's'   ? key.WriteString(kValue, path)
            : how == 'a' ? key.WriteString(L"Controller Path XSS", path)
            : how == 'p' ? m_settings.Key().WriteString(kValue, path)
            : how == 'n' ? key.WriteDword(kValue, 7)
                         : 0,
            0U);
        PrepareDouble(mode);

        EXPECT_EQ(Run(), status);

        EXPECT_EQ(RecordedCalls(), calls);
        EXPECT_EQ(::GetModuleHandleW(kLibrary), nullptr);
    }
}

const auto s_load = RealFunction<decltype(::LoadLibraryExW)>("LoadLibraryExW");
std::wstring s_loaded;

TEST_F(AutoLogControllerTest, TheInstalledPathComesFromTheRegistryOrTheShell)
{
    const std::wstring ofShell =
        L"C:\\Program Files\\Common Files\\Tarvex\\Platform\\TxSvcHost\\LogCntrl.dll";
    const std::tuple<DWORD, std::wstring, std::wstring> rows[] = {
        {REG_SZ, L"D:\\Common", L"D:\\Common\\TxSvcHost\\LogCntrl.dll"},
        {REG_SZ, L"D:\\Common\\", L"D:\\Common\\TxSvcHost\\LogCntrl.dll"},
        {REG_SZ, L"", L"TxSvcHost\\LogCntrl.dll"},
        {REG_BINARY, L"D:\\Common", ofShell},
        {REG_NONE, L"", ofShell}};
    LogControllerHelper helper(
        std::make_unique<Basalt::ShlObjAPI>(),
        std::make_unique<Basalt::CRegKey>(),
        std::make_unique<LogProperties>());
    std::wstring path;
    for (const auto& [type, value, expected] : rows)
    {
        static_cast<void>(m_installation.Key().DeleteValue(kCommonFiles));
        const auto size = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
        ASSERT_TRUE(
            type == REG_NONE ||
            m_installation.Key().WriteValue(kCommonFiles, type, value.c_str(), size) == 0);
        EXPECT_TRUE(helper.FindInstalledPath(path));
        EXPECT_EQ(path, expected);
    }
}

TEST_F(AutoLogControllerTest, AFailedLoadIsTheStatusAndTheFileIsHeldUntilThen)
{
    Install(L"tarvex");
    const std::wstring path = m_folder.File(L"TxSvcHost\\LogCntrl.dll");
    const CImportPatch patch(
        "LoadLibraryExW", +[](Text name, HANDLE file, DWORD flags) -> HMODULE {
            if (flags == LOAD_LIBRARY_SEARCH_SYSTEM32)
            {
                return s_load(name, file, flags);
            }
            EXPECT_EQ(flags, DWORD{LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32});
            s_loaded = name;
            EXPECT_FALSE(::MoveFileExW(name, (s_loaded + L".old").c_str(), 0)) << "not held open";
            return ::SetLastError(ERROR_BAD_EXE_FORMAT), nullptr;
        });

    const AutoLogController controller(L"WSS");

    EXPECT_EQ(controller.Status(), DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(s_loaded, path);
    EXPECT_TRUE(::MoveFileExW(path.c_str(), (path + L".old").c_str(), 0)) << "still held open";
}

TEST_F(AutoLogControllerTest, WithoutMemoryOrTheShellNothingIsFound)
{
    static int s_allocations = 0;
    {
        // Fails the first time only: what throws std::bad_alloc needs memory itself.
        const CImportPatch patch(
            "malloc",
            +[](std::size_t size) { return s_allocations++ == 0 ? nullptr : std::calloc(1, size); });
        const DWORD status = AutoLogController(L"WSS").Status();
        EXPECT_EQ(status, DWORD{ERROR_OUTOFMEMORY});
    }
    m_installation.Remove();
    const CImportPatch patch(
        "LoadLibraryExW", +[](Text, HANDLE, DWORD) -> HMODULE { return ::SetLastError(8), nullptr; });
    EXPECT_EQ(Run(), DWORD{ERROR_ACCESS_DENIED});
}

struct CGuardedWrapper final : Basalt::CDllWrapperBase
{
    DWORD CheckBeforeLoad() noexcept override { return m_refusal; }
    DWORD m_refusal = 0;
};

TEST_F(AutoLogControllerTest, AWrapperAsksFirstAndLoadsOnceAndReportsATruncatedLibrary)
{
    const std::wstring path = m_folder.File(kLibrary);
    Copy(SignedDouble(L"tarvex", kLibrary), path);
    {
        CGuardedWrapper wrapper;
        wrapper.m_refusal = 42;
        EXPECT_EQ(wrapper.Load(path.c_str()), 42U);
        EXPECT_EQ(RecordedCalls(), L"");

        wrapper.m_refusal = 0;
        ::SetLastError(0);
        EXPECT_EQ(wrapper.Load(path.c_str()), 0U);
        EXPECT_NE(::GetLastError(), DWORD{ERROR_BUSY}) << "what DllAddRef left behind";
        EXPECT_EQ(wrapper.Load(path.c_str()), 0U);
        EXPECT_EQ(RecordedCalls(), L"DllAddRef;");
    }
    EXPECT_EQ(RecordedCalls(), L"DllAddRef;DllRelease;unloaded;");
    for (const unsigned size : {20000U, 1024U, 200U, 64U, 0U})
    {
        std::filesystem::resize_file(path, size);
        EXPECT_EQ(CGuardedWrapper().Load(path.c_str()), DWORD{ERROR_BAD_EXE_FORMAT}) << size;
    }
}

} // namespace
