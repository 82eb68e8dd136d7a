#include "IpcAuxData.h"
#include "IpcConfigurationMavix.h"
#include "RecordingPlatform.h"
#include "VirtualTable.h"
#include "WatchdogHandler.h"

#include <gtest/gtest.h>

#include <list>
#include <set>
#include <string>
#include <vector>

using namespace MavixTest;
using MavixApiLite::IpcAuxData;
using MavixApiLite::IpcConfiguration;
using MavixApiLite::IpcConfigurationMavix;
using MavixApiLite::IpcNativeAuxData;
using MavixApiLite::IpcProxyAuxData;
using MavixApiLite::TCWatchdogHandler;

namespace {

using Names = std::list<std::string>;
using Tags = std::set<std::int32_t>;

template <class Base>
class NamedConfiguration : public Base {
public:
    NamedConfiguration() : Base("the.events", "/the/events") {}
};

class OtherAuxData : public IpcAuxData {
protected:
    Tags t_SupportedFlags() const override { return {8, 16}; }
};

} // namespace

TEST(ConfigurationSlots, DestructorsComeFirst) {
    ExpectDestructorInTheFirstTwoSlots<NamedConfiguration<IpcConfiguration>>();
    ExpectDestructorInTheFirstTwoSlots<NamedConfiguration<IpcConfigurationMavix>>();
}

TEST(ConfigurationSlots, NeutralConfigurationAnswersThroughEachSlot) {
    const IpcConfiguration object("the.events", "/the/events");
    const std::string name = "com.norvale.IAVControl";
    EXPECT_TRUE(CallSlot<bool()>(&object, 2));
    EXPECT_EQ(name, (CallSlot<std::string(const std::string&, short)>(&object, 3, name, short{66})));
    EXPECT_EQ(Names{name}, CallSlot<Names(const std::string&)>(&object, 4, name));
    EXPECT_FALSE((CallSlot<bool(const std::string&, short)>(&object, 5, name, short{66})));
    EXPECT_EQ("", CallSlot<std::string(const std::string&)>(&object, 6, name));
    EXPECT_EQ(7u, SlotCount(&object));
}

TEST(ConfigurationSlots, MavixConfigurationAnswersThroughEachSlot) {
    const IpcConfigurationMavix object("the.events", "/the/events");
    const std::string name = "com.norvale.IAVControl";
    EXPECT_FALSE(CallSlot<bool()>(&object, 2));
    EXPECT_EQ("com.norvale.MavixAPI.HyperFast",
              (CallSlot<std::string(const std::string&, short)>(&object, 3, name, short{66})));
    EXPECT_EQ(3u, CallSlot<Names(const std::string&)>(&object, 4, name).size());
    EXPECT_TRUE((CallSlot<bool(const std::string&, short)>(&object, 5, name, short{66})));
    EXPECT_EQ("mavix-daemon", CallSlot<std::string(const std::string&)>(&object, 6, name));
    EXPECT_EQ(7u, SlotCount(&object));
    EXPECT_EQ(0, OffsetToWholeObject(&object));
}

TEST(AuxDataSlots, DestructorsComeFirst) {
    ExpectDestructorInTheFirstTwoSlots<OtherAuxData>();
    ExpectDestructorInTheFirstTwoSlots<IpcNativeAuxData>();
    ExpectDestructorInTheFirstTwoSlots<IpcProxyAuxData>();
}

TEST(AuxDataSlots, AcceptedTagsComeThird) {
    const OtherAuxData other;
    const IpcNativeAuxData native;
    const IpcProxyAuxData proxy;
    EXPECT_EQ((Tags{8, 16}), CallSlot<Tags()>(&other, 2));
    EXPECT_EQ((Tags{2, 4}), CallSlot<Tags()>(&native, 2));
    EXPECT_EQ(Tags{4}, CallSlot<Tags()>(&proxy, 2));
    EXPECT_EQ(3u, SlotCount(&native));
    EXPECT_EQ(3u, SlotCount(&proxy));
}

TEST(WatchdogSlots, DestructorsComeFirst) {
    ExpectDestructorInTheFirstTwoSlots<TCWatchdogHandler>();
}

TEST(WatchdogSlots, RegisterUnregisterAndNotifyFollow) {
    using Calls = std::vector<std::string>;
    TCWatchdogHandler object;
    CallSlot<void(int)>(&object, 2, 30);
    EXPECT_EQ(Calls{"smart_deadlock_register_watchdog_service(30)"}, TCRecordingPlatform::Get().Calls());
    TCRecordingPlatform::Get().Reset();
    CallSlot<void()>(&object, 3);
    EXPECT_EQ(Calls{"smart_deadlock_unregister_watchdog_service()"}, TCRecordingPlatform::Get().Calls());
    TCRecordingPlatform::Get().Reset();
    for (int notification = 0; notification < 4; ++notification) {
        CallSlot<void(const std::string&)>(&object, 4, std::string("TheThread"));
    }
    EXPECT_EQ(Calls(4, "smart_deadlock_watchdog_notify()"), TCRecordingPlatform::Get().Calls());
    EXPECT_EQ(1u, TCRecordingPlatform::Get().Count(6, "[TheThread] watchdog notify"));
    EXPECT_EQ(5u, SlotCount(&object));
}
