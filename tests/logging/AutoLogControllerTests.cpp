#include "logging/controller/AutoLogController.h"

#include <memory>
#include <tuple>

#include "LoggingTest.h"
#include "subsystems/TestSubsystemIds.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLibrary[] = L"LogCntrl.dll";
constexpr DWORD kDenied = ERROR_ACCESS_DENIED;
const std::wstring s_doubles = BesideTest(L"doubles\\"); // Before any test tells another place.

/// What loads from the test's folder.
bool CopyDouble(const std::wstring& variant, const std::wstring& to)
{
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    return variant.empty() ? std::filesystem::remove(to)
                           : std::filesystem::copy_file(
                                 s_doubles + variant + L"\\" + kLibrary,
                                 to,
                                 std::filesystem::copy_options::overwrite_existing);
}

struct AutoLogControllerTest : LoggingTest
{
    AutoLogControllerTest()
    {
        EXPECT_EQ(m_setUp.Key().WriteString(L"CommonFiles Dir64", m_folder.Path()), 0U);
    }

    CTestKey m_record{HKEY_LOCAL_MACHINE, kTestRecordKey};
    CTestKey m_setUp{HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tarvex\\KSC"};
    const std::wstring m_installed = m_folder.File(L"TxSvcHost\\LogCntrl.dll");
};

TEST_F(AutoLogControllerTest, TheLibraryBesideTheProgramComesFirstThenTheConfiguredOneThenTheInstalledOne)
{
    static int s_refused = 0;
    const CImportPatch events(
        "ReportEventW", +[](HANDLE, WORD type) { return s_refused += type == EVENTLOG_WARNING_TYPE, TRUE; });
    const std::wstring all = L":DllAddRef;Start WSS;Stop 0 WSS;DllRelease;unloaded;", none = L":";
    // Beside; configured; installed; mode.
    const std::tuple<Text, Text, Text, Text, DWORD, std::wstring> rows[] = {
        {L"", L"", L"", L"", kDenied, none},
        {L"", L"tarvex\\LogCntrl.dll", L"", L"", 0, all},
        {L"", L"", L"unsigned", L"", kDenied, none},
        {L"", L"foreign\\LogCntrl.dll", L"tarvex", L"", kDenied, none}, // No way back from a configured one.
        {L"", L"", L"tarvex", L"fail", 1234, all},
        {L"", L"", L"tarvex", L"throw", ERROR_INVALID_OPERATION, all},
        {L"quintor", L"unsigned\\LogCntrl.dll", L"", L"", 0, all},
        {L"unsigned", L"tarvex\\LogCntrl.dll", L"", L"", 0, all}};
    for (const auto& [beside, configured, installed, mode, status, calls] : rows)
    {
        SCOPED_TRACE(testing::Message() << beside << ' ' << configured << ' ' << installed << ' ' << mode);
        CopyDouble(beside, m_folder.File(kLibrary));
        CopyDouble(installed, m_installed);
        const std::wstring name = *configured == L'\0' ? L"Controller Path XSS" : L"Controller Path WSS";
        static_cast<void>(m_settings.DeleteValue(L"Controller Path WSS"));
        EXPECT_EQ(m_settings.WriteString(name.c_str(), s_doubles + configured), 0U);
        EXPECT_EQ(
            m_record.Key().WriteString(L"controller", L":") + m_record.Key().WriteString(L"mode", mode), 0U);
        EXPECT_EQ(AutoLogController(L"WSS").Status(), status);
        std::wstring called;
        EXPECT_EQ(m_record.Key().ReadString(L"controller", called), 0U);
        EXPECT_EQ(called, calls);
    }
    EXPECT_EQ(m_trace.Take(), ""); // It stands outside of all logging.
    EXPECT_EQ(s_refused, 3) << "a library that is not trusted, whether another one is or not";
}

TEST_F(AutoLogControllerTest, TheInstalledPathComesFromTheRegistryOrTheShell)
{
    LogControllerHelper helper(
        std::make_unique<Basalt::ShlObjAPI>(),
        std::make_unique<Basalt::CRegKey>(),
        std::make_unique<LogProperties>());
    std::wstring path;
    m_setUp.Remove();
    EXPECT_TRUE(helper.FindInstalledPath(path));
    EXPECT_EQ(path, L"C:\\Program Files\\Common Files\\Tarvex\\Platform\\TxSvcHost\\LogCntrl.dll");
}

std::wstring s_loaded;

TEST_F(AutoLogControllerTest, AFailedLoadIsTheStatusAndTheFileIsHeldUntilThen)
{
    CopyDouble(L"tarvex", m_installed);
    const CImportPatch patch(
        "LoadLibraryExW", +[](Text name, HANDLE file, DWORD flags) -> HMODULE {
            if (flags == LOAD_LIBRARY_SEARCH_SYSTEM32)
            {
                return RealFunction<decltype(::LoadLibraryExW)>("LoadLibraryExW")(name, file, flags);
            }
            EXPECT_EQ(flags, DWORD{LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32});
            s_loaded = name;
            EXPECT_FALSE(::MoveFileW(name, (s_loaded + L".old").c_str())) << "not held open";
            return ::SetLastError(ERROR_BAD_EXE_FORMAT), nullptr;
        });
    const AutoLogController controller(L"WSS");
    EXPECT_EQ(controller.Status(), DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(s_loaded, m_installed);
    EXPECT_TRUE(::MoveFileW(s_loaded.c_str(), (s_loaded + L".old").c_str())) << "still held open";
}

} // namespace
