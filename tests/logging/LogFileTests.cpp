#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <cwchar>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "LoggingTest.h"
#include "base/Text.h"
#include "contract/LogLine.h"
#include "logging/text/TextLogger.h"
#include "support/Narrow.h"

using namespace ETWLogging;

namespace
{

TEST(LogLine, HoldsTheTimeOnATwelveHourClockTheLevelAndTheFieldsThatTheOptionsChoose)
{
    std::wstring all;
    const auto add =
        [&](WORD hour, DWORD level, DWORD options, Text tag, Text file, Text function, Text text) {
            const SYSTEMTIME time = {2024, 3, 0, 9, hour, 5, 7, 0};
            all += BuildLogLine({options, tag, 42, 7, time, file, 12, function}, LogLevelName(level), text);
        };
    Text const longName = L"CClass0123456789::CInner0123456789::Method0123456789";
    add(0, 1, 0x10, L"TxSvHost", L"f", L"g", L"text");
    add(1, 2, 0x10, L"ABCDEFGHIJKLMNOPQ", L"f", L"g", L"text");
    add(11, 3, 0x0C, L"t", L"C:\\s\\H.cpp", L"g", L"text");
    add(12, 4, 0x28, L"t", L"NoBackslashInThisSourceName.cpp", L"CHost::Run", L"text");
    add(13, 5, 0x3C, L"", L"f", longName, L"text");
    add(23, 6, 0, L"", nullptr, L"", L"text\n");
    std::ranges::replace(all, L'\r', L'|');
    EXPECT_EQ(Narrow(all), R"(03/09/2024 12:05:07 AM$ -- (Normal)$ [       TxSvHost]$ text|
03/09/2024 01:05:07 AM$ -- (Warning)$ [ABCDEFGHIJKLMNO]$ text|
03/09/2024 11:05:07 AM$ -- (Information)$ [PID:   42 TID:    7]$ [               H.cpp:   12]$ text|
03/09/2024 12:05:07 PM$ -- (Error)$ [NoBackslashInThisSou:   12]$ [                              CHost::Run()]$ text|
03/09/2024 01:05:07 PM$ -- (Critical)$  [PID:   42 TID:    7]$ [                   f:   12]$ [CClass0123456789::CInner0123456789::Meth()]$ text|
03/09/2024 11:05:07 PM$ -- (Information)$ text
)");
}

DWORD Log(CLogging& logger, Text text = L"text", DWORD level = LogError)
{
    return logger.Log(L"f", L"f", 1, level, text);
}

void Write(CLogging& logger, int count)
{
    for (; count > 0; --count)
    {
        ASSERT_EQ(Log(logger), 0U);
    }
}

std::wstring Sddl(const SECURITY_ATTRIBUTES* security)
{
    wchar_t* text = nullptr;
    ::ConvertSecurityDescriptorToStringSecurityDescriptorW(
        security->lpSecurityDescriptor, 1, DACL_SECURITY_INFORMATION, &text, nullptr);
    const std::wstring copy = text;
    ::LocalFree(text);
    return copy;
}

struct FileLoggerTest : LoggingTest
{
    /// A logger that is ready to write shared.log in the test's folder, or in another one.
    std::unique_ptr<CLogging> Make(
        DWORD entries, DWORD oldFiles, bool hasMutex = true, const std::wstring& folder = {})
    {
        auto logger = std::make_unique<CLogging>(ReadLogSettings());
        logger->Initialize(L"shared", 0, nullptr, 0);
        logger->SetFolder(folder.empty() ? m_log.c_str() : folder.c_str());
        logger->SetRotation(entries, oldFiles);
        logger->SetMutexEnabled(hasMutex);
        logger->Activate();
        return logger;
    }
    /// The folder's files with the number of their lines, the oldest first: "2:10 1:10 0:3".
    std::string Files() const
    {
        std::string files;
        for (std::size_t number = 0; number < 100; ++number)
        {
            const std::wstring path = File(number);
            if (std::filesystem::exists(path))
            {
                const std::wstring text = ReadWide(path);
                files = std::to_string(number) + ":" + std::to_string(std::ranges::count(text, L'\n')) + " " +
                        files;
            }
        }
        return files;
    }
    std::wstring File(std::size_t number) const
    {
        return m_log + L"\\shared" + (number == 0 ? L"" : L"." + std::to_wstring(number)) + L".log";
    }

