#include <windows.h>

#include <algorithm>
#include <gtest/gtest.h>

#include "CtlTest.h"
#include "base/Owned.h"
#include "support/ImportPatch.h"
#include "support/Process.h"
#include "support/TestFolder.h"
#include "txsvcctl/Console.h"
#include "txsvcctl/ImagePath.h"
#include "txsvcctl/Names.h"
#include "txsvcctl/ToolError.h"
#include "txsvcctl/Utf8.h"

namespace
{

TEST(Names, EndAtTheirLimits)
{
    using TxCtl::CheckGroupName;
    using TxCtl::CheckServiceName;
    EXPECT_NO_THROW(CheckServiceName(std::wstring(256, L'a')));
    EXPECT_THROW(CheckServiceName(std::wstring(257, L'a')), TxCtl::CToolError);
    EXPECT_NO_THROW(CheckGroupName(std::wstring(255, L'a')));
    EXPECT_THROW(CheckGroupName(std::wstring(256, L'a')), TxCtl::CToolError);
    EXPECT_NO_THROW(CheckServiceName(L"\u00e4 b-c_1."));
    EXPECT_THROW(CheckServiceName(L"a\x1f"), TxCtl::CToolError);
    for (const wchar_t character : std::wstring(L";:,/\\\"'"))
    {
        EXPECT_THROW(CheckServiceName(std::wstring(L"a") + character), TxCtl::CToolError);
    }
    for (const std::size_t length : {255U, 256U, 257U, 258U, 1000U})
    {
        const std::wstring path = L"C:\\" + std::wstring(length, L'a');
        EXPECT_EQ(TxCtl::AbsolutePath(path).size(), path.size());
        EXPECT_EQ(TxCtl::AbsolutePath(path), path);
    }
}

TEST(ImagePath, OfAnyMakingIsTakenApart)
{
    const struct
    {
        const wchar_t* text;
        const wchar_t* program;
        const wchar_t* argument;
    } table[] = {
        {L"\"C:\\a b\\h.exe\" /G", L"C:\\a b\\h.exe", L"/G"},
        {L"\"C:\\h.exe\" \"/G H\"", L"C:\\h.exe", L"/G H"},
        {L"  C:\\h.exe   /G  ", L"C:\\h.exe", L"/G"},
        {L"C:\\h.exe", L"C:\\h.exe", L""},
        {L"\"C:\\h.exe", L"C:\\h.exe", L""},
        {L"", L"", L""},
    };
    for (const auto& row : table)
    {
        SCOPED_TRACE(Narrow(row.text));
        const TxCtl::ImagePath path = TxCtl::ParseImagePath(row.text);
        EXPECT_EQ(path.program, row.program);
        EXPECT_EQ(path.argument, row.argument);
    }
    EXPECT_EQ(TxCtl::FormatImagePath(L"C:\\a b\\h.exe", L"G"), L"\"C:\\a b\\h.exe\" /G");
    EXPECT_EQ(TxCtl::FormatImagePath(L"C:\\h.exe", L"g H"), L"\"C:\\h.exe\" \"/g H\"");
    EXPECT_TRUE(TxCtl::RunsGroup(TxCtl::ParseImagePath(L"C:\\h.exe \"/g H\""), L"G h"));
    EXPECT_FALSE(TxCtl::RunsGroup(TxCtl::ParseImagePath(L"C:\\h.exe /GROUP"), L"G"));
}

/// The system's side of what is written to.
struct Sink
{
    bool isConsole;
    DWORD most; ///< that one write takes
    int writes; ///< that go well
    bool isWhole;
    HANDLE handle = ::GetCurrentThread();
    std::size_t largest = 0;
    std::wstring text = {};
    std::string bytes = {};
};
Sink s_sink;

template <typename Text>
BOOL Take(Text& taken, HANDLE handle, const void* data, DWORD size, DWORD* written)
{
    EXPECT_EQ(handle, s_sink.handle);
    s_sink.largest = std::max<std::size_t>(s_sink.largest, size);
    *written = s_sink.writes > 0 ? std::min(size, s_sink.most) : 0;
    taken.append(static_cast<const typename Text::value_type*>(data), *written);
    return s_sink.writes-- > 0;
}

TEST(Console, GetsTheWholeTextOrHasFailed)
{
    const CImportPatch patches[] = {
        {"GetStdHandle", +[](DWORD which) { return which == STD_ERROR_HANDLE ? s_sink.handle : nullptr; }},
        {"GetConsoleMode", +[](HANDLE, DWORD*) { return BOOL{s_sink.isConsole}; }},
        {"WriteConsoleW",
         +[](HANDLE handle, const void* data, DWORD size, DWORD* written, void*) {
             return Take(s_sink.text, handle, data, size, written);
         }},
        {"WriteFile", +[](HANDLE handle, const void* data, DWORD size, DWORD* written, OVERLAPPED*) {
             return Take(s_sink.bytes, handle, data, size, written);
         }}};
    const std::wstring lines[] = {std::wstring(9000, L'\u00e4'), L"", std::wstring(9000, L'\u4e2d')};
    const Sink table[] = {
        {true, MAXDWORD, 99, true},
        {true, MAXDWORD, 2, false},
        {false, MAXDWORD, 1, true},
        {false, 1000, 99, true},
        {false, 1000, 2, false},
        {false, 0, 99, false},
        {false, 0, 0, true, nullptr},
        {true, 0, 0, true, INVALID_HANDLE_VALUE},
    };
    for (const Sink& row : table)
    {
        s_sink = row;
        TxCtl::CStandardConsole console;

        console.Out(L"nobody is there");
        console.Error(lines[0] + L"\n" + lines[1] + L"\n" + lines[2]);

        EXPECT_EQ(console.HasFailed(), !row.isWhole);
        EXPECT_LE(s_sink.isConsole ? s_sink.largest : 0, 8192U); // Older systems take no more at once.
        const std::wstring seen = s_sink.text + TxCtl::FromUtf8(s_sink.bytes);
        const std::wstring whole = lines[0] + L"\r\n" + lines[1] + L"\r\n" + lines[2] + L"\r\n";
        EXPECT_EQ(seen == whole, row.writes != 0 && row.isWhole);
    }
}

TEST(Program, HandsOnItsArgumentsAndResultsAsUtf8)
{
    const std::wstring program = L"\"" + BesideTest(L"txsvcctl.exe") + L"\" ";
    const struct
    {
        std::wstring arguments;
        DWORD exitCode;
        const char* out;
        const char* error;
    } table[] = {
        {L"log get \"controller: \u4e2d\"", 0, "controller: \xE4\xB8\xAD   (searched for) (default)\r\n", ""},
        {L"list \u4e2d", 1, "", "txsvcctl: there is no group '\xE4\xB8\xAD'\r\n"},
        {L"remove \u4e2d \"\"", 2, "", "txsvcctl: the service name is empty\r\n"},
    };
    for (const auto& row : table)
    {
        const ProcessOutput output = RunForOutput(program + row.arguments);
        EXPECT_EQ(output.exitCode, row.exitCode);
        EXPECT_EQ(output.out, row.out);
        EXPECT_EQ(output.error, row.error);
    }
    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    const Basalt::CFile readOnly(::CreateFileW(
        BesideTest(L"txsvcctl.exe").c_str(),
        GENERIC_READ,
        FILE_SHARE_READ,
        &inheritable,
        OPEN_EXISTING,
        0,
        nullptr));
    EXPECT_EQ(CProcess(program + L"--version", readOnly.Get()).Wait(), 1U) << "the output is lost";
}

} // namespace
