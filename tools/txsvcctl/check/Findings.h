#pragma once

#include <functional>
#include <string>
#include <vector>

#include "txsvcctl/check/FindingKinds.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/service/ServiceList.h"

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

    /// Runs a check; what it could not read becomes a finding too.
    template <typename Check>
    void Attempt(const std::wstring& subject, Check check)
    {
        try
        {
            check();
        }
        catch (const CToolError& error)
        {
            Add(FindingId::Unreadable, subject, error.Text());
        }
    }

    [[nodiscard]] const std::vector<Finding>& All() const noexcept { return m_all; }

private:
    std::vector<Finding> m_all;
};

// What cannot be read is a finding, no exception; nothing is changed.

/// What concerns every group: the registry link, the host's settings, an update, the log, group control's
/// proxy.
void CheckMachine(CFindings& findings);

/// What concerns a group, or one service of it.
/// @param service empty for all services and what they have in common.
void CheckGroup(const GroupReport& group, const std::wstring& service, CFindings& findings);

/// Entries of the service manager that run a host for a group which does not list them.
/// @param groups all that are known; their services' entries have been checked.
/// @param only   of this one; empty for all.
void CheckStrayEntries(const std::vector<GroupReport>& groups, const std::wstring& only, CFindings& findings);

/// Whether the event log finds the texts of the hosts' events.
/// @param program the host that --fix names there.
void CheckEventSource(const std::wstring& program, CFindings& findings);

} // namespace TxCtl
