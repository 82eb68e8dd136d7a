#ifndef MAVIX_TEST_SCHEMA_VALIDATOR_H
#define MAVIX_TEST_SCHEMA_VALIDATOR_H

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>

namespace MavixTest {

// Judges a document by a JSON schema. It knows the keywords that the scenarios' schema uses, and throws for
// any other one.
class TCSchemaValidator final {
public:
    using Json = nlohmann::json;

    explicit TCSchemaValidator(Json schema) : m_root(std::move(schema)) {}

    bool Accepts(const Json& value) const { return m_Accepts(m_root, value); }

private:
    bool m_Accepts(const Json& schema, const Json& value) const {
        if (schema.is_boolean()) {
            return schema.get<bool>();
        }
        for (const auto& [keyword, argument] : schema.items()) {
            if (!m_Holds(schema, keyword, argument, value)) {
                return false;
            }
        }
        return true;
    }

    bool m_Holds(const Json& schema, const std::string& keyword, const Json& argument,
                 const Json& value) const {
        static const std::set<std::string> remarks{"$schema", "$defs", "title", "description",
                                                   "default", "then",  "else"};
        if (remarks.count(keyword) != 0) {
            return true;
        }
        if (keyword == "$ref") {
            return m_Accepts(m_root.at(Json::json_pointer(argument.get<std::string>().substr(1))), value);
        }
        if (keyword == "type") {
            return m_IsOfType(argument, value);
        }
        if (keyword == "const") {
            return value == argument;
        }
        if (keyword == "enum") {
            return std::find(argument.begin(), argument.end(), value) != argument.end();
        }
        const auto accepts = [&](const Json& each) { return m_Accepts(each, value); };
        if (keyword == "anyOf") {
            return std::any_of(argument.begin(), argument.end(), accepts);
        }
        if (keyword == "allOf") {
            return std::all_of(argument.begin(), argument.end(), accepts);
        }
        if (keyword == "if") {
            const char* branch = m_Accepts(argument, value) ? "then" : "else";
            return !schema.contains(branch) || m_Accepts(schema.at(branch), value);
        }
        return m_HoldsForKind(schema, keyword, argument, value);
    }

    // Keywords that say nothing about values of other types.
    bool m_HoldsForKind(const Json& schema, const std::string& keyword, const Json& argument,
                        const Json& value) const {
        if (keyword == "minimum" || keyword == "maximum") {
            return !value.is_number() || (keyword == "minimum" ? value >= argument : value <= argument);
        }
        if (keyword == "pattern") {
            return !value.is_string() || std::regex_search(value.get<std::string>(), m_Pattern(argument));
        }
        if (keyword == "maxLength") {
            return !value.is_string() || value.get<std::string>().size() <= argument;
        }
        if (keyword == "items") {
            return !value.is_array() || std::all_of(value.begin(), value.end(), [&](const Json& each) {
                return m_Accepts(argument, each);
            });
        }
        if (keyword == "minItems" || keyword == "maxItems") {
            return !value.is_array() ||
                   (keyword == "minItems" ? value.size() >= argument : value.size() <= argument);
        }
        if (keyword == "uniqueItems") {
            return !value.is_array() || std::set<Json>(value.begin(), value.end()).size() == value.size();
        }
        return !value.is_object() || m_HoldsForObject(schema, keyword, argument, value);
    }

    bool m_HoldsForObject(const Json& schema, const std::string& keyword, const Json& argument,
                          const Json& value) const {
        const auto hasAll = [&value](const Json& names) {
            return std::all_of(names.begin(), names.end(),
                               [&](const Json& name) { return value.contains(name.get<std::string>()); });
        };
        if (keyword == "required") {
            return hasAll(argument);
        }
        if (keyword == "dependentRequired") {
            return std::all_of(argument.items().begin(), argument.items().end(), [&](const auto& item) {
                return !value.contains(item.key()) || hasAll(item.value());
            });
        }
        for (const auto& [name, member] : value.items()) {
            const bool isNamed = schema.contains("properties") && schema["properties"].contains(name);
            if (keyword == "properties") {
                if (isNamed && !m_Accepts(argument.at(name), member)) {
                    return false;
                }
            } else if (keyword == "additionalProperties") {
                if (!isNamed && !m_Accepts(argument, member)) {
                    return false;
                }
            } else if (keyword == "propertyNames") {
                if (!m_Accepts(argument, name)) {
                    return false;
                }
            } else {
                throw std::logic_error("unknown keyword " + keyword);
            }
        }
        return true;
    }

    // Compiling takes much longer than matching.
    static const std::regex& m_Pattern(const std::string& text) {
        static std::map<std::string, std::regex> patterns;
        return patterns.try_emplace(text, text).first->second;
    }

    static bool m_IsOfType(const Json& type, const Json& value) {
        return (type == "object" && value.is_object()) || (type == "array" && value.is_array()) ||
               (type == "string" && value.is_string()) || (type == "integer" && value.is_number_integer()) ||
               (type == "boolean" && value.is_boolean());
    }

    const Json m_root;
};

} // namespace MavixTest

#endif
