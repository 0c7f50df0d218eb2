#include "Campaign.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include "base/CallGuard.h"

namespace
{

// What the instrumented code reaches, counted by the places in it.
constexpr std::size_t kPlaces = 1U << 16;
std::array<BYTE, kPlaces> g_counts;        ///< By this input.
std::array<BYTE, kPlaces> g_seen;          ///< By any: one bit for each size of count.
std::array<std::uint16_t, 8192> g_touched; ///< The places with a count, as far as there is room.
std::size_t g_touchedCount = 0;
DWORD g_thread = 0; ///< The one that tries.

BYTE SizeOf(BYTE count) noexcept
{
    return static_cast<BYTE>(count < 4 ? 1U << (count - 1) : count < 16 ? 8 : count < 128 ? 16 : 32);
}

/// @return whether this input reached something new.
bool TakeNews() noexcept
{
    bool isNew = false;
    for (std::size_t i = 0; i < g_touchedCount; ++i)
    {
        BYTE& count = g_counts[g_touched[i]];
        BYTE& seen = g_seen[g_touched[i]];
        isNew = isNew || (seen & SizeOf(count)) == 0;
        seen = static_cast<BYTE>(seen | SizeOf(count));
        count = 0;
    }
    g_touchedCount = 0;
    return isNew;
}

std::size_t CountPlaces() noexcept
{
    return static_cast<std::size_t>(std::ranges::count_if(g_seen, [](BYTE seen) { return seen != 0; }));
}

// For the watch: what is tried, and how often one was begun.
std::atomic<ULONGLONG> g_begun = 0;
std::atomic<const ISubject*> g_subject = nullptr;
std::string g_bytes; ///< Read by the watch only when the input hangs.

std::string Hex(const std::string& bytes)
{
    std::string text;
    for (const char byte : bytes)
    {
        char digits[3] = {};
        std::snprintf(digits, sizeof(digits), "%02x", static_cast<BYTE>(byte));
        text += digits;
    }
    return text;
}

/// Ends the process when one input takes that long.
void Watch()
{
    constexpr DWORD kLongestMs = 60000;
    for (ULONGLONG before = 0;;)
    {
        ::Sleep(kLongestMs);
        const ULONGLONG now = g_begun;
        const ISubject* const subject = g_subject;
        if (now == before && subject != nullptr)
        {
            std::printf("HANG: --subject \"%s\" --input %s\n", subject->Name(), Hex(g_bytes).c_str());
            ::TerminateProcess(::GetCurrentProcess(), 3);
        }
        before = now;
    }
}

std::string RandomBytes(CRandom& random)
{
    std::string bytes(random.Below(random.Below(8) == 0 ? 600 : 80), '\0');
    std::ranges::generate(bytes, [&] { return static_cast<char>(random.Below(256)); });
    return bytes;
}

void ChangeOnce(std::string& bytes, const std::vector<std::string>& corpus, CRandom& random)
{
    constexpr std::size_t kLongest = 4000;
    constexpr unsigned char kEdges[] = {
        0, 1, 0x7F, 0x80, 0xFE, 0xFF, ' ', '0', '9', '\n', '\r', '$', '/', '['};
    const std::size_t at = random.Below(bytes.size() + 1);
    const std::string& other = corpus[random.Below(corpus.size())];
    switch (random.Below(7))
    {
    case 0:
        bytes.insert(at, 1 + random.Below(4), static_cast<char>(random.Below(256)));
        break;
    case 1:
        bytes.erase(at, 1 + random.Below(random.Below(4) == 0 ? 40 : 4));
        break;
    case 2:
        bytes.insert(at, bytes.substr(random.Below(bytes.size() + 1), random.Below(40)));
        break;
    case 3:
        bytes = bytes.substr(0, at) + other.substr(random.Below(other.size() + 1));
        break;
    case 4:
        bytes.resize(std::max<std::size_t>(bytes.size(), at + 1));
        bytes[at] = static_cast<char>(kEdges[random.Below(std::size(kEdges))]);
        break;
    case 5:
        bytes.resize(std::max<std::size_t>(bytes.size(), at + 1));
        bytes[at] = static_cast<char>(bytes[at] ^ (1 << random.Below(8)));
        break;
    default:
        bytes.resize(std::max<std::size_t>(bytes.size(), at + 1));
        bytes[at] = static_cast<char>(bytes[at] + static_cast<char>(random.Below(9)) - 4);
        break;
    }
    bytes.resize(std::min(bytes.size(), kLongest));
}

/// As small as leaving pieces out and writing zeros makes it.
std::string MakeSmaller(ISubject& subject, std::string bytes)
{
    const auto fails = [&subject](const std::string& smaller) { return !TryInput(subject, smaller).empty(); };
    for (std::size_t piece = std::max<std::size_t>(bytes.size() / 2, 1); piece != 0; piece /= 2)
    {
        for (std::size_t at = 0; at < bytes.size();)
        {
            std::string smaller = bytes;
            smaller.erase(at, piece);
            fails(smaller) ? void(bytes = smaller) : void(at += piece);
        }
    }
    for (char& byte : bytes)
    {
        const char before = byte;
        byte = '\0';
        byte = fails(bytes) ? '\0' : before;
    }
    return bytes;
}

} // namespace

