#include <windows.h>

#include "CtlTest.h"
#include "support/Narrow.h"
#include "txsvcctl/ImagePath.h"
#include "txsvcctl/common/Names.h"

namespace
{

using ValidationTest = CtlTest;

struct Refusal
{
    const char* name;
    std::vector<std::wstring> arguments;
    int exitCode;
    std::wstring part; ///< of the message
};

std::vector<std::wstring> InstallArguments(
    const std::wstring& group, const std::wstring& service, const std::wstring& clsid)
{
    return {
        L"install", group, service, L"--clsid", clsid, L"--module", L"C:\\windows\\system32\\oleaut32.dll"};
}

TEST_F(ValidationTest, WrongCommandLinesAreRefusedWithTheirReasonAndChangeNothing)
{
    const std::wstring group = kTestGroup;
    const std::wstring service = L"txctl-a";
    const std::wstring clsid = kTestClsid;
    const std::vector<Refusal> table = {
        {"no command", {}, 2, L"a command is missing"},
        {"unknown command", {L"instal"}, 2, L"instal"},
        {"missing option", {L"install", group, service, L"--clsid", clsid}, 2, L"--module"},
        {"empty group", InstallArguments(L"", service, clsid), 2, L"group"},
        {"empty service", InstallArguments(group, L"", clsid), 2, L"service"},
        {"semicolon", InstallArguments(group, L"a;b", clsid), 2, L"a;b"},
        {"colon", InstallArguments(group, L"a:b", clsid), 2, L"a:b"},
        {"comma", InstallArguments(group, L"a,b", clsid), 2, L"a,b"},
        {"slash in front", InstallArguments(L"/a", service, clsid), 2, L"'/a'"},
        {"backslash", InstallArguments(L"a\\b", service, clsid), 2, L"a\\b"},
        {"quotes", InstallArguments(L"a\"b", service, clsid), 2, L"a\"b"},
        {"control character", InstallArguments(group, L"a\tb", clsid), 2, L"control character"},
        {"blank at the end", InstallArguments(group, L"a ", clsid), 2, L"blank"},
        {"long service", InstallArguments(group, std::wstring(257, L'a'), clsid), 2, L"longer than 256"},
        {"long group", InstallArguments(std::wstring(256, L'a'), service, clsid), 2, L"longer than 255"},
        {"the host's switch", InstallArguments(L"startservicesX", service, clsid), 2, L"/startservices"},
        {"the host's value", InstallArguments(group, L"wssoptimalbucketupperlimit", clsid), 2, L"value"},
        {"empty CLSID", InstallArguments(group, service, L""), 2, L"not a CLSID"},
        {"empty braces", InstallArguments(group, service, L"{}"), 2, L"'{}' is not a CLSID"},
        {"program id", InstallArguments(group, service, L"StdFont"), 2, L"not a CLSID"},
        {"no braces", InstallArguments(group, service, clsid.substr(1, 36)), 2, L"not a CLSID"},
        {"wrong digit", InstallArguments(group, service, L"{X" + clsid.substr(2)), 2, L"not a CLSID"},
        {"start type", {L"install", group, service, L"--start", L"now"}, 2, L"now"},
        {"names and group", {L"start", service, L"--group", group}, 2, L"--group"},
        {"neither", {L"stop"}, 2, L"--group"},
        {"timeout", {L"stop", service, L"--timeout", L"0"}, 2, L"--timeout"},
        {"log without command", {L"log"}, 2, L"set, unset, get"},
        {"unknown log command", {L"log", L"gte"}, 2, L"gte"},
        {"group without services", {L"start", L"--group", L"none"}, 1, L"'none'"},
        {"unknown group", {L"list", L"none"}, 1, L"'none'"},
        {"unknown service", {L"start", service}, 1, L"error 1060"},
        {"nothing to remove", {L"remove", group, service}, 1, service},
        {"host is missing",
         {L"install", group, service, L"--clsid", clsid, L"--module", Module(), L"--host", L"C:\\no.exe"},
         1,
         L"C:\\no.exe"},
        {"module is missing",
         {L"install", group, service, L"--clsid", clsid, L"--module", L"C:\\windows\\no.dll"},
         1,
         L"C:\\windows\\no.dll' cannot be read: error 2"},
    };
    for (const Refusal& row : table)
    {
        SCOPED_TRACE(row.name);

        const CtlResult result = Run(row.arguments);

        EXPECT_EQ(result.exitCode, row.exitCode);
        EXPECT_NE(result.error.find(row.part), std::wstring::npos) << Narrow(result.error);
        EXPECT_EQ(result.out, L"");
    }
    EXPECT_FALSE(HasKey(L"Software\\Wow6432Node\\Tarvex"));
    EXPECT_FALSE(HasKey(ClassKey()));
}

TEST_F(ValidationTest, NamesUpToTheLimitAndWithBlanksInsideArePassed)
{
    EXPECT_NO_THROW(TxCtl::CheckServiceName(std::wstring(256, L'a')));
    EXPECT_NO_THROW(TxCtl::CheckGroupName(std::wstring(255, L'a')));
    EXPECT_NO_THROW(TxCtl::CheckServiceName(L"\u00e4 b-c_1."));
    EXPECT_EQ(TxCtl::CanonicalClsid(L"{7c1d3b52-9e40-4b6a-8f21-ad00c0de0001}"), kTestClsid);
}

TEST_F(ValidationTest, ImagePathsOfAnyMakingAreTakenApart)
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
    EXPECT_TRUE(
        TxCtl::RunsGroup(TxCtl::ParseImagePath(TxCtl::FormatImagePath(L"C:\\h.exe", L"g H")), L"G h"));
    EXPECT_FALSE(TxCtl::RunsGroup(TxCtl::ParseImagePath(L"C:\\h.exe /GROUP"), L"G"));
}

} // namespace
