#include <windows.h>

#include <algorithm>
#include <gtest/gtest.h>

#include "CtlTest.h"
#include "base/Owned.h"
#include "contract/Keys.h"
#include "support/ImportPatch.h"
#include "support/Process.h"
#include "support/TestFolder.h"
#include "support/TestKey.h"
#include "txsvcctl/common/Console.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"
#include "txsvcctl/service/ImagePath.h"

namespace
{

TEST(Names, EndAtTheirLimits)
{
    EXPECT_NO_THROW(TxCtl::CheckServiceName(std::wstring(256, L'a')));
    EXPECT_THROW(TxCtl::CheckServiceName(std::wstring(257, L'a')), TxCtl::CToolError);
    EXPECT_NO_THROW(TxCtl::CheckGroupName(std::wstring(255, L'a')));
    EXPECT_THROW(TxCtl::CheckGroupName(std::wstring(256, L'a')), TxCtl::CToolError);
    for (const std::size_t length : {250U, 256U, 257U, 258U, 1000U})
    {
        const std::wstring path = L"C:\\" + std::wstring(length, L'a');
        EXPECT_TRUE(TxCtl::AbsolutePath(path) == path) << length;
    }
}

TEST(ImagePath, OfAnyMakingIsTakenApart)
{
    const std::wstring table[][3] = {
        {L"\"C:\\a b\\h.exe\" /G", L"C:\\a b\\h.exe", L"/G"},
        {L"\"C:\\h.exe\" \"/G H\"", L"C:\\h.exe", L"/G H"},
        {L"  C:\\h.exe   /G  ", L"C:\\h.exe", L"/G"},
        {L"C:\\h.exe", L"C:\\h.exe", L""},
        {L"\"C:\\h.exe", L"C:\\h.exe", L""},
        {L"", L"", L""},
    };
    for (const auto& [text, program, argument] : table)
    {
        const TxCtl::ImagePath path = TxCtl::ParseImagePath(text);
        EXPECT_EQ(path.program, program);
        EXPECT_EQ(path.argument, argument);
    }
    EXPECT_EQ(TxCtl::FormatImagePath(L"C:\\h.exe", L"g H"), L"\"C:\\h.exe\" \"/g H\"");
}

/// The system's side of what is written to.
struct Sink
{
    bool isConsole;
    DWORD most; ///< that one write takes
    int writes; ///< that go well
    bool isWhole;
    HANDLE handle = ::GetCurrentThread();
    std::wstring text = {};
    std::string bytes = {};
};
Sink s_sink;

template <typename Text>
BOOL Take(Text& taken, HANDLE handle, const void* data, DWORD size, DWORD* written)
{
    EXPECT_EQ(handle, s_sink.handle);
    EXPECT_TRUE(!s_sink.isConsole || size <= 8192); // Older systems take no more at once.
    *written = s_sink.writes-- > 0 ? std::min(size, s_sink.most) : 0;
    taken.append(static_cast<const typename Text::value_type*>(data), *written);
    return s_sink.writes >= 0;
}

BOOL WINAPI WriteToFile(HANDLE handle, const void* data, DWORD size, DWORD* written, OVERLAPPED*)
{
    return Take(s_sink.bytes, handle, data, size, written);
}

BOOL WINAPI WriteToConsole(HANDLE handle, const void* data, DWORD size, DWORD* written, void*)
{
    return Take(s_sink.text, handle, data, size, written);
}

TEST(Console, GetsTheWholeTextOrHasFailed)
{
    const CImportPatch patches[] = {
        {"GetStdHandle", +[](DWORD which) { return which == STD_ERROR_HANDLE ? s_sink.handle : nullptr; }},
        {"GetConsoleMode", +[](HANDLE, DWORD*) { return BOOL{s_sink.isConsole}; }},
        {"WriteConsoleW", &WriteToConsole},
        {"WriteFile", &WriteToFile}};
    const std::wstring umlauts(9000, L'\u00e4');
    const Sink table[] = {
        {true, MAXDWORD, 99, true},
        {true, MAXDWORD, 2, false},
        {false, MAXDWORD, 1, true},
        {false, 1000, 99, true},
        {false, 1000, 2, false},
        {false, 0, 0, true, nullptr}, // Nobody is there to miss it.
    };
    for (const Sink& row : table)
    {
        s_sink = row;
        TxCtl::CStandardConsole console;

        console.Out(L"nobody is there");
        console.Error(umlauts + L"\n\n" + umlauts);

        EXPECT_EQ(console.HasFailed(), !row.isWhole);
        const std::wstring seen = s_sink.text + TxCtl::FromUtf8(s_sink.bytes);
        EXPECT_EQ(seen == umlauts + L"\r\n\r\n" + umlauts + L"\r\n", row.writes != 0 && row.isWhole);
    }
}

TEST(Program, HandsOnItsArgumentsAndResultsAsUtf8)
{
    const CTestKey none(HKEY_LOCAL_MACHINE, Contract::kProductKey, false); // What other programs left.
    const std::wstring program = L"\"" + BesideTest(L"txsvcctl.exe") + L"\" ";
    ProcessOutput output = RunForOutput(program + L"log get \"controller: \u4e2d\"");
    EXPECT_EQ(output.out, "controller: \xE4\xB8\xAD  (searched for) (default)\r\n");
    EXPECT_EQ(output.error, "");
    EXPECT_EQ(output.exitCode, 0U);
    output = RunForOutput(program + L"remove a \"\"");
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.error, "txsvcctl: the service name is empty\r\n");
    EXPECT_EQ(output.exitCode, 2U);

    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    const std::wstring file = BesideTest(L"txsvcctl.exe");
    const Basalt::CFile readOnly(
        ::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, &inheritable, OPEN_EXISTING, 0, nullptr));
    EXPECT_EQ(CProcess(program + L"--version", readOnly.Get()).Wait(), 3U) << "the output is lost";
}

} // namespace
