#pragma once

/// Lets the C++ allocations of this thread fail within its scope, from the one after @p allowed others on.
/// A program that uses it has the global operator new of NoMemory.cpp.
class CNoMemory
{
public:
    /// @param allowed negative for all.
    explicit CNoMemory(int allowed = 0) noexcept;
    ~CNoMemory();
    CNoMemory(const CNoMemory&) = delete;
    CNoMemory& operator=(const CNoMemory&) = delete;

    /// Whether an allocation has failed.
    [[nodiscard]] bool HasFailed() const noexcept;

    class CExempt;

private:
    int m_before;
};

/// Test code that runs meanwhile gets its memory.
class CNoMemory::CExempt : public CNoMemory
{
public:
    CExempt() noexcept : CNoMemory(-1) {}
};