/// Called at each edge of the code that is compiled for it.
extern "C" __attribute__((no_sanitize("coverage"))) void __sanitizer_cov_trace_pc() // NOLINT: the compiler's
{
    const auto place = reinterpret_cast<std::uintptr_t>(__builtin_return_address(0));
    const auto index = static_cast<std::uint16_t>((place >> 16) * 31 ^ place);
    BYTE& count = g_counts[index];
    if (count == 0 && g_touchedCount < g_touched.size() && ::GetCurrentThreadId() == g_thread)
    {
        g_touched[g_touchedCount++] = index;
        count = 1;
    }
    else if (count != 0 && count != MAXBYTE)
    {
        ++count;
    }
}

BYTE CDecisions::Byte() noexcept
{
    if (m_bytes.empty())
    {
        return 0;
    }
    const auto byte = static_cast<BYTE>(m_bytes.front());
    m_bytes.remove_prefix(1);
    return byte;
}

DWORD CDecisions::Number() noexcept
{
    DWORD number = 0;
    const std::size_t size = std::min(sizeof(number), m_bytes.size());
    std::memcpy(&number, m_bytes.data(), size);
    m_bytes.remove_prefix(size);
    return number;
}

DWORD CDecisions::EdgyNumber(DWORD minimum, DWORD maximum) noexcept
{
    const DWORD edges[] = {minimum, maximum, minimum - 1, maximum + 1, 0, 1, MAXDWORD, 0x80000000};
    const std::size_t which = Below(std::size(edges) + 4);
    return which < std::size(edges) ? edges[which] : Number();
}

std::wstring CDecisions::Text(std::size_t most)
{
    std::wstring text;
    for (std::size_t left = Byte() % (most + 1); left != 0; --left)
    {
        const BYTE low = Byte();
        // Mostly narrow characters: they are the ones that mean something.
        text += low >= 0xE0 ? static_cast<wchar_t>(Byte() << 8 | Byte()) : static_cast<wchar_t>(low);
    }
    return text;
}

std::wstring CDecisions::Text(std::size_t most, const wchar_t* without)
{
    std::wstring text = Text(most);
    for (wchar_t& character : text)
    {
        character = character < L' ' || std::wcschr(without, character) != nullptr ? L'_' : character;
    }
    return text;
}

std::string_view CDecisions::Rest() noexcept
{
    return std::exchange(m_bytes, {});
}

std::wstring CDecisions::RestAsText()
{
    const std::string_view bytes = Rest();
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    return text;
}

void Require(bool holds, const char* what)
{
    if (!holds)
    {
        throw std::runtime_error(what);
    }
}

constexpr std::size_t kPageBytes = 4096;

CGuardedBytes::CGuardedBytes()
    : m_pages(static_cast<BYTE*>(
          ::VirtualAlloc(nullptr, 2 * kPageBytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)))
{
    DWORD before = 0;
    ::VirtualProtect(m_pages + kPageBytes, kPageBytes, PAGE_NOACCESS, &before);
}

CGuardedBytes::~CGuardedBytes()
{
    ::VirtualFree(m_pages, 0, MEM_RELEASE);
}

BYTE* CGuardedBytes::Put(std::string_view bytes) noexcept
{
    bytes = bytes.substr(0, kPageBytes);
    return static_cast<BYTE*>(std::memcpy(m_pages + kPageBytes - bytes.size(), bytes.data(), bytes.size()));
}

std::string TryInput(ISubject& subject, const std::string& bytes)
{
    std::string failure;
    g_thread = ::GetCurrentThreadId();
    g_bytes = bytes;
    g_subject = &subject;
    ++g_begun;
    const bool isBack = Basalt::CallGuarded([&] {
        try
        {
            subject.Try(CDecisions(bytes));
        }
        catch (const std::exception& exception)
        {
            failure = exception.what();
        }
    });
    g_subject = nullptr;
    return isBack ? failure : "a crash";
}

CampaignResult RunCampaign(ISubject& subject, unsigned long long count, CProof& proof)
{
    static const bool s_isWatched = (std::thread(&Watch).detach(), true);
    static_cast<void>(s_isWatched);
    constexpr std::size_t kMostFailures = 5;
    CRandom random(proof.Seed());
    std::vector<std::string> corpus = subject.Seeds();
    const std::size_t seeds = corpus.size();
    corpus.emplace_back();
    std::set<std::string> failures;
    g_seen = {};
    for (unsigned long long i = 0; i < count && failures.size() < kMostFailures; ++i)
    {
        std::string bytes =
            i < seeds ? corpus[static_cast<std::size_t>(i)] : corpus[random.Below(corpus.size())];
        if (i >= seeds && random.Below(16) == 0)
        {
            bytes = RandomBytes(random);
        }
        for (std::size_t changes = i < seeds ? 0 : 1 + random.Below(6); changes != 0; --changes)
        {
            ChangeOnce(bytes, corpus, random);
        }
        const std::string failure = TryInput(subject, bytes);
        if (TakeNews() && i >= seeds)
        {
            corpus.push_back(bytes);
        }
        if (!failure.empty() && failures.insert(failure).second)
        {
            const std::string small = MakeSmaller(subject, bytes);
            const std::string text = TryInput(subject, small);
            failures.insert(text);
            proof.AddFault(text + ": --subject \"" + subject.Name() + "\" --input " + Hex(small));
        }
        proof.Progress(std::string(subject.Name()) + ", " + std::to_string(i) + " inputs");
    }
    proof.AddPoint(count);
    return {corpus.size() - seeds, CountPlaces(), failures.empty()};
}
