#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "base/Owned.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/service/RegistryChange.h"

namespace TxCtl
{

/// Keeps other runs of this program out: both would read a group's list, and the second to write would lose
/// the name that the first one added.
class CExclusive
{
public:
    /// @throws CToolError when another one does not end in time.
    CExclusive();
    ~CExclusive() { ::ReleaseMutex(m_mutex.Get()); }
    CExclusive(const CExclusive&) = delete;
    CExclusive& operator=(const CExclusive&) = delete;

private:
    Basalt::CHandle m_mutex;
};

/// Runs steps that all record themselves in the change, and undoes them when one fails.
/// @param steps gets the change.
/// @throws CToolError of the failed step, with a line that says what became of the others.
template <typename Steps>
void AllOrNothing(Steps steps)
{
    CRegistryChange change;
    try
    {
        steps(change);
    }
    catch (const CToolError& error)
    {
        std::wstring text = error.Text();
        const std::vector<std::wstring> leftOvers = change.Rollback();
        text += leftOvers.empty() ? L"\nAll changes were undone." : L"\nThe changes were undone, but for:";
        for (const std::wstring& leftOver : leftOvers)
        {
            text += L"\n  " + leftOver;
        }
        throw CToolError(error.Code(), std::move(text));
    }
    change.Commit();
}

} // namespace TxCtl
