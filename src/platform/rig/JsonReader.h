// SPDX-License-Identifier: Apache-2.0
// Reading JSON strictly: every value is asked for by name and kind, what nobody asked for is an error, and every error
// knows its JSON pointer.
#ifndef NIMBREL2_PLATFORM_RIG_JSONREADER_H
#define NIMBREL2_PLATFORM_RIG_JSONREADER_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Nimbrel2::Platform {

/// A value that is not what it should be.
struct JsonProblem : std::runtime_error {
    JsonProblem(std::string where, const std::string& reason) : std::runtime_error(reason), pointer(std::move(where)) {}
    std::string pointer;
};

/// The text, or its beginning and "..." when it has more bytes than that. Cuts between characters of UTF-8.
std::string Cut(const std::string& text, std::size_t bytes);
/// A name or value of a file as errors show it: in quotes, and cut to what a line can hold.
std::string Quoted(const std::string& text);

/// Parses a document without repeated keys and not nested deeper than maxDepth.
/// @throws JsonProblem
nlohmann::json ParseStrictly(std::string_view text, int maxDepth);

/// One value of a document with its place. Cheap to copy; refers to the document.
class JsonValue {
public:
    JsonValue(const nlohmann::json& value, std::string pointer) : m_value(&value), m_pointer(std::move(pointer)) {}

    const std::string& Pointer() const { return m_pointer; }
    [[noreturn]] void Fail(const std::string& reason) const { throw JsonProblem(m_pointer, reason); }

    bool IsArray() const { return m_value->is_array(); }
    bool IsString() const { return m_value->is_string(); }

    std::string Text() const;
    bool Boolean() const;
    /// A whole number, which may be written as 10.0 or 1e1.
    std::uint64_t Unsigned(std::uint64_t minimum, std::uint64_t maximum) const;
    double Number(double minimum, double maximum) const;
    /// A number, or a hexadecimal text of at most that many digits with or without 0x.
    std::uint64_t HexOrNumber(std::size_t maxDigits) const;

    std::size_t Size() const;  ///< Of an array, which it must be.
    JsonValue At(std::size_t index) const;

private:
    friend class JsonObject;
    [[noreturn]] void FailAs(const std::string& wanted) const;

    const nlohmann::json* m_value;
    std::string m_pointer;
};

/// An object whose keys are read one by one; Done fails for the first one that nobody read.
class JsonObject {
public:
    explicit JsonObject(const JsonValue& value);

    bool Has(const char* key) const { return m_value.m_value->contains(key); }
    JsonValue Required(const char* key);
    /// Calls read(JsonValue) when the key is there.
    template <class Read>
    void Optional(const char* key, Read read) {
        if (Has(key)) {
            read(Required(key));
        }
    }
    void Done() const;
    const JsonValue& Value() const { return m_value; }

private:
    JsonValue m_value;
    std::set<std::string> m_read;
};

}  // namespace Nimbrel2::Platform

#endif
