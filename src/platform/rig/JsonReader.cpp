// SPDX-License-Identifier: Apache-2.0
// Strict reading of JSON. Pure.
#include "platform/rig/JsonReader.h"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <optional>
#include <vector>

namespace Nimbrel2::Platform {

namespace {

constexpr std::size_t MaxShownBytes = 60;            // of a key or value
constexpr std::size_t MaxParserBytes = 300;          // the parser shows what it read last, however long
constexpr double MaxExactDouble = 9007199254740992;  // whole numbers up to here are doubles

std::string Escaped(const std::string& key) {
    std::string escaped;
    for (const char c : Cut(key, MaxShownBytes)) {
        escaped += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return escaped;
}

// Goes through a document before it is parsed: repeated keys are lost in the parsed one, and the parser's own call-back
// looks at all earlier elements again at each one's end.
class StrictnessCheck final : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit StrictnessCheck(int maxDepth) : m_maxDepth(static_cast<std::size_t>(maxDepth)) {}

    bool null() override { return Value(); }
    bool boolean(bool) override { return Value(); }
    bool number_integer(number_integer_t) override { return Value(); }
    bool number_unsigned(number_unsigned_t) override { return Value(); }
    bool number_float(number_float_t, const string_t&) override { return Value(); }
    bool string(string_t&) override { return Value(); }
    bool binary(binary_t&) override { return Value(); }

    bool start_object(std::size_t) override { return Open(true); }
    bool start_array(std::size_t) override { return Open(false); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }

    bool key(string_t& key) override {
        m_levels.back().key = key;
        if (!m_levels.back().keys.insert(key).second) {
            throw JsonProblem(Pointer(), "the key " + Quoted(key) + " stands twice in one object");
        }
        return true;
    }

    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& error) override {
        const std::string reason = error.what();  // "[json.exception.parse_error.101] parse error at line 3, ..."
        const std::size_t start = reason.find("] ");
        throw JsonProblem("", Cut(start == std::string::npos ? reason : reason.substr(start + 2), MaxParserBytes));
    }

private:
    struct Level {
        bool isObject;
        std::set<std::string> keys;
        std::string key;        // Of an object: the one read last.
        std::size_t index = 0;  // Of an array: of the next element.
    };

    // Where the value that begins now stands.
    std::string Pointer() const {
        std::string pointer;
        for (const Level& level : m_levels) {
            pointer += "/" + (level.isObject ? Escaped(level.key) : std::to_string(level.index));
        }
        return pointer;
    }

    bool Value() {
        if (!m_levels.empty()) {
            ++m_levels.back().index;
        }
        return true;
    }

    bool Open(bool isObject) {
        if (m_levels.size() >= m_maxDepth) {
            throw JsonProblem(Pointer(), "nested deeper than " + std::to_string(m_maxDepth) + " levels");
        }
        m_levels.push_back(Level{isObject, {}, {}, 0});
        return true;
    }

    bool Close() {
        m_levels.pop_back();
        return Value();
    }

    const std::size_t m_maxDepth;
    std::vector<Level> m_levels;
};

// What stands in a file in place of what is wanted.
std::string Found(const nlohmann::json& value) {
    switch (value.type()) {
        case nlohmann::json::value_t::object:
            return "an object";
        case nlohmann::json::value_t::array:
            return "an array";
        case nlohmann::json::value_t::string:
            return "the text " + Quoted(value.get<std::string>());
        default:
            return value.dump();
    }
}

// The whole number, however it is written.
std::optional<std::uint64_t> WholeNumber(const nlohmann::json& value) {
    if (value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() == 0)) {
        return value.get<std::uint64_t>();
    }
    const double number = value.is_number_float() ? value.get<double>() : -1;
    if (number < 0 || number > MaxExactDouble || number != std::floor(number)) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(number);
}

