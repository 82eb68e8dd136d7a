#include "ControlProgram.h"

#include <gtest/gtest.h>

namespace MavixTest {

namespace {

using nlohmann::json;

struct RouteRow {
    Words arguments;
    const char* text;
    json object;
};

TEST(Route, TellsBusWaitListProcessAndTimestampRule) {
    const std::string all = "com.norvale.MavixAPI";
    const RouteRow rows[] = {
        {{"com.norvale.IAVControl", "66"},
         "interface  com.norvale.IAVControl\n"
         "code       66\n"
         "bus name   com.norvale.MavixAPI.HyperFast\n"
         "timestamp  sent with each call\n"
         "waits for  com.norvale.MavixAPI, com.norvale.MavixAPI.Pipeline, com.norvale.MavixAPI.HyperFast\n"
         "process    mavix-daemon\n",
         {{"interface", "com.norvale.IAVControl"},
          {"code", 66},
          {"bus", all + ".HyperFast"},
          {"timestamp", true},
          {"waitsFor", {all, all + ".Pipeline", all + ".HyperFast"}},
          {"process", "mavix-daemon"}}},
        {{"com.norvale.IAVControl", "-1"},
         "interface  com.norvale.IAVControl\n"
         "code       -1\n"
         "bus name   com.norvale.MavixAPI\n"
         "timestamp  none\n"
         "waits for  com.norvale.MavixAPI, com.norvale.MavixAPI.Pipeline, com.norvale.MavixAPI.HyperFast\n"
         "process    mavix-daemon\n",
         {{"interface", "com.norvale.IAVControl"},
          {"code", -1},
          {"bus", all},
          {"timestamp", false},
          {"waitsFor", {all, all + ".Pipeline", all + ".HyperFast"}},
          {"process", "mavix-daemon"}}},
        {{"com.norvale.ISessionControl"},
         "interface  com.norvale.ISessionControl\n"
         "waits for  com.norvale.ISessionControl\n"
         "process    mavix-lite\n",
         {{"interface", "com.norvale.ISessionControl"},
          {"waitsFor", json::array({"com.norvale.ISessionControl"})},
          {"process", "mavix-lite"}}},
        {{"com.example.Unknown", "0x7"},
         "interface  com.example.Unknown\n"
         "code       7\n"
         "bus name   com.norvale.MavixAPI\n"
         "timestamp  none\n"
         "waits for  com.norvale.MavixAPI\n"
         "process    mavix-daemon\n",
         {{"interface", "com.example.Unknown"},
          {"code", 7},
          {"bus", all},
          {"timestamp", false},
          {"waitsFor", json::array({all})},
          {"process", "mavix-daemon"}}},
    };
    for (const RouteRow& row : rows) {
        Words words{"route"};
        words.insert(words.end(), row.arguments.begin(), row.arguments.end());
        const ControlResult text = RunControl(words);
        EXPECT_EQ(text.status, 0) << row.text;
        EXPECT_EQ(text.output, row.text);
        EXPECT_EQ(text.errors, "");
        words.emplace_back("--json");
        const ControlResult object = RunControl(words);
        EXPECT_EQ(object.status, 0) << row.text;
        EXPECT_EQ(object.Object(), row.object);
    }
}

TEST(Route, NeedsNoBus) {
    TCControlProgram::Options options;
    options.environment = {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus"}};
    EXPECT_EQ(RunControl({"route", "com.norvale.IAVControl"}, options).status, 0);
}

} // namespace

} // namespace MavixTest
