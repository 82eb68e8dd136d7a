#include "JsonTree.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

namespace MavixSim {

using Node = TCJsonTree::Node;
using Kind = TCJsonTree::Kind;

namespace {

// The characters of a text, which tell how far the parser has read.
class TCCountingIterator final {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    TCCountingIterator(const char* at, std::size_t* read) : m_at(at), m_read(read) {}
    reference operator*() const { return *m_at; }
    TCCountingIterator& operator++() {
        ++m_at;
        ++*m_read;
        return *this;
    }
    bool operator==(const TCCountingIterator& other) const { return m_at == other.m_at; }
    bool operator!=(const TCCountingIterator& other) const { return m_at != other.m_at; }

private:
    const char* m_at;
    std::size_t* m_read;
};

bool IsPlainName(const std::string& name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_' || letter == '$';
    });
}

std::string PathOf(const Node& node) {
    if (node.parent == nullptr)
        return "$";
    const std::string path = PathOf(*node.parent);
    if (node.parent->kind == Kind::Array)
        return path + "[" + std::to_string(node.index) + "]";
    return IsPlainName(node.name) ? path + "." + node.name
                                  : path + "[" + nlohmann::json(node.name).dump() + "]";
}

// What the parser says behind its own prefix and position.
std::string Reason(const std::string& message) {
    const std::string mark = ": ";
    const std::size_t at = message.find(mark);
    return at == std::string::npos ? message : message.substr(at + mark.size());
}

} // namespace

// Builds the tree from the parser's events. The parser has read just the token that it reports, or one more
// character after a number, so the token starts where the last one ended, behind blanks and separators.
class TCJsonTree::TCBuilder final {
public:
    TCBuilder(TCJsonTree& tree, const std::size_t& read) : m_tree(tree), m_read(read) {}

    bool null() {
        m_Add(Kind::Null);
        return true;
    }
    bool boolean(bool value) {
        m_Add(Kind::Boolean).boolean = value;
        return true;
    }
    bool number_integer(std::int64_t value) {
        m_Add(Kind::Integer).integer = value;
        return true;
    }
    bool number_unsigned(std::uint64_t value) {
        constexpr std::uint64_t largest = std::numeric_limits<std::int64_t>::max();
        Node& node = m_Add(value <= largest ? Kind::Integer : Kind::Fraction);
        node.integer = value <= largest ? static_cast<std::int64_t>(value) : 0;
        return true;
    }
    bool number_float(double, const std::string&) {
        m_Add(Kind::Fraction);
        return true;
    }
    bool string(std::string& value) {
        m_Add(Kind::Text).text = std::move(value);
        return true;
    }
    bool binary(std::vector<std::uint8_t>&) { return false; }
    bool start_object(std::size_t) { return m_Open(Kind::Object); }
    bool start_array(std::size_t) { return m_Open(Kind::Array); }
    bool end_object() { return m_Close(); }
    bool end_array() { return m_Close(); }

    bool key(std::string& name) {
        m_nameOffset = m_TakeStart();
        if (!m_open.back().names.insert(name).second)
            m_tree.m_Fail(m_nameOffset, PathOf(*m_open.back().node), "duplicate member '" + name + "'");
        m_name = std::move(name);
        return true;
    }

    bool parse_error(std::size_t position, const std::string&, const nlohmann::json::exception& error) {
        const std::size_t offset = std::min(position > 0 ? position - 1 : 0, m_tree.m_text.size());
        m_tree.m_Fail(offset, m_open.empty() ? "$" : PathOf(*m_open.back().node), Reason(error.what()));
    }

private:
    std::size_t m_TakeStart() {
        const std::string& text = m_tree.m_text;
        // A byte order mark is none of the blanks.
        static constexpr const char* skipped = " \t\r\n,:\xef\xbb\xbf";
        const std::size_t start = std::min(text.find_first_not_of(skipped, m_last), text.size());
        m_last = m_read;
        return start;
    }