std::string Decimal(double number) {
    return number == std::floor(number) ? std::to_string(static_cast<std::int64_t>(number))
                                        : nlohmann::json(number).dump();
}

}  // namespace

std::string Cut(const std::string& text, std::size_t bytes) {
    if (text.size() <= bytes) {
        return text;
    }
    while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xC0) == 0x80) {
        --bytes;
    }
    return text.substr(0, bytes) + "...";
}

std::string Quoted(const std::string& text) { return "\"" + Cut(text, MaxShownBytes) + "\""; }

void JsonValue::FailAs(const std::string& wanted) const { Fail(wanted + " is wanted, not " + Found(*m_value)); }

nlohmann::json ParseStrictly(std::string_view text, int maxDepth) {
    StrictnessCheck check(maxDepth);
    nlohmann::json::sax_parse(text.begin(), text.end(), &check);
    return nlohmann::json::parse(text.begin(), text.end());
}

std::string JsonValue::Text() const {
    if (!m_value->is_string()) {
        FailAs("a text");
    }
    return m_value->get<std::string>();
}

bool JsonValue::Boolean() const {
    if (!m_value->is_boolean()) {
        FailAs("true or false");
    }
    return m_value->get<bool>();
}

std::uint64_t JsonValue::Unsigned(std::uint64_t minimum, std::uint64_t maximum) const {
    const std::optional<std::uint64_t> number = WholeNumber(*m_value);
    if (!number.has_value() || *number < minimum || *number > maximum) {
        FailAs("a whole number from " + std::to_string(minimum) + " to " + std::to_string(maximum));
    }
    return *number;
}

double JsonValue::Number(double minimum, double maximum) const {
    if (!m_value->is_number() || !(m_value->get<double>() >= minimum) || !(m_value->get<double>() <= maximum)) {
        FailAs("a number from " + Decimal(minimum) + " to " + Decimal(maximum));
    }
    return m_value->get<double>();
}

std::uint64_t JsonValue::HexOrNumber(std::size_t maxDigits) const {
    const std::uint64_t maximum = maxDigits >= 16 ? ~std::uint64_t{0} : (std::uint64_t{1} << 4 * maxDigits) - 1;
    const std::string wanted = "a text of up to " + std::to_string(maxDigits) +
                               " hexadecimal digits, or a number from 0 to " + std::to_string(maximum) + ",";
    if (!m_value->is_string()) {
        const std::optional<std::uint64_t> number = WholeNumber(*m_value);
        if (!number.has_value() || *number > maximum) {
            FailAs(wanted);
        }
        return *number;
    }
    std::string digits = Text();
    if (digits.compare(0, 2, "0x") == 0) {
        digits.erase(0, 2);
    }
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
    if (digits.empty() || digits.size() > maxDigits || error != std::errc{} || end != digits.data() + digits.size()) {
        FailAs(wanted);
    }
    return number;
}

std::size_t JsonValue::Size() const {
    if (!m_value->is_array()) {
        FailAs("an array");
    }
    return m_value->size();
}

JsonValue JsonValue::At(std::size_t index) const {
    return {m_value->at(index), m_pointer + "/" + std::to_string(index)};
}

JsonObject::JsonObject(const JsonValue& value) : m_value(value) {
    if (!value.m_value->is_object()) {
        value.FailAs("an object");
    }
}

JsonValue JsonObject::Required(const char* key) {
    const auto found = m_value.m_value->find(key);
    if (found == m_value.m_value->end()) {
        m_value.Fail(std::string("\"") + key + "\" is missing");
    }
    m_read.insert(key);
    return {*found, m_value.m_pointer + "/" + Escaped(key)};
}

void JsonObject::Done() const {
    for (const auto& [key, value] : m_value.m_value->items()) {
        if (m_read.count(key) == 0) {
            throw JsonProblem(m_value.m_pointer + "/" + Escaped(key), "unknown key");
        }
    }
}

}  // namespace Nimbrel2::Platform
