#ifndef MAVIX_TEST_ROUTING_TABLE_H
#define MAVIX_TEST_ROUTING_TABLE_H

#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace MavixTest {

constexpr const char* defaultBus = "com.norvale.MavixAPI";
constexpr const char* pipelineBus = "com.norvale.MavixAPI.Pipeline";
constexpr const char* serviceDbBus = "com.norvale.MavixAPI.ServiceDb";
constexpr const char* hyperFastBus = "com.norvale.MavixAPI.HyperFast";

// The functions of an interface that a specialised bus claims, and the bus that serves them in the end.
struct RoutingRow {
    const char* claimedBy;
    const char* interfaceName;
    std::set<short> codes;
    const char* servedBy;
};

inline void PrintTo(const RoutingRow& row, std::ostream* out) {
    *out << row.claimedBy << ", " << row.interfaceName << ":";
    for (const short code : row.codes) {
        *out << ' ' << code;
    }
}

inline const std::vector<RoutingRow>& RoutingRows() {
    static const std::vector<RoutingRow>& rows = *new std::vector<RoutingRow>{
        {pipelineBus,
         "com.norvale.IAVControl",
         {8, 9, 10, 11, 12, 13, 15, 17, 26, 28, 38, 41, 44, 45, 49, 50, 68, 72},
         pipelineBus},
        {pipelineBus, "com.norvale.IPipelineUtility", {5, 6, 7, 8, 12}, pipelineBus},
        {pipelineBus, "com.norvale.IPlaybackNew", {3, 5, 6, 7, 8, 10}, pipelineBus},
        {pipelineBus, "com.norvale.IPVR", {0, 2}, pipelineBus},
        {pipelineBus, "com.norvale.ISatelliteControl", {0, 1, 3}, pipelineBus},
        {pipelineBus, "com.norvale.ISatelliteSettings", {20}, pipelineBus},
        {pipelineBus, "com.norvale.IScanControl", {0, 4, 6, 10, 14, 19, 22, 23, 25, 26}, pipelineBus},
        {pipelineBus, "com.norvale.IScanData", {0, 4, 40}, pipelineBus},
        {pipelineBus,
         "com.norvale.IServiceNavigation",
         {0,  1,  2,  3,  5,  6,  8,  9,  10, 12, 15, 16, 21, 23, 24,
          25, 26, 29, 34, 38, 39, 41, 42, 46, 50, 52, 54, 55, 56, 57},
         pipelineBus},
        {pipelineBus, "com.norvale.ISOSpecControl", {0, 1, 2, 3, 4}, pipelineBus},
        {pipelineBus,
         "com.norvale.ISourceControl",
         {0,  1,  2,  3,  9,  11, 12, 15, 16, 17, 18, 19, 20, 21,
          34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 45, 49, 50, 51},
         pipelineBus},
        {pipelineBus, "com.norvale.ITunerControl", {0, 1, 2, 6, 7, 8, 11}, pipelineBus},
        {pipelineBus, "com.norvale.IUtil", {1, 29}, pipelineBus},
        {pipelineBus,
         "com.norvale.IVideoControl",
         {0, 2, 4, 8, 15, 22, 25, 28, 29, 31, 33, 42, 46, 48, 50, 52, 54, 56, 58, 60, 81},
         pipelineBus},
        {serviceDbBus, "com.norvale.IB2BControl", {2, 3}, serviceDbBus},
        {serviceDbBus, "com.norvale.IChannelData", {2}, serviceDbBus},
        {serviceDbBus, "com.norvale.ISatellite", {0, 2, 3, 5, 6}, serviceDbBus},
        {serviceDbBus,
         "com.norvale.IService",
         {0, 3, 4, 5, 7, 8, 9, 10, 11, 17, 19, 20, 21, 22, 24, 25, 26, 27, 28, 30, 32, 34, 35, 36},
         serviceDbBus},
        {serviceDbBus, "com.norvale.IServiceNavigation", {17, 18, 31}, serviceDbBus},
        {serviceDbBus, "com.norvale.ISOSpecControl", {0, 1, 2, 3, 4}, pipelineBus},
        {serviceDbBus, "com.norvale.IUtil", {9, 10, 11, 12}, serviceDbBus},
        {hyperFastBus, "com.norvale.IAVControl", {66, 67, 73}, hyperFastBus},
    };
    return rows;
}

} // namespace MavixTest

#endif
