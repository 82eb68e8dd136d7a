#ifndef MAVIX_SIM_SCENARIO_JSON_TREE_H
#define MAVIX_SIM_SCENARIO_JSON_TREE_H

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace MavixSim {

// Where in a file something is wrong: "FILE:LINE:COLUMN: PATH: what".
class JsonFault : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A JSON file by value and place.
class TCJsonTree final {
public:
    enum class Kind { Null, Boolean, Integer, Fraction, Text, Array, Object };

    struct Node {
        Kind kind = Kind::Null;
        std::size_t offset = 0; // of the first character in the file
        bool boolean = false;
        std::int64_t integer = 0;
        std::string text;
        std::vector<std::unique_ptr<Node>> children; // in the order of the file
        const Node* parent = nullptr;
        std::size_t index = 0;      // among the parent's children
        std::string name;           // as member of an object
        std::size_t nameOffset = 0; // of the name's first character

        // Null when there is no such member.
        const Node* Find(const std::string& wanted) const;
    };

    static constexpr std::size_t largestFile = std::size_t{64} * 1024 * 1024;
    static constexpr std::size_t mostValues = 1000000;
    static constexpr std::size_t deepest = 32;

    // Both throw JsonFault; `name` stands for the file in its texts.
    static TCJsonTree Load(const std::string& file);
    static TCJsonTree Parse(const std::string& name, std::string text);

    const Node& Root() const { return *m_root; }
    const std::string& Text() const { return m_text; }
    // "FILE:LINE:COLUMN".
    std::string PlaceOf(const Node& node) const { return m_PlaceOf(node.offset); }
    [[noreturn]] void Fail(const Node& node, const std::string& what) const;
    // At the name of the member, with the path of the object.
    [[noreturn]] void FailAtName(const Node& member, const std::string& what) const;

private:
    class TCBuilder;

    TCJsonTree(std::string name, std::string text) : m_name(std::move(name)), m_text(std::move(text)) {}
    std::string m_PlaceOf(std::size_t offset) const;
    [[noreturn]] void m_Fail(std::size_t offset, const std::string& path, const std::string& what) const;

    std::string m_name;
    std::string m_text;
    std::unique_ptr<Node> m_root;
};

// "a number", "an array"...
const char* NameOf(TCJsonTree::Kind kind);

} // namespace MavixSim

#endif
