#include "Body.h"

#include "MessageMaker.h"

#include <gtest/gtest.h>

namespace MavixTraffic {

namespace {

using MavixTest::TCMessageMaker;
using nlohmann::json;

struct BodyRow {
    std::string signature;
    json arguments;
};

// All arguments with their types and values.
std::string Dump(sd_bus_message* message) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* file = ::open_memstream(&text, &size);
    sd_bus_message_dump(message, file, 0);
    std::fclose(file);
    const std::string dump(text, size);
    std::free(text);
    return dump;
}

const std::vector<BodyRow>& Rows() {
    static const std::vector<BodyRow> rows{
        {"", json::array()},
        {"yiay", {1, 3, "0a0bff"}},
        {"siay", {"one", -1, ""}},
        {"bnqiuxt",
         {true, -32768, 65535, -2147483648, 4294967295u, -9007199254740993, 18446744073709551615u}},
        {"d", {4614253070214989087u}},
        {"sog", {"h\u00e4ngt", "/a/b", "a{sv}"}},
        {"as", json::array({json::array({"one", "two"})})},
        {"aai", json::array({json::array({json::array({1}), json::array()})})},
        {"(is)y", json::array({json::array({7, "x"}), 255})},
        {"a{sv}", json::array({json::array({json::array({"k", {{"signature", "ay"}, {"value", "00"}}})})})},
        {"v", json::array({{{"signature", "(iv)"},
                            {"value", json::array({1, {{"signature", "s"}, {"value", "in"}}})}}})},
        {"aay", json::array({json::array({"01", "0203"})})},
        {"a(yay)", json::array({json::array({json::array({1, "aa"})})})},
    };
    return rows;
}

TEST(Body, ReadsWhatItAppends) {
    TCMessageMaker maker;
    for (const BodyRow& row : Rows()) {
        CheckBody(row.signature, row.arguments);
        const auto message =
            maker.Return([&](sd_bus_message* made) { AppendBody(made, row.signature, row.arguments); });
        EXPECT_EQ(sd_bus_message_get_signature(message.get(), 1), row.signature);
        const json read = ReadBody(message.get());
        EXPECT_EQ(read, row.arguments) << row.signature;
        // What is read makes the same arguments again.
        const auto again = maker.Return([&](sd_bus_message* made) { AppendBody(made, row.signature, read); });
        EXPECT_EQ(Dump(again.get()), Dump(message.get())) << row.signature;
    }
}

struct RefusalRow {
    const char* signature;
    json arguments;
    const char* what;
};

TEST(Body, SaysWhatDoesNotFitTheSignature) {
    const json array = json::array();
    const RefusalRow rows[] = {
        {"i", 1, "the arguments are not an array"},
        {"i", array, "argument 0: absent"},
        {"yi", json::array({1}), "argument 1: absent"},
        {"y", {1, 2}, "argument 1: the signature 'y' has no more types"},
        {"y", {256}, "argument 0: not a number that fits"},
        {"y", {-1}, "argument 0: not a number that fits"},
        {"yi", {1, 2147483648u}, "argument 1: not a number that fits"},
        {"i", {-2147483649}, "argument 0: not a number that fits"},
        {"i", {1.5}, "argument 0: not a number that fits"},
        {"i", {"1"}, "argument 0: not a number that fits"},
        {"b", {1}, "argument 0: not true or false"},
        {"s", {1}, "argument 0: not a text"},
        {"s", {std::string("a\0b", 3)}, "argument 0: a text with a zero character"},
        {"o", {"a"}, "argument 0: not an object path"},
        {"g", {"a"}, "argument 0: not a signature"},
        {"ay", {"0"}, "argument 0: not bytes in hexadecimal"},
        {"ay", json::array({json::array({1})}), "argument 0: not bytes in hexadecimal"},
        {"as", {"one"}, "argument 0: not an array"},
        {"as", json::array({json::array({1})}), "argument 0: not a text"},
        {"(is)", json::array({json::array({1})}), "argument 0: too few fields"},
        {"(i)", json::array({json::array({1, 2})}), "argument 0: too many fields"},
        {"(i)", json::array({1}), "argument 0: not an array"},
        {"a{sv}", json::array({json::array({json::array({"k"})})}), "argument 0: too few fields"},
        {"v", {1}, "argument 0: not an object of signature and value"},
        {"v", json::array({{{"signature", "ii"}, {"value", 1}}}), "argument 0: a variant of signature 'ii'"},
        {"v", json::array({{{"signature", ""}, {"value", 1}}}), "argument 0: a variant of signature ''"},
        {"h", {nullptr}, "'h' is no signature that can be replayed"},
        {"a", array, "'a' is no signature that can be replayed"},
        {"(", array, "'(' is no signature that can be replayed"},
        {"()", array, "'()' is no signature that can be replayed"},
        {"(i", array, "'(i' is no signature that can be replayed"},
        {"(i}", array, "'(i}' is no signature that can be replayed"},
        {"{sv}", array, "'{sv}' is no signature that can be replayed"},
        {"a{vs}", array, "'a{vs}' is no signature that can be replayed"},
        {"a{s}", array, "'a{s}' is no signature that can be replayed"},
        {"a{sss}", array, "'a{sss}' is no signature that can be replayed"},
        {"a!", json::array({array}), "'a!' is no signature that can be replayed"},
        {"i i", array, "'i i' is no signature that can be replayed"},
    };
    for (const RefusalRow& row : rows) {
        std::string what = "nothing";
        try {
            CheckBody(row.signature, row.arguments);
        } catch (const std::invalid_argument& error) {
            what = error.what();
        }
        EXPECT_EQ(what, row.what) << row.signature << " " << row.arguments;
    }
}

std::string Complaint(sd_bus_message* message) {
    try {
        ReadBody(message);
        return "";
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

TEST(Body, TellsWhyItCannotRead) {
    TCMessageMaker maker;
    const auto descriptor =
        maker.Return([](sd_bus_message* made) { TCMessageMaker::Append(made, "ih", 1, 0); });
    EXPECT_EQ(Complaint(descriptor.get()), "it holds a descriptor");
    const auto inVariant =
        maker.Return([](sd_bus_message* made) { TCMessageMaker::Append(made, "v", "h", 0); });
    EXPECT_EQ(Complaint(inVariant.get()), "it holds a descriptor");
    const auto text =
        maker.Return([](sd_bus_message* made) { TCMessageMaker::Append(made, "is", 1, "text"); });
    EXPECT_EQ(Complaint(text.get()), "");
    TCMessageMaker::SpoilText(text, "i");
    EXPECT_EQ(Complaint(text.get()), "cannot read a text: Bad message");
}

TEST(Body, TakesTheSignaturesThatMessagesCanHave) {
    const auto nested = [](int count, const char* open, const char* close) {
        std::string signature = "y";
        for (int i = 0; i < count; ++i)
            signature = open + signature + close;
        return signature;
    };
    const json zeros = json(std::vector<int>(255, 0));
    json structures = 0;
    json dictionaries = 0;
    for (int i = 0; i < 32; ++i) {
        structures = json::array({structures});
        dictionaries = json::array({json::array({0, dictionaries})});
    }
    const BodyRow rows[] = {
        {std::string(255, 'y'), zeros},
        {nested(32, "a", ""), json::array({json::array()})},
        {nested(32, "(", ")"), json::array({structures})},
        {nested(32, "a{y", "}"), json::array({dictionaries})},
    };
    TCMessageMaker maker;
    for (const BodyRow& row : rows) {
        EXPECT_NO_THROW(CheckBody(row.signature, row.arguments)) << row.signature;
        EXPECT_NO_THROW(maker.Return([&](sd_bus_message* made) {
            AppendBody(made, row.signature, row.arguments);
        })) << row.signature;
    }
    for (const std::string& signature : {std::string(256, 'y'), nested(33, "a", ""), nested(33, "(", ")"),
                                         nested(33, "a{y", "}"), nested(32, "(", ")") + nested(33, "a", "")})
        EXPECT_THROW(CheckBody(signature, json::array()), std::invalid_argument) << signature;
    for (const std::string& text : {std::string(256, 'y'), nested(33, "a", "")})
        EXPECT_THROW(CheckBody("g", json::array({text})), std::invalid_argument) << text;
}

TEST(Body, RefusesWhatIsNestedTooDeep) {
    json value = {{"signature", "i"}, {"value", 1}};
    for (int i = 0; i < 100; ++i)
        value = {{"signature", "v"}, {"value", value}};
    EXPECT_THROW(CheckBody("v", json::array({value})), std::invalid_argument);
}

} // namespace

} // namespace MavixTraffic
