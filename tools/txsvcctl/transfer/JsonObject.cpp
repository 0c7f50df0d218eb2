#include "txsvcctl/transfer/JsonObject.h"

#include <algorithm>

#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/common/Utf8.h"

using nlohmann::ordered_json;

namespace TxCtl
{

CJsonObject::CJsonObject(const ordered_json& json, std::wstring where, std::span<const char* const> names)
    : m_json(json), m_where(std::move(where))
{
    if (!json.is_object())
    {
        ThrowUsage((m_where.empty() ? L"the document" : m_where) + L" is not an object");
    }
    for (const auto& [name, value] : json.items())
    {
        if (std::ranges::find(names, name) == names.end())
        {
            Refuse(name.c_str(), L"nothing has this name here");
        }
    }
    for (const char* const name : names)
    {
        if (!json.contains(name))
        {
            Refuse(name, L"it is missing");
        }
    }
}

std::wstring CJsonObject::PlaceOf(const char* name) const
{
    return (m_where.empty() ? L"" : m_where + L".") + FromUtf8(name);
}

void CJsonObject::Refuse(const char* name, const std::wstring& why) const
{
    ThrowUsage(PlaceOf(name) + L": " + why);
}

const ordered_json& CJsonObject::member(
    const char* name, bool (*isExpected)(const ordered_json& json), const wchar_t* expected) const
{
    const ordered_json& value = m_json.at(name);
    if (!isExpected(value))
    {
        Refuse(name, FromUtf8(value.dump()) + L" is not " + expected);
    }
    return value;
}

std::wstring CJsonObject::Text(const char* name) const
{
    const ordered_json& value =
        member(name, +[](const ordered_json& json) { return json.is_string(); }, L"a text");
    std::wstring text = FromUtf8(value.get<std::string>());
    if (text.find(L'\0') != std::wstring::npos)
    {
        Refuse(name, L"it holds a NUL character");
    }
    return text;
}

DWORD CJsonObject::Number(const char* name) const
{
    const auto isNumber = +[](const ordered_json& json) {
        return json.is_number_unsigned() && json.get<ULONGLONG>() <= MAXDWORD;
    };
    return member(name, isNumber, L"a number from 0 to 4294967295").get<DWORD>();
}

bool CJsonObject::Flag(const char* name) const
{
    return member(
               name, +[](const ordered_json& json) { return json.is_boolean(); }, L"true or false")
        .get<bool>();
}

DWORD CJsonObject::Word(const char* name, std::span<const EntryWord> words) const
{
    const std::wstring word = Text(name);
    const std::optional<DWORD> number = NumberOf(words, word);
    if (!number)
    {
        std::wstring known;
        for (const EntryWord& one : words)
        {
            known += (known.empty() ? L"" : L", ") + std::wstring(one.word);
        }
        Refuse(name, L"'" + word + L"' is none of " + known);
    }
    return *number;
}

const ordered_json& CJsonObject::Array(const char* name) const
{
    return member(name, +[](const ordered_json& json) { return json.is_array(); }, L"an array");
}

const ordered_json& CJsonObject::Object(const char* name) const
{
    return member(name, +[](const ordered_json& json) { return json.is_object(); }, L"an object");
}

} // namespace TxCtl
