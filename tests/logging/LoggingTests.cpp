#include "logging/text/TextLogger.h"

#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <algorithm>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "base/ObfuscatedRegKey.h"
#include "base/Text.h"
#include "contract/LogLine.h"
#include "support/ImportPatch.h"
#include "support/Process.h"
#include "support/TestFolder.h"
#include "support/TestKey.h"

using namespace ETWLogging;

namespace
{

using Counts = std::vector<std::size_t>;
using Text = const wchar_t*;

TEST(LogLine, HoldsTheTimeOnATwelveHourClockTheLevelAndTheFieldsThatTheOptionsChoose)
{
    const auto at = [](WORD hour) { return SYSTEMTIME{2024, 3, 0, 9, hour, 5, 7, 0}; };
    const std::wstring ids = L" [PID:   42 TID:    7]$";
    Text const longFile = L"NoBackslashInThisSourceName.cpp";
    Text const longName = L"CClass0123456789::CInner0123456789::Method0123456789";
    const std::wstring cutFile = L" [NoBackslashInThisSou:   12]$";
    const std::wstring cutName = L" [CClass0123456789::CInner0123456789::Meth()]$";
    const std::wstring run = L" [" + std::wstring(30, L' ') + L"CHost::Run()]$";
    const std::tuple<DWORD, Text, Text, Text, Text, std::wstring> rows[] = {
        {0x10, L"TxSvHost", L"f", L"g", L"text", L" [       TxSvHost]$ text\r\n"},
        {0x10, L"ABCDEFGHIJKLMNOPQ", L"f", L"g", L"text", L" [ABCDEFGHIJKLMNO]$ text\r\n"},
        {0x14, L"t", L"f", L"g", L"text", L" [              t]$" + ids + L" text\r\n"},
        {0x0C, L"t", L"C:\\s\\H.cpp", L"g", L"text", ids + L" [               H.cpp:   12]$ text\r\n"},
        {0x28, L"t", longFile, L"CHost::Run", L"text", cutFile + run + L" text\r\n"},
        {0x3C, L"", longFile, longName, L"text", L" " + ids + cutFile + cutName + L" text\r\n"},
        {0x38, L"", nullptr, L"", L"text", L"    text\r\n"}, // Missing values leave their blanks.
        {0x00, L"", L"", L"", L"text\n", L" text\n"},
        {0x00, L"", L"", L"", L"text\r", L" text\r\r\n"}};
    for (const auto& [options, tag, file, function, message, tail] : rows)
    {
        EXPECT_EQ(
            BuildLogLine({options, tag, 42, 7, at(0), file, 12, function}, LogLevelName(LogError), message),
            L"03/09/2024 12:05:07 AM$ -- (Error)$" + tail);
    }

    const std::tuple<WORD, DWORD, Text> starts[] = {
        {0, 1, L"03/09/2024 12:05:07 AM$ -- (Normal)$ x\r\n"},
        {1, 2, L"03/09/2024 01:05:07 AM$ -- (Warning)$ x\r\n"},
        {11, 3, L"03/09/2024 11:05:07 AM$ -- (Information)$ x\r\n"},
        {12, 4, L"03/09/2024 12:05:07 PM$ -- (Error)$ x\r\n"},
        {13, 5, L"03/09/2024 01:05:07 PM$ -- (Critical)$ x\r\n"},
        {23, 6, L"03/09/2024 11:05:07 PM$ -- (Information)$ x\r\n"}};
    for (const auto& [hour, level, expected] : starts)
    {
        EXPECT_EQ(BuildLogLine({.time = at(hour)}, LogLevelName(level), L"x"), expected);
    }
}

bool Exists(const std::wstring& path)
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

/// The lines without their ends, and without the byte order mark that must be there.
std::vector<std::wstring> ReadLines(const std::wstring& path)
{
    std::ifstream stream(std::filesystem::path(path), std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(stream), {});
    const std::wstring text(reinterpret_cast<Text>(bytes.data()), bytes.size() / sizeof(wchar_t));
    EXPECT_TRUE(text.empty() || text[0] == L'\xFEFF');
    std::vector<std::wstring> lines;
    for (std::size_t from = 1, end = 0; (end = text.find(L"\r\n", from)) != text.npos; from = end + 2)
    {
        lines.push_back(text.substr(from, end - from));
    }
    return lines;
}

DWORD Probe(const std::wstring& arguments)
{
    return RunProcess(L"\"" + BesideTest(L"log_probe.exe") + L"\" " + arguments);
}

DWORD s_waitResult = WAIT_TIMEOUT;
std::vector<DWORD> s_waitedMs;
std::vector<std::wstring> s_mutexNames;

struct FileLoggerTest : ::testing::Test
{
    /// A logger that is ready to write shared.log in the test's folder, or in another one.
    std::unique_ptr<CLogging> Make(DWORD entries, DWORD oldFiles, bool mutex = true, Text folder = nullptr)
    {
        auto logger = std::make_unique<CLogging>(ReadLogSettings());
        logger->Initialize(L"shared", 0, nullptr, 0);
        logger->SetFolder(folder == nullptr ? m_folder.Path().c_str() : folder);
        logger->SetRotation(entries, oldFiles);
        logger->SetMutexEnabled(mutex);
        logger->Activate();
        return logger;
    }
    static DWORD Log(CLogging& logger, Text text, DWORD level = LogError)
    {
        return logger.Log(L"f", L"f", 1, level, text);
    }
    static void Write(CLogging& logger, int count)
    {
        for (int i = 0; i < count; ++i)
        {
            ASSERT_EQ(Log(logger, L"text"), 0u);
        }
    }
    std::wstring File(std::size_t number) const
    {
        return m_folder.File(number == 0 ? L"shared.log" : L"shared." + std::to_wstring(number) + L".log");
    }
    /// Number of lines in shared.log, shared.1.log and so on, up to the first that is missing.
    Counts LineCounts() const
    {
        Counts counts;
        while (Exists(File(counts.size())))
        {
            counts.push_back(ReadLines(File(counts.size())).size());
        }
        return counts;
    }

