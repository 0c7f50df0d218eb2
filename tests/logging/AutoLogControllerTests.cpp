#include "logging/AutoLogController.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "base/ObfuscatedRegKey.h"
#include "doubles/Record.h"
#include "support/Doubles.h"
#include "support/ImportPatch.h"
#include "support/LogCapture.h"
#include "support/Narrow.h"
#include "support/TestFolder.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLibrary[] = L"LogCntrl.dll";
constexpr wchar_t kAllCalls[] = L"DllAddRef;Start WSS;Stop 0 WSS;DllRelease;unloaded;";

void Copy(const std::wstring& from, const std::wstring& to)
{
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

LogControllerHelper MakeHelper()
{
    return {
        std::make_unique<Basalt::ShlObjAPI>(),
        std::make_unique<Basalt::CRegKey>(),
        std::make_unique<LogProperties>()};
}

class AutoLogControllerTest : public ::testing::Test
{
protected:
    void SetUp() override { PrepareDouble(); }

    /// Installs the library below the test's folder, where the registry says the common files are.
    void Install(const std::wstring& variant)
    {
        Copy(SignedDouble(variant, kLibrary), m_folder.File(L"TxSvcHost\\LogCntrl.dll"));
        ASSERT_EQ(m_installation.Key().WriteString(L"CommonFiles Dir64", m_folder.Path()), 0U);
    }

    void Configure(const wchar_t* valueName, const std::wstring& path)
    {
        Basalt::CObfuscatedRegKey key;
        ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, m_settings.Path().c_str(), KEY_ALL_ACCESS), 0U);
        ASSERT_EQ(key.WriteString(valueName, path), 0U);
    }

    /// Runs a controller for a scope and expects it to leave nothing in the log.
    DWORD Run()
    {
        const CLogCapture log;
        DWORD status = 0;
        {
            const AutoLogController controller(L"WSS");
            status = controller.Status();
        }
        EXPECT_TRUE(log.Lines().empty());
        return status;
    }

    CTestFolder m_folder;
    CTestKey m_settings{HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\Logging"};
    CTestKey m_installation{HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\KSC"};
};

TEST_F(AutoLogControllerTest, TheConfiguredLibraryComesBeforeTheInstalledOne)
{
    const std::wstring trusted = SignedDouble(L"tarvex", kLibrary);
    const struct
    {
        const char* name;
        const wchar_t* valueName;
        std::wstring configured;
        const wchar_t* installed;
        const wchar_t* mode;
        DWORD status;
        const wchar_t* calls;
    } rows[] = {
        {"nothing", nullptr, L"", nullptr, L"", ERROR_ACCESS_DENIED, L""},
        {"configured", L"Controller Path WSS", trusted, nullptr, L"", ERROR_SUCCESS, kAllCalls},
        {"for another", L"Controller Path XSS", trusted, nullptr, L"", ERROR_ACCESS_DENIED, L""},
        {"installed", nullptr, L"", L"quintor", L"", ERROR_SUCCESS, kAllCalls},
        {"installed, not signed", nullptr, L"", L"unsigned", L"", ERROR_ACCESS_DENIED, L""},
        {"installed, changed", nullptr, L"", L"changed", L"", ERROR_ACCESS_DENIED, L""},
        {"no way back from a configured one",
         L"Controller Path WSS",
         SignedDouble(L"foreign", kLibrary),
         L"tarvex",
         L"",
         ERROR_ACCESS_DENIED,
         L""},
        {"nor from an empty one", L"Controller Path WSS", L"", L"tarvex", L"", ERROR_ACCESS_DENIED, L""},
        {"failing", nullptr, L"", L"tarvex", L"fail", 1234, kAllCalls},
        {"throwing", nullptr, L"", L"tarvex", L"throw", ERROR_INVALID_OPERATION, kAllCalls},
        {"an entry point short",
         L"Controller Path WSS",
         SignedDouble(L"tarvex", L"ControllerWithoutFlush.dll"),
         nullptr,
         L"",
         ERROR_PROC_NOT_FOUND,
         L"Stop 0 WSS;unloaded;"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.name);
        ::RegDeleteTreeW(m_settings.Key().Get(), nullptr);
        ::RegDeleteTreeW(m_installation.Key().Get(), nullptr);
        ASSERT_EQ(m_installation.Key().WriteString(L"CommonFiles Dir64", m_folder.File(L"nowhere")), 0U);
        if (row.installed != nullptr)
        {
            Install(row.installed);
        }
        if (row.valueName != nullptr)
        {
            Configure(row.valueName, row.configured);
        }
        PrepareDouble(row.mode);

        EXPECT_EQ(Run(), row.status);

        EXPECT_EQ(RecordedCalls(), row.calls);
        EXPECT_EQ(::GetModuleHandleW(kLibrary), nullptr);
    }
}

TEST_F(AutoLogControllerTest, AnUnusableConfigurationCountsAsNone)
{
    Install(L"tarvex");
    const std::wstring plain = SignedDouble(L"tarvex", L"ControllerWithoutFlush.dll");
    ASSERT_EQ(m_settings.Key().WriteString(L"Controller Path WSS", plain), 0U); // Not scrambled.
    EXPECT_EQ(Run(), DWORD{ERROR_SUCCESS});

    Basalt::CObfuscatedRegKey key;
    ASSERT_EQ(key.Create(HKEY_LOCAL_MACHINE, m_settings.Path().c_str(), KEY_ALL_ACCESS), 0U);
    ASSERT_EQ(key.WriteDword(L"Controller Path WSS", 7), 0U);
    EXPECT_EQ(Run(), DWORD{ERROR_SUCCESS});
}

TEST_F(AutoLogControllerTest, TheInstalledPathComesFromTheRegistryOrTheShell)
{
    const std::wstring ofShell =
        L"C:\\Program Files\\Common Files\\Tarvex\\Platform\\TxSvcHost\\LogCntrl.dll";
    const struct
    {
        DWORD type;
        std::wstring value;
        std::wstring path;
    } rows[] = {
        {REG_SZ, L"D:\\Common", L"D:\\Common\\TxSvcHost\\LogCntrl.dll"},
        {REG_SZ, L"D:\\Common\\", L"D:\\Common\\TxSvcHost\\LogCntrl.dll"},
        {REG_SZ, L"", L"TxSvcHost\\LogCntrl.dll"},
        {REG_BINARY, L"D:\\Common", ofShell},
        {REG_NONE, L"", ofShell},
    };
    LogControllerHelper helper = MakeHelper();
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.path));
        static_cast<void>(m_installation.Key().DeleteValue(L"CommonFiles Dir64"));
        if (row.type != REG_NONE)
        {
            ASSERT_EQ(
                m_installation.Key().WriteValue(
                    L"CommonFiles Dir64",
                    row.type,
                    row.value.c_str(),
                    static_cast<DWORD>((row.value.size() + 1) * sizeof(wchar_t))),
                0U);
        }
        std::wstring path;

        EXPECT_TRUE(helper.FindInstalledPath(path));

        EXPECT_EQ(path, row.path);
    }
    m_installation.Remove();
    Copy(SignedDouble(L"tarvex", kLibrary), ofShell);
    EXPECT_EQ(Run(), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(RecordedCalls(), kAllCalls);
    std::filesystem::remove_all(L"C:\\Program Files\\Common Files\\Tarvex");
}

