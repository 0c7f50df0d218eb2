#pragma once

#include <functional>
#include <string>
#include <vector>

#include "txsvcctl/check/FindingKinds.h"

namespace TxCtl
{

/// Something that will go wrong, and where.
struct Finding
{
    const FindingKind* kind = nullptr;
    std::wstring subject;       ///< "group 'A'", "service 'alpha'", a path; empty for the whole machine.
    std::wstring detail;        ///< What was found there.
    std::function<void()> mend; ///< What --fix does; empty when it does nothing. Throws CToolError.
};

/// Takes what the checks find.
class CFindings
{
public:
    void Add(FindingId id, std::wstring subject, std::wstring detail, std::function<void()> mend = {})
    {
        m_all.push_back({&KindOf(id), std::move(subject), std::move(detail), std::move(mend)});
    }

    [[nodiscard]] const std::vector<Finding>& All() const noexcept { return m_all; }

private:
    std::vector<Finding> m_all;
};

/// What concerns every group: the registry link, the host's settings, an update, the log, group control's
/// proxy.
/// @throws CToolError when it cannot be read.
void CheckMachine(CFindings& findings);

/// What concerns a group, or one service of it. Changes nothing.
/// @param service empty for all services and what they have in common.
/// @throws CToolError when it cannot be read.
void CheckGroup(const std::wstring& group, const std::wstring& service, CFindings& findings);

} // namespace TxCtl