    CTestFolder m_folder;
};

TEST_F(FileLoggerTest, WritesWhateverHasALevelNameAndRefusesTheRest)
{
    const std::tuple<DWORD, Text, DWORD> rows[] = {
        {LogNormal, L"below", 0},
        {LogInformation2, L"text", 0},
        {0, L"text", 87},
        {7, L"text", 87},
        {MAXDWORD, L"text", 87},
        {LogError, L"", 87},
        {LogError, nullptr, 87}};
    const auto logger = Make(100, 1);
    for (const auto& [level, message, status] : rows)
    {
        EXPECT_EQ(Log(*logger, message, level), status);
    }
    EXPECT_EQ(logger->IsLevelEnabled(LogWarning), 0u);
    EXPECT_NE(logger->IsLevelEnabled(LogInformation), 0u);
    EXPECT_EQ(LineCounts(), Counts{2});
    EXPECT_NE(ReadLines(File(0))[0].find(L"(Normal)$ [  logging_tests]$ below"), std::wstring::npos);

    // The file comes before the line.
    ASSERT_TRUE(::DeleteFileW(File(0).c_str()) && ::CreateDirectoryW(File(0).c_str(), nullptr));
    EXPECT_EQ(Log(*logger, L"text", 0), DWORD{ERROR_ACCESS_DENIED});
}

TEST_F(FileLoggerTest, MakesTheFolderWithItsParentsOrSwitchesItselfOff)
{
    const auto good = Make(100, 1, true, m_folder.File(L"a\\b\\c").c_str());
    Write(*good, 1);
    const std::wstring obstacle = m_folder.File(L"a\\b\\c\\shared.log");
    EXPECT_TRUE(Exists(obstacle));
    for (const std::wstring& folder : {std::wstring(), obstacle, obstacle + L"\\below"})
    {
        const auto logger = Make(100, 1, true, folder.c_str());
        EXPECT_EQ(Log(*logger, L"text"), 87u);

        // For good, whatever is configured later.
        logger->SetFolder(m_folder.Path().c_str());
        logger->Activate();
        logger->SetThreshold(LogNormal);
        EXPECT_EQ(Log(*logger, L"text"), 87u);
        EXPECT_EQ(logger->IsLevelEnabled(LogInformation2), 0u);
        EXPECT_FALSE(logger->IsStarted());
    }
    good->SetWriteGate([](CLogging&) { return false; });
    EXPECT_EQ(Log(*good, L"text"), 87u);
}

Text s_security = nullptr;
std::wstring s_fault;
std::wstring s_made;
std::wstring s_debugger;

DWORD WINAPI SecurityAsGiven(
    HANDLE object,
    SE_OBJECT_TYPE type,
    DWORD what,
    PSID* owner,
    PSID*,
    PACL* rights,
    PACL*,
    PSECURITY_DESCRIPTOR* made)
{
    BOOL value = FALSE;
    if (s_security == nullptr)
    {
        return RealFunction<decltype(::GetSecurityInfo)>("GetSecurityInfo", L"advapi32.dll")(
            object, type, what, owner, nullptr, rights, nullptr, made);
    }
    EXPECT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(s_security, 1, made, nullptr));
    ::GetSecurityDescriptorOwner(*made, owner, &value);
    ::GetSecurityDescriptorDacl(*made, &value, rights, &value);
    return 0;
}

