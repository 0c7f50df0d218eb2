#pragma once

#include <windows.h>

#include <array>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Proof.h"
#include "Random.h"

/// Bytes of an input as the decisions that shape it: so one kind of mutation and one way to make an input
/// smaller do for all. When no byte is left, all that follows is 0 and empty.
class CDecisions
{
public:
    explicit CDecisions(std::string_view bytes) noexcept : m_bytes(bytes) {}

    BYTE Byte() noexcept;
    DWORD Number() noexcept;
    /// One of those that lie at an edge, or any.
    DWORD EdgyNumber(DWORD minimum, DWORD maximum) noexcept;
    std::size_t Below(std::size_t count) noexcept { return Byte() % count; }
    bool Flag() noexcept { return (Byte() & 1) != 0; }
    /// @param most at most 255 characters.
    std::wstring Text(std::size_t most);
    /// The same without these characters, control characters and NUL.
    std::wstring Text(std::size_t most, const wchar_t* without);
    template <typename Value>
    Value Pick(std::initializer_list<Value> values) noexcept
    {
        return values.begin()[Below(values.size())];
    }
    std::string_view Rest() noexcept;
    /// As UTF-16; a last odd byte is dropped.
    std::wstring RestAsText();

private:
    std::string_view m_bytes;
};

/// Something that takes input from outside, and what must hold for every input.
class ISubject
{
public:
    virtual ~ISubject() = default;

    [[nodiscard]] virtual const char* Name() const noexcept = 0;
    /// Its part of a campaign, in thousandths.
    [[nodiscard]] virtual unsigned Share() const noexcept = 0;
    /// Inputs to begin with.
    [[nodiscard]] virtual std::vector<std::string> Seeds() const { return {}; }
    /// @throws whatever leaves the code in question; std::runtime_error, by Require, for what does not hold
    virtual void Try(CDecisions input) = 0;
};
using Subjects = std::vector<std::unique_ptr<ISubject>>;

/// @throws std::runtime_error unless it holds
void Require(bool holds, const char* what);

/// Bytes right in front of a page that nobody may touch: one read too many is a crash.
class CGuardedBytes
{
public:
    CGuardedBytes();
    ~CGuardedBytes();
    CGuardedBytes(const CGuardedBytes&) = delete;
    CGuardedBytes& operator=(const CGuardedBytes&) = delete;

    /// At most a page of them. @return their place; what stood there before is gone.
    BYTE* Put(std::string_view bytes) noexcept;

private:
    BYTE* m_pages;
};

struct CampaignResult
{
    std::size_t kept = 0;   ///< Inputs that reached something new.
    std::size_t places = 0; ///< In the code with counters.
    bool isGood = true;
};

/// Tries inputs on a subject: seeds, random ones, mutations of those that reached code which none before had
/// reached. What fails is made smaller and told with what it takes to try it again.
/// @param count of inputs.
[[nodiscard]] CampaignResult RunCampaign(ISubject& subject, unsigned long long count, CProof& proof);

/// @return the failure's text, empty for none.
[[nodiscard]] std::string TryInput(ISubject& subject, const std::string& bytes);

void AddTextSubjects(Subjects& subjects);
void AddRegistrySubjects(Subjects& subjects);
void AddRpcSubjects(Subjects& subjects);