    Node& m_Add(Kind kind) {
        auto added = std::make_unique<Node>();
        Node& node = *added;
        node.kind = kind;
        node.offset = m_TakeStart();
        if (m_open.empty()) {
            m_tree.m_root = std::move(added);
        } else {
            Node& parent = *m_open.back().node;
            node.parent = &parent;
            node.index = parent.children.size();
            node.name = std::exchange(m_name, {});
            node.nameOffset = m_nameOffset;
            parent.children.push_back(std::move(added));
        }
        if (++m_values > mostValues)
            m_tree.Fail(node, "more than " + std::to_string(mostValues) + " values");
        return node;
    }

    bool m_Open(Kind kind) {
        Node& node = m_Add(kind);
        if (m_open.size() >= deepest)
            m_tree.Fail(node, "nested more than " + std::to_string(deepest) + " levels deep");
        m_open.push_back({&node, {}});
        return true;
    }

    bool m_Close() {
        m_last = m_read;
        m_open.pop_back();
        return true;
    }

    struct Open {
        Node* node;
        std::set<std::string> names;
    };

    TCJsonTree& m_tree;
    const std::size_t& m_read;
    std::size_t m_last = 0;
    std::size_t m_values = 0;
    std::string m_name;
    std::size_t m_nameOffset = 0;
    std::vector<Open> m_open;
};

const Node* Node::Find(const std::string& wanted) const {
    for (const auto& child : children)
        if (child->name == wanted)
            return child.get();
    return nullptr;
}

TCJsonTree TCJsonTree::Load(const std::string& file) {
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    std::string text;
    for (std::vector<char> chunk(65536); stream && text.size() <= largestFile;) {
        stream.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        text.append(chunk.data(), static_cast<std::size_t>(stream.gcount()));
    }
    if (stream.bad() || (text.empty() && errno != 0))
        throw JsonFault(file + ": cannot be read: " + std::strerror(errno));
    return Parse(file, std::move(text));
}

TCJsonTree TCJsonTree::Parse(const std::string& name, std::string text) {
    TCJsonTree tree(name, std::move(text));
    if (tree.m_text.size() > largestFile)
        tree.m_Fail(largestFile, "$", "larger than " + std::to_string(largestFile) + " bytes");
    std::size_t read = 0;
    TCBuilder builder(tree, read);
    const char* begin = tree.m_text.data();
    nlohmann::json::sax_parse(TCCountingIterator(begin, &read),
                              TCCountingIterator(begin + tree.m_text.size(), &read), &builder);
    return tree;
}

void TCJsonTree::Fail(const Node& node, const std::string& what) const {
    m_Fail(node.offset, PathOf(node), what);
}

void TCJsonTree::FailAtName(const Node& member, const std::string& what) const {
    m_Fail(member.nameOffset, PathOf(*member.parent), what);
}

std::string TCJsonTree::m_PlaceOf(std::size_t offset) const {
    const auto end = m_text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, m_text.size()));
    const auto line = 1 + std::count(m_text.begin(), end, '\n');
    const std::size_t lineEnd = offset > 0 ? m_text.rfind('\n', offset - 1) : std::string::npos;
    const std::size_t column = lineEnd == std::string::npos ? offset + 1 : offset - lineEnd;
    return m_name + ":" + std::to_string(line) + ":" + std::to_string(column);
}

void TCJsonTree::m_Fail(std::size_t offset, const std::string& path, const std::string& what) const {
    throw JsonFault(m_PlaceOf(offset) + ": " + path + ": " + what);
}

const char* NameOf(Kind kind) {
    switch (kind) {
    case Kind::Null:
        return "null";
    case Kind::Boolean:
        return "a truth value";
    case Kind::Integer:
        return "a whole number";
    case Kind::Fraction:
        return "a number";
    case Kind::Text:
        return "a text";
    case Kind::Array:
        return "an array";
    case Kind::Object:
        return "an object";
    }
    return "";
}

} // namespace MavixSim
