#pragma once

#include <windows.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "txsvcctl/service/EntryWords.h"

namespace TxCtl
{

/// An object of a document that somebody may have edited. What is not as expected is told with its place.
/// All operations throw CToolError with ExitCode::Usage.
class CJsonObject
{
public:
    /// @param names of all members that it has to have, no more and no fewer.
    /// @param where for messages: "groups[0]"; empty for the whole document.
    CJsonObject(const nlohmann::ordered_json& json, std::wstring where, std::span<const char* const> names);

    [[nodiscard]] std::wstring Text(const char* name) const;
    [[nodiscard]] DWORD Number(const char* name) const;
    [[nodiscard]] bool Flag(const char* name) const;
    [[nodiscard]] DWORD Word(const char* name, std::span<const EntryWord> words) const;
    [[nodiscard]] const nlohmann::ordered_json& Array(const char* name) const;
    [[nodiscard]] const nlohmann::ordered_json& Object(const char* name) const;

    [[nodiscard]] bool IsNull(const char* name) const { return m_json.at(name).is_null(); }

    /// "groups[0].name"
    [[nodiscard]] std::wstring PlaceOf(const char* name) const;
    [[noreturn]] void Refuse(const char* name, const std::wstring& why) const;

private:
    [[nodiscard]] const nlohmann::ordered_json& member(
        const char* name,
        bool (*isExpected)(const nlohmann::ordered_json& json),
        const wchar_t* expected) const;

    const nlohmann::ordered_json& m_json;
    std::wstring m_where;
};

} // namespace TxCtl