    const std::wstring m_log = m_folder.File(L"made\\with\\parents");
};

TEST_F(FileLoggerTest, WritesWhateverHasALevelNameAndRefusesTheRest)
{
    const auto logger = Make(100, 1);
    EXPECT_EQ(Log(*logger, L"below", LogNormal) + Log(*logger, L"text", LogInformation2), 0U);
    for (const DWORD level : {0U, 7U})
    {
        EXPECT_EQ(Log(*logger, L"text", level), DWORD{ERROR_INVALID_PARAMETER});
    }
    EXPECT_EQ(Log(*logger, L"") + Log(*logger, nullptr), 2 * ERROR_INVALID_PARAMETER);
    EXPECT_EQ(logger->IsLevelEnabled(LogWarning) * 2 + logger->IsLevelEnabled(LogInformation), 1U);
    EXPECT_EQ(ReadWide(File(0)).substr(22, 41), L"$ -- (Normal)$ [           host]$ below\r\n");
    EXPECT_EQ(Files(), "0:2 ");
    EXPECT_EQ(logger->SetFileName(L"other.log") + logger->SetFileName(L"name"), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(logger->GetFileName(), std::wstring_view(L"other.log"));
}

TEST_F(FileLoggerTest, SwitchesItselfOffForGoodWithoutItsFolder)
{
    WriteBytes(m_folder.File(L"obstacle"), "");
    const auto logger = Make(100, 1, true, m_folder.File(L"obstacle\\below"));
    EXPECT_EQ(Log(*logger), DWORD{ERROR_INVALID_PARAMETER});
    logger->SetFolder(m_log.c_str()); // Whatever is configured later.
    logger->Activate();
    logger->SetThreshold(LogNormal);
    EXPECT_EQ(Log(*logger), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_FALSE(logger->IsLevelEnabled(LogInformation2) != 0 || logger->IsStarted());
}

/// What the system says instead of the truth.
Text s_security;
std::wstring s_fault, s_made, s_debugger;

DWORD WINAPI SecurityAsGiven(HANDLE, SE_OBJECT_TYPE, DWORD, PSID* owner, PSID*, PACL* rights)
{
    PSECURITY_DESCRIPTOR made = nullptr; // Lives as long as the test.
    BOOL value = ::ConvertStringSecurityDescriptorToSecurityDescriptorW(s_security, 1, &made, nullptr);
    ::GetSecurityDescriptorOwner(made, owner, &value);
    ::GetSecurityDescriptorDacl(made, &value, rights, &value);
    return 0;
}

HANDLE WINAPI OpenAsGiven(Text path, DWORD access, DWORD share, void*, DWORD how)
{
    if (s_fault == L"no rights" && (access & WRITE_DAC) != 0)
    {
        return ::SetLastError(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
    }
    return RealFunction<decltype(::CreateFileW)>("CreateFileW")(
        path, access, share, nullptr, how, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

DWORD WINAPI PathAsGiven(HANDLE file, wchar_t* path, DWORD size, DWORD flags)
{
    const auto real = RealFunction<decltype(PathAsGiven)>("GetFinalPathNameByHandleW");
    const DWORD length = real(file, path, size, flags);
    path[0] = std::wstring_view(path).ends_with(L"\\" + s_fault) ? L'?' : path[0];
    return length;
}

BOOL WINAPI NoteWhatIsMade(Text path, SECURITY_ATTRIBUTES* security)
{
    const BOOL isMade = RealFunction<decltype(NoteWhatIsMade)>("CreateDirectoryW")(path, security);
    s_made += isMade && security != nullptr ? Sddl(security) + L"\n" : L"";
    return isMade;
}

TEST_F(FileLoggerTest, TakesOnlyADefaultFolderThatNoUserCanChange)
{
    Text const loose = L"O:SYD:(A;OICI;FA;;;SY)(A;CI;0x116;;;BU)"; // As below the machine's data folder.
    const std::tuple<Text, Text, DWORD> rows[] = {
        {nullptr, L"no rights", 1336}, // Really: all rights to everybody, until they are taken away.
        {nullptr, L"", 0},
        // Owner, rights, what goes wrong, the error. Some rights count as none.
        {L"O:SYD:(A;;FA;;;LS)(A;;FA;;;SU)(A;;FA;;;OW)(A;;FRFX;;;BU)(A;OICIIO;FA;;;CO)(D;;FW;;;WD)", L"", 0},
        {L"O:S-1-5-80-1-2-3-4-5D:(A;;FA;;;S-1-5-80-1-2-3-4-5)", L"no rights", 0},
        {L"O:S-1-5-21-1-2-3-1001D:", L"", 1307},
        {L"O:SYD:", L"Tarvex", 267},
        {loose, L"", 0},
        {loose, L"no rights", 1336},
        {L"O:SY", L"no rights", 1336}};
    const CDataFolder data;
    ::SetEnvironmentVariableW(L"ProgramData", (data.Path() + L"\\").c_str());
    const std::wstring folder = data.File(L"TARVEX\\.\\log"); // As it may be spelt in log.ini.
    const CImportPatch making("CreateDirectoryW", &NoteWhatIsMade);
    const CImportPatch debugger("OutputDebugStringW", +[](Text text) { s_debugger += text; });
    Write(*Make(100, 1, true, folder), 1);
    EXPECT_EQ(
        Narrow(s_made),
        R"(D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;;0x1200ad;;;OW)(A;;0x1200ad;;;LS)(A;;0x1200ad;;;NS)(A;;0x1200ad;;;SU)(A;OICI;0x1200a9;;;BU)
D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;OW)(A;OICI;0x1301bf;;;LS)(A;OICI;0x1301bf;;;NS)(A;OICI;0x1301bf;;;SU)(A;OICI;0x1200a9;;;BU)
)");
    PSECURITY_DESCRIPTOR everybody = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;FA;;;WD)", 1, &everybody, nullptr);
    for (const std::wstring& path : {data.File(L"Tarvex"), folder})
    {
        EXPECT_TRUE(::SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, everybody));
    }
    const CImportPatch patches[] = {
        {"CreateFileW", &OpenAsGiven}, {"GetFinalPathNameByHandleW", &PathAsGiven}};
    for (const auto& [given, fault, error] : rows)
    {
        SCOPED_TRACE(testing::Message() << (given == nullptr ? L"" : given) << fault);
        s_security = given;
        s_fault = fault;
        s_debugger.clear();
        const CImportPatch security(given == nullptr ? "none" : "GetSecurityInfo", &SecurityAsGiven);
        const auto logger = Make(100, 1, true, folder);
        EXPECT_EQ(Log(*logger), error == 0 ? 0U : 87U);
        const std::wstring text =
            L"Log folder '" + folder + L"' cannot be used: error " + std::to_wstring(error);
        EXPECT_EQ(s_debugger, error == 0 ? L"" : text);
    }
    s_security = L"O:BU";
    const CImportPatch security("GetSecurityInfo", &SecurityAsGiven);
    Write(*Make(100, 1), 1); // Its administrator's affair, but for a link.
    constexpr DWORD kLink = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    const CImportPatch link("GetFileAttributesW", +[](Text) { return kLink; });
    EXPECT_EQ(Log(*Make(100, 1)), 87U);
}

TEST_F(FileLoggerTest, RotatesByTheEntriesOfAllWriters)
{
    const auto first = Make(10, 3);
    const auto second = Make(10, 3);
    Write(*first, 7);
    Write(*second, 2);
    EXPECT_EQ(Log(*second, (L"40 KB" + std::wstring(20000, L'.') + L"the end").c_str()), 0U);
    EXPECT_EQ(Files(), "0:10 "); // Full, but the next file waits for the next line.
    EXPECT_EQ(Log(*first, L"two\nlines"), 0U);
    Write(*second, 8);
    Write(*first, 1);
    EXPECT_EQ(Files(), "2:10 1:10 0:1 ");
    Write(*second, 40);
    EXPECT_EQ(Files(), "3:10 2:10 1:10 0:1 ");

    // Another file of this name, about which the first logger knows nothing.
    ASSERT_TRUE(::DeleteFileW(File(0).c_str()));
    Write(*second, 9);
    Write(*first, 2);
    Write(*Make(10, 0), 10); // Keeps no old file: deletes the full one.
    EXPECT_EQ(Files(), "3:10 2:10 1:10 0:1 ");
}

TEST_F(FileLoggerTest, AReaderThatBlocksARenameCostsNoLineAndNoOldFile)
{
    for (const std::size_t held : {0U, 1U})
    {
        std::filesystem::remove_all(m_log);
        const auto logger = Make(5, 2);
        Write(*logger, 15);
        {
            constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
            const Basalt::CFile reader(
                ::CreateFileW(File(held).c_str(), GENERIC_READ, kShare, nullptr, OPEN_EXISTING, 0, nullptr));
            ASSERT_TRUE(reader);
            Write(*logger, 4);
            EXPECT_EQ(Files().substr(0, 4) + Files().substr(Files().size() - 4), "2:5 0:9 ") << held;
        }
        Write(*logger, 1);
        EXPECT_EQ(Files(), "2:5 1:9 0:1 ") << held;
    }
}

std::wstring s_mutexes;
HANDLE s_mutex;
DWORD s_waitResult;
std::vector<DWORD> s_waitedMs;

HANDLE WINAPI RecordMutex(SECURITY_ATTRIBUTES* security, Text name, DWORD flags, DWORD access)
{
    s_mutexes += name + std::wstring(L" ") + Sddl(security) + L"\n";
    return s_mutex = RealFunction<decltype(RecordMutex)>("CreateMutexExW")(security, name, flags, access);
}

DWORD WINAPI Wait(HANDLE object, DWORD ms)
{
    if (object != s_mutex || s_waitResult == WAIT_OBJECT_0) // Threads that watch wait too.
    {
        return RealFunction<decltype(Wait)>("WaitForSingleObject")(object, ms);
    }
    return s_waitedMs.push_back(ms), s_waitResult;
}

TEST_F(FileLoggerTest, TheMutexGoesByThePathAndWithoutItNothingRotates)
{
    const CImportPatch patches[] = {{"CreateMutexExW", &RecordMutex}, {"WaitForSingleObject", &Wait}};
    Make(3, 1, true, L"D:\\Some\\..\\LOGS");
    Make(3, 1, true, L"d:\\logs\\.");
    EXPECT_EQ(
        Narrow(s_mutexes),
        R"(Global\Tarvex.Log.EC6743F66EC7C327 D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x120001;;;LS)(A;;0x120001;;;NS)(A;;0x120001;;;SU)
Global\Tarvex.Log.EC6743F66EC7C327 D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x120001;;;LS)(A;;0x120001;;;NS)(A;;0x120001;;;SU)
)");
    const auto logger = Make(3, 1);
    s_waitResult = WAIT_TIMEOUT;
    Write(*logger, 2);
    s_waitResult = WAIT_FAILED;
    Write(*logger, 2);
    EXPECT_EQ(s_waitedMs, (std::vector<DWORD>{7000, 0, 0, 7000})) << "once in vain, not again at once";
    EXPECT_EQ(Files(), "0:4 ");
    Write(*Make(3, 1, false), 2); // Told to do without, it rotates.
    EXPECT_EQ(Files(), "1:4 0:2 ");
    s_waitResult = WAIT_OBJECT_0;
    {
        // The thread takes the mutex along to its end.
        const CImportPatch patch("ReleaseMutex", +[](HANDLE) { return TRUE; });
        std::jthread([&logger] { Write(*logger, 1); }).join();
    }
    Write(*logger, 1);
    EXPECT_EQ(Files(), "1:3 0:1 ");

    s_security = L"O:BU"; // Another user made the mutex that is there.
    const CImportPatch owner("GetSecurityInfo", &SecurityAsGiven);
    Write(*Make(3, 1), 4);
    EXPECT_EQ(Files(), "1:3 0:6 ");
    EXPECT_NE(
        ReadWide(File(0)).find(
            L"(Warning)$ [           host]$ Log mutex of '" + File(0) + L"' cannot be used: error 1307\r\n"),
        std::wstring::npos);
}

BOOL WINAPI DiskIsFull(HANDLE file, LPCVOID data, DWORD, LPDWORD written, LPOVERLAPPED)
{
    constexpr DWORD kRoom = 10;
    RealFunction<decltype(::WriteFile)>("WriteFile")(file, data, kRoom, written, nullptr);
    return ::SetLastError(ERROR_DISK_FULL), FALSE;
}

std::wstring s_renamed;

BOOL WINAPI RenameMeanwhile(HANDLE file, LPCVOID data, DWORD size, LPDWORD written, LPOVERLAPPED)
{
    EXPECT_TRUE(::MoveFileW(s_renamed.c_str(), (s_renamed + L".old").c_str()));
    return RealFunction<decltype(::WriteFile)>("WriteFile")(file, data, size, written, nullptr);
}

TEST_F(FileLoggerTest, GoesOnWhenWhatKeptItFromWritingIsGone)
{
    const auto logger = Make(100, 1);
    Write(*logger, 2);
    {
        const CImportPatch full("WriteFile", &DiskIsFull);
        EXPECT_EQ(Log(*logger, L"lost"), DWORD{ERROR_DISK_FULL});
    }
    Write(*logger, 1);
    EXPECT_EQ(Files(), "0:3 ") << "nothing stays of a line that did not fit";
    {
        s_renamed = File(0);
        const CImportPatch rename("WriteFile", &RenameMeanwhile);
        Write(*logger, 1);
    }
    Write(*logger, 1);
    EXPECT_EQ(Files(), "0:1 ");
    std::filesystem::remove_all(m_log);
    Write(*logger, 1);
    EXPECT_EQ(Files(), "0:1 ") << "the folder is made again";
}

} // namespace
