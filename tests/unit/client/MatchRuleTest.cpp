#include "ClientFixture.h"

#include <algorithm>
#include <array>

// The text of match rules and what becomes of it.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string ruleStart = "path='/com/norvale/Mavix/SignalObject', type='signal', "
                              "interface='com.norvale.Mavix.SignalIFace', member='";

class MatchRule : public ClientTest {
protected:
    explicit MatchRule(std::unique_ptr<IpcConfiguration> configuration = MavixConfiguration())
        : ClientTest(std::move(configuration)) {
        Connection().ClearCalls();
    }

    std::string Rule(int type, int id, MAVIXHandle handle) {
        std::array<char, 256> area{};
        TestAccess::CreateMatchRule(Client(), static_cast<EIPCMessageType>(type), id, handle, area.data());
        return area.data();
    }
};

TEST_F(MatchRule, NamesMemberIdAndHandle) {
    const struct {
        int type;
        int id;
        MAVIXHandle handle;
        const char* tail;
    } rows[] = {
        {0, 0, {0, 0}, "Signal', arg0='0', arg1='0'"},
        {1, 1, {0, 0}, "PipelineSignal', arg0='1', arg1='0'"},
        {2, -5, {1, 2}, "Data', arg0='-5', arg1='65538'"},
        {3, 2147483647, {0, 65535}, "Program', arg0='2147483647', arg1='65535'"},
        {4, -2147483647 - 1, {0, 65536}, "Section', arg0='-2147483648', arg1='65536'"},
        // The low part is not masked: its upper bits overlap the high part.
        {5, 7, {1, 0x10000}, "TextData', arg0='7', arg1='65536'"},
        {6, 7, {1, 0x20003}, "Dsm', arg0='7', arg1='196611'"},
        {7, 7, {0, 0xFFFFFFFF}, "CopyProtectionInfo', arg0='7', arg1='4294967295'"},
        // Of the high part the lower half counts.
        {8, 7, {0xFFFF, 0}, "PESData', arg0='7', arg1='4294901760'"},
        {9, 7, {0x10001, 0}, "ExPESData', arg0='7', arg1='65536'"},
        {10, 7, {0xFFFFFFFF, 0xFFFFFFFF}, "Ht', arg0='7', arg1='4294967295'"},
        {11, 7, {0, 1}, "ATSC3Signalling', arg0='7', arg1='1'"},
        {12, 7, {0, 1}, "ATSC3Mpd', arg0='7', arg1='1'"},
        {13, 7, {0, 1}, "ATSC3Linkage', arg0='7', arg1='1'"},
        {14, 7, {0, 1}, "Unknown', arg0='7', arg1='1'"},
        {20, 7, {0, 1}, "Unknown', arg0='7', arg1='1'"},
        {-1, 7, {0, 1}, "Unknown', arg0='7', arg1='1'"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ruleStart + row.tail, Rule(row.type, row.id, row.handle));
    }
}

TEST_F(MatchRule, GoesToTheConnectionWhoseAnswerIsTheResult) {
    const MAVIXHandle handle{1, 2};
    const std::string rule = ruleStart + "Data', arg0='9', arg1='65538'";
    EXPECT_TRUE(Client().AddMatchRule(IPC_MESSAGE_DATA, 9, handle));
    EXPECT_TRUE(Client().RemoveMatchRule(IPC_MESSAGE_DATA, 9, handle));
    Connection().addMatch = false;
    EXPECT_FALSE(Client().AddMatchRule(IPC_MESSAGE_DATA, 9, handle));
    EXPECT_TRUE(Client().RemoveMatchRule(IPC_MESSAGE_DATA, 9, handle));
    Connection().removeMatch = false;
    EXPECT_FALSE(Client().RemoveMatchRule(IPC_MESSAGE_DATA, 9, handle));
    const std::string add = "AddMatch(" + rule + ")";
    const std::string remove = "RemoveMatch(" + rule + ")";
    EXPECT_THAT(Connection().Calls(), ElementsAre(add, remove, add, remove, remove));
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

TEST_F(MatchRule, OfAnUnknownTypeIsNotRefused) {
    EXPECT_TRUE(Client().AddMatchRule(static_cast<EIPCMessageType>(20), 1, MAVIXHandle{0, 0}));
    EXPECT_THAT(Connection().Calls(), ElementsAre("AddMatch(" + ruleStart + "Unknown', arg0='1', arg1='0')"));
}

std::string LongObjectName(std::size_t length) {
    return "/" + std::string(length - 1, 'o');
}

// What the rule below has beside the two names.
constexpr std::size_t fixedLength = 71;

class LongMatchRule : public MatchRule {
protected:
    static constexpr std::size_t interfaceLength = 3;

    explicit LongMatchRule(std::size_t ruleLength)
        : MatchRule(std::make_unique<IpcConfiguration>(
              "a.b", LongObjectName(ruleLength - fixedLength - interfaceLength))) {}

    // The rule, from an area that shows what was written behind it.
    std::string WrittenRule() {
        std::array<char, 264> area{};
        area.fill('#');
        TestAccess::CreateMatchRule(Client(), IPC_MESSAGE_DATA, 1, MAVIXHandle{0, 2}, area.data());
        EXPECT_TRUE(std::all_of(area.begin() + 256, area.end(), [](char byte) { return byte == '#'; }));
        return area.data();
    }
};

class MatchRuleOf255 : public LongMatchRule {
protected:
    MatchRuleOf255() : LongMatchRule(255) {}
};

class MatchRuleOf256 : public LongMatchRule {
protected:
    MatchRuleOf256() : LongMatchRule(256) {}
};

class MatchRuleOf400 : public LongMatchRule {
protected:
    MatchRuleOf400() : LongMatchRule(400) {}
};

TEST_F(MatchRuleOf255, IsWhole) {
    const std::string rule = WrittenRule();
    EXPECT_EQ(255U, rule.size());
    EXPECT_EQ("path='" + LongObjectName(181) +
                  "', type='signal', interface='a.b', member='Data', arg0='1', arg1='2'",
              rule);
}

TEST_F(MatchRuleOf256, LosesItsLastCharacter) {
    const std::string rule = WrittenRule();
    EXPECT_EQ(255U, rule.size());
    EXPECT_EQ("path='" + LongObjectName(182) +
                  "', type='signal', interface='a.b', member='Data', arg0='1', arg1='2",
              rule);
}

TEST_F(MatchRuleOf400, IsCutWithoutAWordAndStillHandedOn) {
    const std::string rule = ("path='" + LongObjectName(326)).substr(0, 255);
    EXPECT_EQ(rule, WrittenRule());
    EXPECT_TRUE(Client().AddMatchRule(IPC_MESSAGE_DATA, 1, MAVIXHandle{0, 2}));
    EXPECT_THAT(Connection().Calls(), ElementsAre("AddMatch(" + rule + ")"));
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

} // namespace
