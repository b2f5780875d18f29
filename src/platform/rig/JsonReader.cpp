// SPDX-License-Identifier: Apache-2.0
// Strict reading of JSON. Pure.
#include "platform/rig/JsonReader.h"

#include <charconv>
#include <vector>

namespace Nimbrel2::Platform {

namespace {

std::string Escaped(const std::string& key) {
    std::string escaped;
    for (const char c : key) {
        escaped += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return escaped;
}

}  // namespace

nlohmann::json ParseStrictly(std::string_view text, int maxDepth) {
    using Event = nlohmann::json::parse_event_t;
    std::vector<std::set<std::string>> keys;
    const auto check = [&](int depth, Event event, nlohmann::json& parsed) {
        switch (event) {
            case Event::object_start:
                keys.emplace_back();
                [[fallthrough]];
            case Event::array_start:
                if (depth >= maxDepth) {
                    throw JsonProblem("", "nested deeper than " + std::to_string(maxDepth) + " levels");
                }
                break;
            case Event::object_end:
                keys.pop_back();
                break;
            case Event::key:
                if (!keys.back().insert(parsed.get<std::string>()).second) {
                    throw JsonProblem("", "the key \"" + parsed.get<std::string>() + "\" stands twice in one object");
                }
                break;
            default:
                break;
        }
        return true;
    };
    try {
        return nlohmann::json::parse(text.begin(), text.end(), check);
    } catch (const nlohmann::json::parse_error& error) {
        std::string reason = error.what();  // "[json.exception.parse_error.101] parse error at line 3, column 5: ..."
        const std::size_t start = reason.find("] ");
        throw JsonProblem("", start == std::string::npos ? reason : reason.substr(start + 2));
    }
}

std::string JsonValue::Text() const {
    if (!m_value->is_string()) {
        Fail(std::string("a text is wanted, not ") + m_value->type_name());
    }
    return m_value->get<std::string>();
}

bool JsonValue::Boolean() const {
    if (!m_value->is_boolean()) {
        Fail(std::string("true or false is wanted, not ") + m_value->type_name());
    }
    return m_value->get<bool>();
}

std::uint64_t JsonValue::Unsigned(std::uint64_t minimum, std::uint64_t maximum) const {
    const std::string wanted =
        "a whole number from " + std::to_string(minimum) + " to " + std::to_string(maximum) + " is wanted, not ";
    if (!m_value->is_number_unsigned()) {
        Fail(wanted + (m_value->is_number() ? m_value->dump() : m_value->type_name()));
    }
    const auto number = m_value->get<std::uint64_t>();
    if (number < minimum || number > maximum) {
        Fail(wanted + std::to_string(number));
    }
    return number;
}

double JsonValue::Number(double minimum, double maximum) const {
    if (!m_value->is_number() || !(m_value->get<double>() >= minimum) || !(m_value->get<double>() <= maximum)) {
        Fail("a number from " + nlohmann::json(minimum).dump() + " to " + nlohmann::json(maximum).dump() +
             " is wanted, not " + (m_value->is_number() ? m_value->dump() : m_value->type_name()));
    }
    return m_value->get<double>();
}

std::uint64_t JsonValue::HexOrNumber(std::size_t maxDigits) const {
    const std::uint64_t maximum = maxDigits >= 16 ? ~std::uint64_t{0} : (std::uint64_t{1} << 4 * maxDigits) - 1;
    if (!m_value->is_string()) {
        return Unsigned(0, maximum);
    }
    std::string digits = Text();
    if (digits.compare(0, 2, "0x") == 0) {
        digits.erase(0, 2);
    }
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
    if (digits.empty() || digits.size() > maxDigits || error != std::errc{} || end != digits.data() + digits.size()) {
        Fail("up to " + std::to_string(maxDigits) + " hexadecimal digits are wanted, not \"" + Text() + "\"");
    }
    return number;
}

std::size_t JsonValue::Size() const {
    if (!m_value->is_array()) {
        Fail(std::string("an array is wanted, not ") + m_value->type_name());
    }
    return m_value->size();
}

JsonValue JsonValue::At(std::size_t index) const {
    return {m_value->at(index), m_pointer + "/" + std::to_string(index)};
}

JsonObject::JsonObject(const JsonValue& value) : m_value(value) {
    if (!value.m_value->is_object()) {
        value.Fail(std::string("an object is wanted, not ") + value.m_value->type_name());
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