HANDLE WINAPI
OpenAsGiven(Text path, DWORD access, DWORD share, SECURITY_ATTRIBUTES*, DWORD how, DWORD, HANDLE)
{
    const bool isHidden = s_fault.starts_with(L"hidden") && std::wstring_view(path).ends_with(L"Tarvex");
    if (isHidden || (s_fault == L"no rights" && (access & WRITE_DAC) != 0))
    {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    return RealFunction<decltype(::CreateFileW)>("CreateFileW")(
        path, access, share, nullptr, how, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

DWORD WINAPI PathAsGiven(HANDLE file, wchar_t* path, DWORD size, DWORD flags)
{
    const DWORD length =
        RealFunction<decltype(PathAsGiven)>("GetFinalPathNameByHandleW")(file, path, size, flags);
    path[0] = std::wstring_view(path).ends_with(L"\\" + s_fault) ? L'?' : path[0];
    return length;
}

/// Whose security: the default one, a folder of logs, the product's, which gives services nothing below it.
BOOL WINAPI NoteWhatIsMade(Text path, SECURITY_ATTRIBUTES* security)
{
    const BOOL isMade = RealFunction<decltype(NoteWhatIsMade)>("CreateDirectoryW")(path, security);
    wchar_t* text = nullptr;
    if (isMade && security != nullptr)
    {
        ::ConvertSecurityDescriptorToStringSecurityDescriptorW(
            security->lpSecurityDescriptor, 1, DACL_SECURITY_INFORMATION, &text, nullptr);
        s_made += std::wcsstr(text, L"(A;OICI;0x1301bf;;;LS)") != nullptr ? L"logs " : L"product ";
        ::LocalFree(text);
    }
    s_made += isMade && security == nullptr ? L"default " : L"";
    return isMade;
}

TEST_F(FileLoggerTest, TakesOnlyADefaultFolderThatNoUserCanChange)
{
    Text const loose = L"O:SYD:(A;OICI;FA;;;SY)(A;CI;0x116;;;BU)"; // As below the machine's data folder.
    const std::tuple<Text, Text, DWORD> rows[] = {
        {nullptr, L"no rights", 1336}, // Really, here and below: all rights to everybody, until they are
        {nullptr, L"", 0},             // taken away.
        {nullptr, L"no rights", 0},
        // Owner, rights, what goes wrong, the error. Some rights count as none.
        {L"O:SYD:(A;;FA;;;LS)(A;;FA;;;SU)(A;;FA;;;OW)(A;;FRFX;;;BU)(A;OICIIO;FA;;;CO)(D;;FW;;;WD)", L"", 0},
        {L"O:BAD:", L"no rights", 0},
        {L"O:NSD:", L"", 0},
        {L"O:S-1-5-80-1-2-3-4-5D:(A;;FA;;;S-1-5-80-1-2-3-4-5)", L"no rights", 0},
        {L"O:BUD:", L"", 1307},
        {L"O:S-1-5-21-1-2-3-1001D:", L"", 1307},
        {L"O:SYD:", L"Tarvex", 267},
        {L"O:SYD:", L"Log", 267},
        {loose, L"", 0},
        {loose, L"no rights", 1336},
        {L"O:SY", L"no rights", 1336},
        {L"O:SYD:(A;;0x100;;;AU)", L"no rights", 1336},
        {L"O:SYD:", L"hidden", 0},
        {L"O:BUD:", L"hidden", 1307},
        {L"O:SYD:", L"hidden from an administrator", 5}};
    const CDataFolder data;
    ::SetEnvironmentVariableW(L"ProgramData", (data.Path() + L"\\").c_str());
    const std::wstring folder = data.File(L"TARVEX\\.\\log"); // As it may be spelt in log.ini.
    const CImportPatch making("CreateDirectoryW", &NoteWhatIsMade);
    const CImportPatch debugger("OutputDebugStringW", +[](Text text) { s_debugger += text; });
    s_made.clear();
    Write(*Make(100, 1, true, m_folder.File(L"a\\b").c_str()), 1);
    Write(*Make(100, 1, true, folder.c_str()), 1);
    EXPECT_EQ(s_made, L"default logs product logs ");

    PSECURITY_DESCRIPTOR security = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(A;;FA;;;WD)", 1, &security, nullptr);
    std::vector<Basalt::CFile> held; // By somebody who shares nothing.
    for (const std::wstring& path : {data.File(L"Tarvex"), folder})
    {
        EXPECT_TRUE(::SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, security));
        held.emplace_back(::CreateFileW(
            path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        EXPECT_TRUE(held.back());
    }
    ::LocalFree(security);
    const CImportPatch patches[] = {
        {"GetSecurityInfo", &SecurityAsGiven},
        {"CreateFileW", &OpenAsGiven},
        {"GetFinalPathNameByHandleW", &PathAsGiven},
        {"CheckTokenMembership",
         +[](HANDLE, PSID, BOOL* isMember) -> BOOL { return *isMember = s_fault != L"hidden", TRUE; }}};
    for (const auto& [given, fault, error] : rows)
    {
        SCOPED_TRACE(testing::Message() << (given == nullptr ? L"" : given) << fault);
        s_security = given;
        s_fault = fault;
        s_debugger.clear();
        const auto logger = Make(100, 1, true, folder.c_str());
        EXPECT_EQ(Log(*logger, L"text"), error == 0 ? 0u : 87u);
        EXPECT_EQ(Log(*logger, L"text") == 0, logger->IsStarted());
        EXPECT_EQ(
            s_debugger,
            error == 0
                ? L""
                : Basalt::FormatText(L"Log folder '%s' cannot be used: error %u", folder.c_str(), error));
    }
    held.clear();
    s_security = L"O:SYD:";
    s_fault = L"hidden";
    std::filesystem::remove_all(folder);
    EXPECT_EQ(Log(*Make(100, 1, true, folder.c_str()), L"text"), 87u);
    EXPECT_FALSE(Exists(folder)) << "nothing is made where nobody could look";
    s_security = L"O:BU";
    Write(*Make(100, 1), 1); // Its administrator's affair, but for a link.
    const CImportPatch link(
        "GetFileAttributesW",
        +[](Text) { return DWORD{FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT}; });
    EXPECT_EQ(Log(*Make(100, 1), L"text"), 87u);
    EXPECT_EQ(Log(*Make(100, 1, true, folder.c_str()), L"text"), 87u);
}

TEST_F(FileLoggerTest, RotatesByTheEntriesOfAllWriters)
{
    const auto first = Make(10, 3);
    const auto second = Make(10, 3);
    Write(*first, 7);
    Write(*second, 3);
    EXPECT_EQ(LineCounts(), Counts{10}); // Full, but the next file waits for the next line.
    EXPECT_EQ(Log(*first, L"two\nlines"), 0u);
    Write(*second, 8);
    Write(*first, 1);
    EXPECT_EQ(LineCounts(), (Counts{1, 9, 10}));
    Write(*second, 40);
    EXPECT_EQ(LineCounts(), (Counts{1, 10, 10, 10}));

    // Another file of this name, about which the first logger knows nothing.
    ASSERT_TRUE(::DeleteFileW(File(0).c_str()));
    Write(*second, 9);
    Write(*first, 2);
    EXPECT_EQ(LineCounts(), (Counts{1, 10, 10, 10}));
    Write(*Make(10, 0), 10); // Keeps no old file: deletes the full one.
    EXPECT_EQ(LineCounts(), (Counts{1, 10, 10, 10}));
}

TEST_F(FileLoggerTest, AReaderThatBlocksARenameCostsNoLineAndNoOldFile)
{
    for (const std::size_t held : {0U, 1U})
    {
        SCOPED_TRACE(held);
        while (!LineCounts().empty())
        {
            ::DeleteFileW(File(LineCounts().size() - 1).c_str());
        }
        const auto logger = Make(5, 2);
        Write(*logger, 15);
        {
            constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
            const Basalt::CFile reader(
                ::CreateFileW(File(held).c_str(), GENERIC_READ, kShare, nullptr, OPEN_EXISTING, 0, nullptr));
            ASSERT_TRUE(reader);
            Write(*logger, 4);
            EXPECT_EQ(ReadLines(File(0)).size(), 9u);
            EXPECT_EQ(ReadLines(File(2)).size(), 5u);
        }
        Write(*logger, 1);
        EXPECT_EQ(LineCounts(), (Counts{1, 9, 5}));
    }
}

TEST_F(FileLoggerTest, WithoutTheMutexItGoesOnButDoesNotRotate)
{
    const auto logger = Make(3, 1);
    const auto unserialised = Make(3, 1, false);
    const CImportPatch patch(
        "WaitForSingleObject", +[](HANDLE, DWORD ms) {
            ms % 7000 == 0 ? s_waitedMs.push_back(ms) : void(); // Not those of the watching thread.
            return s_waitResult;
        });
    Write(*logger, 2);
    s_waitResult = WAIT_FAILED;
    Write(*logger, 2);
    EXPECT_EQ(s_waitedMs, (std::vector<DWORD>{7000, 0, 0, 7000})) << "once in vain, not again at once";
    EXPECT_EQ(LineCounts(), Counts{4});

    Write(*unserialised, 2); // Told to do without, it rotates.
    EXPECT_EQ(s_waitedMs.size(), 4u);
    EXPECT_EQ(LineCounts(), (Counts{2, 4}));
}

TEST_F(FileLoggerTest, AMutexWhoseHolderDiedIsHeldAgain)
{
    const auto logger = Make(3, 1);
    {
        // The thread takes the mutex along to its end.
        const CImportPatch patch("ReleaseMutex", +[](HANDLE) -> BOOL { return TRUE; });
        std::jthread([&logger] { Write(*logger, 3); }).join();
    }
    Write(*logger, 1); // The first one already rotates.
    EXPECT_EQ(LineCounts(), (Counts{1, 3}));
}

HANDLE WINAPI RecordMutex(SECURITY_ATTRIBUTES* security, Text name, DWORD flags, DWORD access)
{
    EXPECT_NE(security, nullptr);
    s_mutexNames.emplace_back(name);
    return RealFunction<decltype(RecordMutex)>("CreateMutexExW")(security, name, flags, access);
}

TEST_F(FileLoggerTest, EachFileHasItsMutexHoweverItsPathIsSpeltUnlessAnotherUserHasMadeIt)
{
    const CImportPatch patch("CreateMutexExW", &RecordMutex);
    std::wstring upper = m_folder.Path();
    std::transform(upper.begin(), upper.end(), upper.begin(), ::towupper);
    Make(3, 1);
    Make(3, 1, true, (upper + L"\\.").c_str());
    const auto other = Make(3, 1, true, m_folder.File(L"2").c_str());
    ASSERT_EQ(s_mutexNames.size(), 3u);
    EXPECT_EQ(s_mutexNames[0], s_mutexNames[1]);
    EXPECT_NE(s_mutexNames[0], s_mutexNames[2]);
    EXPECT_EQ(s_mutexNames[0].substr(0, 7), L"Global\\");

    s_security = L"O:BU";
    const CImportPatch owner("GetSecurityInfo", &SecurityAsGiven);
    Write(*Make(3, 1, true, m_folder.File(L"2").c_str()), 4);
    const std::vector<std::wstring> lines = ReadLines(m_folder.File(L"2\\shared.log"));
    ASSERT_EQ(lines.size(), 5u) << "never rotated, and said so";
    EXPECT_NE(lines[0].find(L"error 1307"), std::wstring::npos);
}

BOOL WINAPI DiskIsFull(HANDLE file, LPCVOID data, DWORD, LPDWORD written, LPOVERLAPPED)
{
    constexpr DWORD kRoom = 10;
    RealFunction<decltype(::WriteFile)>("WriteFile")(file, data, kRoom, written, nullptr);
    ::SetLastError(ERROR_DISK_FULL);
    return FALSE;
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
    EXPECT_EQ(LineCounts(), Counts{3}) << "nothing stays of a line that did not fit";

    {
        // As good as a file that is read-only, which means nothing to an administrator of Wine.
        const Basalt::CFile held(::CreateFileW(
            File(0).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_EQ(Log(*logger, L"lost"), DWORD{ERROR_SHARING_VIOLATION});
    }
    Write(*logger, 1);
    EXPECT_EQ(LineCounts(), Counts{4});

    std::filesystem::remove_all(m_folder.Path());
    Write(*logger, 1);
    EXPECT_EQ(LineCounts(), Counts{1}) << "the folder is made again";
}

TEST_F(FileLoggerTest, ManyProcessesLoseAndTearNoLine)
{
    constexpr std::size_t kEach = 100;
    const auto probe = [this] { EXPECT_EQ(Probe(L"write \"" + m_folder.Path() + L"\""), 0u); };
    {
        const std::jthread probes[] = {std::jthread(probe), std::jthread(probe)};
        const auto logger = Make(25, 20);
        for (std::size_t i = 0; i < kEach; ++i)
        {
            EXPECT_EQ(Log(*logger, (L"own/" + std::to_wstring(i)).c_str()), 0u);
        }
    }

    EXPECT_EQ(LineCounts(), Counts(12, 25));
    std::set<std::wstring> texts;
    for (std::size_t i = 0; i < 12; ++i)
    {
        for (const std::wstring& line : ReadLines(File(i)))
        {
            EXPECT_EQ(line.substr(22, 15), L"$ -- (Error)$ [");
            texts.insert(line.substr(line.rfind(L' ')));
        }
    }
    EXPECT_EQ(texts.size(), 3 * kEach);
}

/// In processes whose settings say: the text file, in the test's folder.
TEST_F(FileLoggerTest, TheFirstLogCallDecidesTheBridgeFollowsAndTheProcessEndsWhileThreadsStillLog)
{
    const CTestKey key(HKEY_LOCAL_MACHINE, Contract::kLoggingKey);
    Basalt::CObfuscatedRegKey settings;
    EXPECT_EQ(settings.Open(HKEY_LOCAL_MACHINE, Contract::kLoggingKey, KEY_WRITE), 0u);
    EXPECT_EQ(settings.WriteDword(kMechanismSetting.name, kFileMechanism), 0u);
    EXPECT_EQ(settings.WriteString(kFolderSetting.name, m_folder.Path()), 0u);
    EXPECT_EQ(Probe(L"identity"), 0u);

    const std::vector<std::wstring> lines = ReadLines(m_folder.File(L"_no_group.log"));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_NE(lines[3].find(L"(Error)$ [      log_probe]$ first"), std::wstring::npos);
    EXPECT_NE(lines[4].find(L"(Normal)$ [      log_probe]$ below the threshold"), std::wstring::npos);
    EXPECT_NE(lines[5].find(L"(Error)$ [      log_probe]$ bridged 7"), std::wstring::npos);
    EXPECT_FALSE(Exists(m_folder.File(L"PLATFORM.log")));

    EXPECT_EQ(Probe(L"exit"), 0u);
    EXPECT_GE(ReadLines(m_folder.File(L"_no_group.log")).size(), 46u);
}

} // namespace