HMODULE WINAPI FailToLoad(const wchar_t*, HANDLE, DWORD)
{
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

TEST_F(AutoLogControllerTest, WithoutTheShellNothingIsInstalled)
{
    m_installation.Remove();
    const CImportPatch patch("LoadLibraryExW", &FailToLoad);
    ASSERT_TRUE(patch.IsActive());
    LogControllerHelper helper = MakeHelper();
    std::wstring path = L"old";

    EXPECT_FALSE(helper.FindInstalledPath(path));
    EXPECT_FALSE(helper.FindController(L"WSS", path));
    EXPECT_EQ(path, L"");
}

decltype(&::LoadLibraryExW) g_load;
std::wstring g_loaded;

/// Loads the system's libraries; refuses any other, after a look at how it is asked for.
HMODULE WINAPI RefuseOthers(const wchar_t* path, HANDLE file, DWORD flags)
{
    if (flags == LOAD_LIBRARY_SEARCH_SYSTEM32)
    {
        return g_load(path, file, flags);
    }
    EXPECT_EQ(flags, DWORD{LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32});
    g_loaded = path;
    EXPECT_EQ(::MoveFileExW(path, (g_loaded + L".old").c_str(), 0), FALSE) << "not held open";
    ::SetLastError(ERROR_BAD_EXE_FORMAT);
    return nullptr;
}

TEST_F(AutoLogControllerTest, AFailedLoadIsTheStatusAndTheFileIsHeldUntilThen)
{
    // Not by its name: an optimiser would look that up in the patched table again.
    g_load =
        Basalt::FindExport<decltype(::LoadLibraryExW)>(::GetModuleHandleW(L"kernel32.dll"), "LoadLibraryExW");
    Install(L"tarvex");
    const std::wstring path = m_folder.File(L"TxSvcHost\\LogCntrl.dll");
    const CImportPatch patch("LoadLibraryExW", &RefuseOthers);
    ASSERT_TRUE(patch.IsActive());

    const AutoLogController controller(L"WSS");

    EXPECT_EQ(controller.Status(), DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(g_loaded, path);
    EXPECT_EQ(RecordedCalls(), L"");
    EXPECT_NE(::MoveFileExW(path.c_str(), (path + L".old").c_str(), 0), FALSE) << "still held open";
}

int g_allocations;

/// Fails the first time only: what throws std::bad_alloc needs memory itself.
void* FailToAllocate(std::size_t size)
{
    static auto* const s_malloc =
        Basalt::FindExport<void*(std::size_t)>(::GetModuleHandleW(L"msvcrt.dll"), "malloc");
    return ++g_allocations == 1 ? nullptr : s_malloc(size);
}

TEST_F(AutoLogControllerTest, WithoutMemoryThereIsNoHelper)
{
    DWORD status = 0;
    {
        const CImportPatch patch("malloc", &FailToAllocate);
        const AutoLogController controller(L"WSS");
        status = controller.Status();
    }
    EXPECT_EQ(status, DWORD{ERROR_OUTOFMEMORY});
}

/// In a process of its own, whose folder the test chooses.
TEST_F(AutoLogControllerTest, TheLibraryBesideTheProgramComesFirst)
{
    const struct
    {
        const wchar_t* beside;
        const wchar_t* configured;
        DWORD status;
        const wchar_t* calls;
    } rows[] = {
        {L"tarvex", nullptr, ERROR_SUCCESS, kAllCalls},
        {L"quintor", L"unsigned", ERROR_SUCCESS, kAllCalls},
        {L"foreign", nullptr, ERROR_ACCESS_DENIED, L""},
        {L"unsigned", L"tarvex", ERROR_SUCCESS, kAllCalls},
    };
    const std::wstring program = m_folder.File(L"log_controller_probe.exe");
    Copy(BesideTest(L"log_controller_probe.exe"), program);
    ASSERT_EQ(m_installation.Key().WriteString(L"CommonFiles Dir64", m_folder.File(L"nowhere")), 0U);
    for (const auto& row : rows)
    {
        SCOPED_TRACE(Narrow(row.beside));
        Copy(SignedDouble(row.beside, kLibrary), m_folder.File(kLibrary));
        ::RegDeleteTreeW(m_settings.Key().Get(), nullptr);
        if (row.configured != nullptr)
        {
            Configure(L"Controller Path WSS", SignedDouble(row.configured, kLibrary));
        }
        const std::wstring record = m_folder.File(L"calls.txt");
        std::wstring commandLine = L"\"" + program + L"\" \"" + record + L"\"";
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION started{};

        ASSERT_NE(
            ::CreateProcessW(
                nullptr,
                commandLine.data(),
                nullptr,
                nullptr,
                FALSE,
                0,
                nullptr,
                nullptr,
                &startup,
                &started),
            FALSE);
        const Basalt::CHandle process(started.hProcess);
        const Basalt::CHandle thread(started.hThread);
        ASSERT_EQ(::WaitForSingleObject(process.Get(), 60000), DWORD{WAIT_OBJECT_0});

        DWORD status = 0;
        EXPECT_NE(::GetExitCodeProcess(process.Get(), &status), FALSE);
        EXPECT_EQ(status, row.status);
        std::ifstream file(std::filesystem::path(record), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        EXPECT_EQ(
            std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t)),
            row.calls);
    }
}

class CGuardedWrapper final : public Basalt::CDllWrapperBase
{
public:
    DWORD m_refusal = ERROR_SUCCESS;

private:
    DWORD CheckBeforeLoad() noexcept override { return m_refusal; }
};

TEST_F(AutoLogControllerTest, AWrapperAsksFirstAndLoadsOnce)
{
    const std::wstring path = SignedDouble(L"tarvex", kLibrary);
    {
        CGuardedWrapper wrapper;
        wrapper.m_refusal = 42;
        EXPECT_EQ(wrapper.Load(path.c_str()), 42U);
        EXPECT_EQ(RecordedCalls(), L"");

        wrapper.m_refusal = ERROR_SUCCESS;
        ::SetLastError(ERROR_SUCCESS);
        EXPECT_EQ(wrapper.Load(path.c_str()), DWORD{ERROR_SUCCESS});
        EXPECT_NE(::GetLastError(), DWORD{ERROR_BUSY}) << "what DllAddRef left behind";
        EXPECT_EQ(wrapper.Load(path.c_str()), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(RecordedCalls(), L"DllAddRef;");
    }
    EXPECT_EQ(RecordedCalls(), L"DllAddRef;DllRelease;unloaded;");
}

TEST_F(AutoLogControllerTest, ATruncatedLibraryIsAnErrorOfTheLoad)
{
    const std::wstring path = m_folder.File(kLibrary);
    for (const unsigned size : {0U, 64U, 200U, 1024U, 20000U})
    {
        SCOPED_TRACE(size);
        Copy(SignedDouble(L"tarvex", kLibrary), path);
        std::filesystem::resize_file(path, size);
        CGuardedWrapper wrapper;

        EXPECT_EQ(wrapper.Load(path.c_str()), DWORD{ERROR_BAD_EXE_FORMAT});
    }
}

} // namespace
