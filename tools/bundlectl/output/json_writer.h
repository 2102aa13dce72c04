#ifndef BUNDLECTL_OUTPUT_JSON_WRITER_H
#define BUNDLECTL_OUTPUT_JSON_WRITER_H

#include "model/log_time.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace Output {

/// The version of the schema that all output follows: tools/bundlectl/schema/bundlectl-1.json.
constexpr const char JSON_SCHEMA[] = "bundlectl-1";

/// Builds a JSON text, member by member. The caller pairs each Begin with an End, and each Key with a value; this is
/// not checked. Bytes that are not UTF-8 become U+FFFD. Each operation returns the writer itself.
class JsonWriter {
public:
    JsonWriter& BeginObject() { return Begin('{'); }
    JsonWriter& BeginArray() { return Begin('['); }
    /// Ends the innermost object or array. A line end follows the outermost.
    JsonWriter& End();
    /// Names the next value.
    JsonWriter& Key(const char* name);

    JsonWriter& Value(std::string_view text);
    JsonWriter& Value(const char* text) { return Value(std::string_view(text)); }
    JsonWriter& Value(const std::string& text) { return Value(std::string_view(text)); }
    JsonWriter& Value(bool value) { return Plain(value ? "true" : "false"); }
    template <class Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0> JsonWriter& Value(Number number)
    {
        return Plain(std::to_string(number));
    }
    /// In UTC, as a text.
    JsonWriter& Value(Model::Time time);
    /// As seconds, with a fraction.
    JsonWriter& Value(Model::Microseconds span);
    JsonWriter& Null() { return Plain("null"); }

    /// Null when it has no value.
    template <class Type> JsonWriter& Value(const std::optional<Type>& value) { return value ? Value(*value) : Null(); }
    template <class Type> JsonWriter& Member(const char* name, const Type& value) { return Key(name).Value(value); }

    /// Begins the object that every verb prints, with the schema, the verb and the time. End ends it.
    JsonWriter& BeginOutput(const char* verb, Model::Time taken);

    /// Complete after the last End.
    const std::string& Text() const { return m_text; }

private:
    JsonWriter& Begin(char bracket);
    JsonWriter& Plain(const std::string& value);
    void Separate();

    std::string m_text;
    std::string m_open; ///< the closing brackets of the open objects and arrays, the innermost last
    bool m_needsComma = false;
};

} // namespace Output

#endif
