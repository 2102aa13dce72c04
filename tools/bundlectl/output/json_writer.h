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

/// Puts a JSON text together, member by member. The caller pairs Begin and End. Texts become valid UTF-8.
class JsonWriter {
public:
    JsonWriter& BeginObject() { return Begin('{'); }
    JsonWriter& BeginArray() { return Begin('['); }
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
    JsonWriter& Value(Model::Time time);
    /// As seconds, with a fraction.
    JsonWriter& Value(Model::Microseconds span);
    JsonWriter& Null() { return Plain("null"); }

    template <class Type> JsonWriter& Value(const std::optional<Type>& value) { return value ? Value(*value) : Null(); }
    template <class Type> JsonWriter& Member(const char* name, const Type& value) { return Key(name).Value(value); }

    /// Begins the object that every verb's output is: the schema, the verb, the time.
    JsonWriter& BeginOutput(const char* verb, Model::Time taken);

    const std::string& Text() const { return m_text; }

private:
    JsonWriter& Begin(char bracket);
    JsonWriter& Plain(const std::string& value);
    void Separate();

    std::string m_text;
    std::string m_open; ///< the brackets that end what has been begun, the innermost last
    bool m_needsComma = false;
};

} // namespace Output

#endif
