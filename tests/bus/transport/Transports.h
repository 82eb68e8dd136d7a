#ifndef MAVIX_TEST_TRANSPORTS_H
#define MAVIX_TEST_TRANSPORTS_H

#include "DbusConnection.h"
#include "GdbusConnection.h"
#include "IteratedConnection.h"
#include "TransportTable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace MavixTest {

// How a test makes a connection, and what is particular about it.
template <class Connection>
struct Transport;

template <>
struct Transport<MavixApiLite::TCGdbusConnection> {
    static std::unique_ptr<MavixApiLite::TIIpcConnection> Make() {
        return std::make_unique<MavixApiLite::TCGdbusConnection>();
    }
    static constexpr const TransportRow& row = gdbusRow;
    static constexpr bool hasThread = true; // for dispatching, of its own
    static constexpr const char* name = "Gdbus";
};

template <>
struct Transport<MavixApiLite::TCDbusConnection> {
    static std::unique_ptr<MavixApiLite::TIIpcConnection> Make() {
        return std::make_unique<MavixApiLite::TCDbusConnection>(1, false);
    }
    static constexpr const TransportRow& row = libdbusRow;
    static constexpr bool hasThread = true;
    static constexpr const char* name = "Libdbus";
};

template <>
struct Transport<TCIteratedDbusConnection> {
    static std::unique_ptr<MavixApiLite::TIIpcConnection> Make() {
        return std::make_unique<TCIteratedDbusConnection>();
    }
    static constexpr const TransportRow& row = libdbusRow;
    static constexpr bool hasThread = false;
    static constexpr const char* name = "LibdbusOnTheDefaultContext";
};

using Transports =
    testing::Types<MavixApiLite::TCGdbusConnection, MavixApiLite::TCDbusConnection, TCIteratedDbusConnection>;
using LibdbusTransports = testing::Types<MavixApiLite::TCDbusConnection, TCIteratedDbusConnection>;

struct TransportNames {
    template <class Connection>
    static std::string GetName(int /*index*/) {
        return Transport<Connection>::name;
    }
};

} // namespace MavixTest

#endif
