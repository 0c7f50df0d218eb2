/// @file
/// Bad input, generated: nothing may crash, hang or let an exception out, what is written must be read again
/// as it was, and what is out of range must come to its default.
///
///     bad_input [--seed N] [--length INPUTS] [--json FILE] [--subject NAME [--input HEX]]
///
/// The code that takes texts apart is compiled with counters at its branches: an input that reaches something
/// new is kept and changed further. A failure is told with the smallest input that still shows it.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <numeric>

#include "Campaign.h"
#include "base/Stopwatch.h"
#include "support/Installation.h"
#include "support/Narrow.h"

namespace
{

constexpr unsigned long long kLong = 1'000'000;

std::string FromHex(const std::wstring& text)
{
    constexpr int kHexadecimal = 16;
    std::string bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2)
    {
        bytes += static_cast<char>(std::stoul(text.substr(at, 2), nullptr, kHexadecimal));
    }
    return bytes;
}

Subjects ChosenSubjects(const ProofOptions& options)
{
    Subjects subjects;
    AddTextSubjects(subjects);
    AddRegistrySubjects(subjects);
    AddRpcSubjects(subjects);
    const std::string wanted = Narrow(options.Get(L"--subject"));
    std::erase_if(
        subjects, [&](const auto& subject) { return !wanted.empty() && subject->Name() != wanted; });
    return subjects;
}

void TryOne(const Subjects& subjects, const std::string& bytes)
{
    for (const auto& subject : subjects)
    {
        const std::string failure = TryInput(*subject, bytes);
        std::printf("%s: %s\n", subject->Name(), failure.empty() ? "nothing wrong" : failure.c_str());
    }
}

void TryMany(const Subjects& subjects, CProof& proof)
{
    const unsigned shares =
        std::accumulate(subjects.begin(), subjects.end(), 0U, [](unsigned sum, const auto& subject) {
            return sum + subject->Share();
        });
    std::printf(
        "seed %u\n  %-20s %10s %8s %8s %9s\n", proof.Seed(), "", "inputs", "kept", "places", "seconds");
    for (const auto& subject : subjects)
    {
        const unsigned long long count = proof.Length() * subject->Share() / shares + 1;
        const Basalt::CStopwatch watch;
        const CampaignResult seen = RunCampaign(*subject, count, proof);
        std::printf(
            "  %-20s %10llu %8zu %8zu %9.1f\n",
            subject->Name(),
            count,
            seen.kept,
            seen.places,
            watch.Seconds());
    }
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const auto options = ProofOptions::Parse(argc, argv, {L"--subject", L"--input"});
    if (!options)
    {
        std::fputs(
            "usage: bad_input [--seed N] [--length INPUTS] [--json FILE] [--subject NAME [--input HEX]]\n",
            stderr);
        return 2;
    }
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    std::setvbuf(stdout, nullptr, _IONBF, 0); // What was printed before a crash is wanted most.
    CProof proof("bad_input", *options, kLong);
    try
    {
        const CInstallation installation; // A machine without the product, and again at the end.
        const Subjects subjects = ChosenSubjects(*options);
        options->Has(L"--input") ? TryOne(subjects, FromHex(options->Get(L"--input")))
                                 : TryMany(subjects, proof);
    }
    catch (const std::exception& failure)
    {
        proof.AddFault(failure.what());
    }
    return proof.Finish();
}
