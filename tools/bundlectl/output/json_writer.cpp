#include "json_writer.h"

#include "format_text.h"
#include "times.h"

#include "common/control_characters.h"

namespace Output {

namespace {

/// A byte that does not begin a UTF-8 character here.
bool IsStray(std::string_view unit)
{
    const unsigned char lead = Common::Byte(unit.front());
    if (unit.size() == 1) {
        return lead >= 0x80U;
    }
    // Too long an encoding, half of a surrogate pair, or beyond the last character.
    const unsigned char next = Common::Byte(unit[1]);
    return (lead == 0xE0U && next < 0xA0U) || (lead == 0xEDU && next >= 0xA0U) || (lead == 0xF0U && next < 0x90U) ||
           (lead == 0xF4U && next >= 0x90U);
}

void AppendEscaped(std::string& text, std::string_view unit)
{
    const char first = unit.front();
    if (IsStray(unit)) {
        text += "\uFFFD";
    } else if (first == '"' || first == '\\') {
        (text += '\\') += first;
    } else if (unit.size() == 1 && Common::IsControl(first)) {
        text += FormatText("\\u%04x", Common::Byte(first));
    } else {
        text += unit;
    }
}

} // namespace

JsonWriter& JsonWriter::Begin(char bracket)
{
    Separate();
    m_text += bracket;
    m_open += bracket == '{' ? '}' : ']';
    m_needsComma = false;
    return *this;
}

JsonWriter& JsonWriter::End()
{
    m_text += m_open.back();
    m_open.pop_back();
    m_needsComma = true;
    if (m_open.empty()) {
        m_text += '\n';
    }
    return *this;
}

JsonWriter& JsonWriter::Key(const char* name)
{
    Value(name);
    m_text += ':';
    m_needsComma = false;
    return *this;
}

JsonWriter& JsonWriter::Value(std::string_view text)
{
    Separate();
    m_text += '"';
    while (!text.empty()) {
        const std::size_t size = Common::UnitSize(text.data(), text.size());
        const bool isStray = IsStray(text.substr(0, size));
        AppendEscaped(m_text, text.substr(0, size));
        text.remove_prefix(isStray ? 1 : size);
    }
    m_text += '"';
    return *this;
}

JsonWriter& JsonWriter::Value(Model::Time time)
{
    return Value(Rfc3339(time));
}

JsonWriter& JsonWriter::Value(Model::Microseconds span)
{
    const long long count = span.count();
    return Plain(FormatText("%s%lld.%06lld", count < 0 ? "-" : "", (count < 0 ? -count : count) / 1'000'000,
                            (count < 0 ? -count : count) % 1'000'000));
}

JsonWriter& JsonWriter::BeginOutput(const char* verb, Model::Time taken)
{
    BeginObject().Member("schema", JSON_SCHEMA).Member("verb", verb);
    return Member("time", taken);
}

JsonWriter& JsonWriter::Plain(const std::string& value)
{
    Separate();
    m_text += value;
    return *this;
}

void JsonWriter::Separate()
{
    if (m_needsComma) {
        m_text += ',';
    }
    m_needsComma = true;
}

} // namespace Output
